// A basecaller's read with its move table and modified-base calls, as a SAM line
// and in a BAM file.
//
//   example_annotate OUT.bam

#include <cstdint>
#include <iostream>
#include <string>

#include "data_wrappers/vec_view.h"
#include "util/bam/bam_file.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    using tesk::util::bam::BAMFileHandler;
    using Bytes = tesk::data_wrappers::VecView<std::uint8_t>;  // first element, number, step

    std::string const sequence = "ACGCGA";
    // A step of the model, of 5 signal samples each: 1 where a base begins.
    std::uint8_t const moves[] = {1, 0, 1, 1, 0, 0, 1, 1, 1};
    // A row for each base, a column for each channel: A, C, m (of C), G, T.
    std::string const alphabet = "ACmGT";
    std::uint8_t const probs[] = {0, 0,   0,   0, 0,   // A
                                  0, 55,  200, 0, 0,   // C
                                  0, 0,   0,   0, 0,   // G
                                  0, 205, 50,  0, 0,   // C
                                  0, 0,   0,   0, 0,   // G
                                  0, 0,   0,   0, 0};  // A

    std::string columns;
    std::string move_table;
    std::string modified_bases;
    std::string error;
    bool const made =
        BAMFileHandler::make_unmapped_sam_line(columns, "read1", sequence, "IIIIII", error) &&
        BAMFileHandler::generate_move_table_string(move_table, Bytes{moves, 9, 1}, 5, error) &&
        BAMFileHandler::generate_modbase_string(modified_bases, sequence, alphabet, "5mC",
                                                "_:XG:_:_",  // C where G follows
                                                Bytes{probs, 30, 1}, 100, error);
    if (!made) {
        std::cerr << error << '\n';
        return 1;
    }
    std::string const line = columns + '\t' + move_table + '\t' + modified_bases;
    std::cout << line << '\n';

    BAMFileHandler reads;
    bool const done = reads.add_header_lines("@HD\tVN:1.6\tSO:unsorted\n") &&
                      reads.add_alignment_sam(line) && reads.write_to_bam_file(argv[1], false);
    if (!done) std::cerr << reads.error_message << '\n';
    return done ? 0 : 1;
}
