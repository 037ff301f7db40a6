#include <iostream>

#include "util/bam/bam_file.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;  // usage: convert IN.sam OUT.bam
    tesk::util::bam::BAMFileHandler alignments;
    bool const done = alignments.read_from_sam_file(argv[1]) && alignments.sort() &&
                      alignments.write_to_bam_file(argv[2], true);  // and OUT.bam.bai
    if (!done) std::cerr << alignments.error_message << '\n';
    return done ? 0 : 1;
}
