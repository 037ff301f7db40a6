// Prints the records of a sorted BAM file that overlap a region, by its index.
//
//   example_region FILE.bam NAME BEG END    (0-based, END excluded)

#include <cstdint>
#include <iostream>
#include <string>

#include "interop/alignment_reader.h"
#include "interop/index_reader.h"

int main(int argc, char** argv) {
    if (argc != 5) return 2;
    std::string const path = argv[1];
    tesk::interop::IndexReader index;
    if (!index.open(path + ".bai")) {
        std::cerr << index.error_message << '\n';
        return 1;
    }
    tesk::interop::AlignmentReader reader;
    tesk::util::bam::BAMFileHandler alignments;
    bool good = reader.open(path);
    if (good) {
        std::int32_t const refID = reader.header().find(argv[2]);
        good = reader.select({{refID, std::stoll(argv[3]), std::stoll(argv[4])}}, &index);
    }
    do {
        good = good && reader.read_batch(alignments);
        for (auto const& record : alignments.records) std::cout << record.sam_line << '\n';
    } while (good && !alignments.records.empty());
    if (!good) std::cerr << reader.error_message << '\n';
    return good ? 0 : 1;
}
