// What a basecaller does with its output: each read becomes a SAM line with its
// move table and modified-base calls, and the lines become an unmapped BAM file.
//
//   example_basecaller_output OUT.bam

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "data_wrappers/vec_view.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::data_wrappers::VecView;
using tesk::util::bam::BAMFileHandler;

constexpr int N_READS = 5;
constexpr std::int8_t STRIDE = 5;          // signal samples per step of the model
constexpr std::size_t N_STEP_COLUMNS = 2;  // what the model says of a step

// Channels of the modification model: every base, and 5-methylcytosine and
// 5-hydroxymethylcytosine behind their base.
constexpr char const* ALPHABET = "ACmhGT";
constexpr char const* MODIFICATIONS = "5mC 5hmC";
constexpr std::size_t N_CHANNELS = 6;
constexpr char const* CONTEXT = "_:XG:_:_";  // calls where C is followed by G
constexpr std::uint8_t THRESHOLD = 128;      // for bases without a context

// A read as the model leaves it.
struct CalledRead {
    std::string name;
    std::string sequence;
    std::string qualities;            // SAM text, offset 33
    std::vector<std::uint8_t> steps;  // row by row: bases that begin here, confidence
    std::vector<std::uint8_t> probs;  // row by row: one channel after another
};

// Stands for signal and model: a seeded random read.
CalledRead call_read(int number, std::mt19937& random) {
    auto const below = [&random](unsigned n) { return static_cast<std::uint8_t>(random() % n); };
    CalledRead read;
    read.name = "read" + std::to_string(number);
    std::size_t const n_bases = 40 + below(40);
    for (std::size_t i = 0; i < n_bases; ++i) {
        read.sequence += "ACGT"[below(4)];
        read.qualities += static_cast<char>('!' + 5 + below(40));
        read.steps.insert(read.steps.end(), {1, below(255)});
        for (unsigned stay = below(3); stay > 0; --stay) {
            read.steps.insert(read.steps.end(), {0, below(255)});
        }
        for (std::size_t c = 0; c < N_CHANNELS; ++c) read.probs.push_back(below(255));
    }
    return read;
}

// The read's SAM line: columns, move table and modified bases, between tabs.
bool make_sam_line(CalledRead const& read, std::string& line, std::string& error) {
    // The first column of the steps.
    VecView<std::uint8_t> const moves{read.steps.data(), read.steps.size() / N_STEP_COLUMNS,
                                      N_STEP_COLUMNS};
    VecView<std::uint8_t> const probs{read.probs.data(), read.probs.size(), 1};

    std::string columns;
    std::string move_table;
    std::string modbases;
    bool const done =
        BAMFileHandler::make_unmapped_sam_line(columns, read.name, read.sequence, read.qualities,
                                               error) &&
        BAMFileHandler::generate_move_table_string(move_table, moves, STRIDE, error) &&
        BAMFileHandler::generate_modbase_string(modbases, read.sequence, ALPHABET, MODIFICATIONS,
                                                CONTEXT, probs, THRESHOLD, error);
    if (done) line = columns + '\t' + move_table + '\t' + modbases;
    return done;
}

int report(std::string const& error) {
    std::cerr << error << '\n';
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return report("usage: example_basecaller_output OUT.bam");
    std::string const path = argv[1];

    BAMFileHandler output;
    if (!output.add_header_lines("@HD\tVN:1.6\tSO:unsorted\n"
                                 "@PG\tID:basecaller\tPN:example_basecaller_output\n")) {
        return report(output.error_message);
    }
    std::mt19937 random(1);
    for (int number = 1; number <= N_READS; ++number) {
        std::string line;
        std::string error;
        if (!make_sam_line(call_read(number, random), line, error)) return report(error);
        if (!output.add_alignment_sam(line)) return report(output.error_message);
    }
    if (!output.write_to_bam_file(path, false)) return report(output.error_message);

    // Read back: the same lines.
    BAMFileHandler input;
    if (!input.read_from_bam_file(path)) return report(input.error_message);
    unsigned long n_reads = 0;
    input.get_num_alignments(n_reads);
    for (unsigned long i = 0; i < n_reads; ++i) {
        std::string line;
        if (!input.get_alignment_sam(i, line)) return report(input.error_message);
        std::cout << line << '\n';
    }
    return 0;
}
