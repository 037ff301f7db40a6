// Reads the alignment lines of a SAM file one by one, and goes on behind bad ones.
//
//   example_errors FILE.sam

#include <cstddef>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include "util/bam/bam_file.h"

namespace {

using tesk::util::bam::BAMFileHandler;

bool add(BAMFileHandler& alignments, std::string const& line, std::string& error) {
    std::size_t const n_records = alignments.records.size();
    try {
        bool const is_header = line.compare(0, 1, "@") == 0;
        if (is_header ? alignments.add_header_lines(line) : alignments.add_alignment_sam(line)) {
            return true;
        }
        error = alignments.error_message;  // nothing was added
    } catch (std::exception const& fault) {
        error = fault.what();
        alignments.records.resize(n_records);  // without the unfinished record
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    std::ifstream file(argv[1]);
    BAMFileHandler alignments;
    int number = 0;
    for (std::string line; std::getline(file, line);) {
        std::string error;
        ++number;
        if (!add(alignments, line, error)) std::cout << "line " << number << ": " << error << '\n';
    }
    std::cout << "good records: " << alignments.records.size() << '\n';
    return 0;
}
