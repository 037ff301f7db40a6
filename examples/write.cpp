// Writes a SAM file as BAM, and sorted as SAM, and as BAM with its index.
//
//   example_write IN.sam STEM

#include <iostream>
#include <string>

#include "util/bam/bam_file.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::string const stem = argv[2];
    tesk::util::bam::BAMFileHandler alignments;
    bool done = alignments.read_from_sam_file(argv[1]) &&
                alignments.write_to_bam_file(stem + ".bam", false) &&  // in the order of the file
                alignments.sort();
    // SAM output begins with `header`, which still tells the order that was read.
    done = done && alignments.get_updated_header(alignments.header) &&
           alignments.write_to_sam_file(stem + ".sorted.sam") &&
           alignments.write_to_bam_file(stem + ".sorted.bam", true);  // and STEM.sorted.bam.bai
    if (!done) std::cerr << alignments.error_message << '\n';
    return done ? 0 : 1;
}
