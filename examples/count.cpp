#include <iostream>

#include "interop/alignment_reader.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;  // usage: count FILE
    tesk::interop::AlignmentReader reader;
    tesk::util::bam::BAMFileHandler alignments;
    bool good = reader.open(argv[1]);
    std::size_t n_records = 0;
    do {  // batch by batch: memory does not grow with the file
        good = good && reader.read_batch(alignments);
        n_records += alignments.records.size();
    } while (good && !alignments.records.empty());
    for (auto const& line : reader.report().lines()) std::cerr << line << '\n';
    if (!good) std::cerr << reader.error_message << '\n';
    if (good) std::cout << n_records << '\n';
    return good ? 0 : 1;
}
