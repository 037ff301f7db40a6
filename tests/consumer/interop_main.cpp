#include <fstream>
#include <iostream>

#include "interop/alignment_reader.h"

int main() {
    std::ofstream("reads.sam") << "@SQ\tSN:chr1\tLN:1000\n"
                                  "r1\t0\tchr1\t1\t9\t3M\t*\t0\t0\tAcG\tIII\n";
    tesk::interop::AlignmentReader reader;
    tesk::util::bam::BAMFileHandler alignments;
    if (!reader.open("reads.sam") || !reader.read_batch(alignments)) {
        std::cerr << reader.error_message << '\n';
        return 1;
    }
    std::cout << alignments.header;
    for (auto const& record : alignments.records) std::cout << record.sam_line << '\n';
}
