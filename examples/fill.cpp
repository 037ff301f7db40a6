// Fills a handler line by line, and writes it as a SAM file.
//
//   example_fill OUT.sam

#include <iostream>

#include "util/bam/bam_file.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    tesk::util::bam::BAMFileHandler alignments;
    bool const done =
        // The header comes first: lines look their references up in it.
        alignments.add_header_lines(
            "@HD\tVN:1.6\tSO:unsorted\n"
            "@SQ\tSN:chr1\tLN:1000\n"
            "@SQ\tSN:chr2\tLN:500\n") &&
        alignments.add_alignment_sam(
            "r1\t0\tchr2\t101\t60\t4M1D2M\t*\t0\t0\tACGTAC\tIIIIII\tNM:i:1") &&
        alignments.add_alignment_sam("r2\t16\tchr1\t7\t30\t5M\t*\t0\t0\tTTAGA\tIIII#") &&
        alignments.add_alignment_sam("r3\t4\t*\t0\t0\t*\t*\t0\t0\tGG\t*") &&
        alignments.write_to_sam_file(argv[1]);
    if (!done) {
        std::cerr << alignments.error_message << '\n';
        return 1;
    }
    std::cout << alignments.references.size() << " references, " << alignments.records.size()
              << " records\n";
    return 0;
}
