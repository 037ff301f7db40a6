#include <cstdint>
#include <iostream>
#include <string>

#include "data_wrappers/vec_view.h"
#include "util/bam/bam_file.h"

int main() {
    std::uint8_t const bytes[] = {1, 2, 3, 4};
    tesk::data_wrappers::VecView<std::uint8_t> const odd_places{bytes, 2, 2};

    tesk::util::bam::BAMFileHandler handler;
    std::string header;
    bool const done = handler.add_header_lines("@SQ\tSN:chr1\tLN:1000") &&
                      handler.add_alignment_sam("r1\t0\tchr1\t1\t9\t3M\t*\t0\t0\tACG\tIII") &&
                      handler.get_header(header);
    if (!done || odd_places[1] != 3) return 1;
    std::cout << header << handler.records[0].sam_line << '\n';
    return 0;
}
