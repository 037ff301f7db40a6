// Reads a BAM file, numbers its records in a field of their own, and writes it.
//
//   example_change IN.bam OUT.bam

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>

#include "util/bam/bam_file.h"

namespace {

using tesk::util::bam::BAMFileHandler;

// Reading lists the references of the header text and then those of the file's
// own list, which mostly are the same again. Records count from the first one.
void drop_second_list(BAMFileHandler& alignments) {
    auto& references = alignments.references;
    auto const half = static_cast<std::ptrdiff_t>(references.size() / 2);
    bool const is_double = std::equal(
        references.begin(), references.begin() + half, references.begin() + half, references.end(),
        [](auto const& a, auto const& b) { return a.name == b.name && a.length == b.length; });
    if (is_double) references.resize(static_cast<std::size_t>(half));
}

// Appends a field, in the record's fields and in its SAM line.
bool number_records(BAMFileHandler& alignments) {
    std::int32_t number = 0;
    for (BAMFileHandler::BamRecord& record : alignments.records) {
        BAMFileHandler::AuxData field;
        field.tag = "XN";
        field.type = 'i';
        field.value = ++number;  // of the type that the letter names: std::int32_t
        record.aux_data.push_back(field);
        if (!alignments.update_sam_line(record)) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    BAMFileHandler alignments;
    bool done = alignments.read_from_bam_file(argv[1]);
    if (done) drop_second_list(alignments);
    done = done && number_records(alignments) && alignments.write_to_bam_file(argv[2], false);
    if (!done) {
        std::cerr << alignments.error_message << '\n';
        return 1;
    }
    std::cout << alignments.references.size() << " references, " << alignments.records.size()
              << " records\n";
    return 0;
}
