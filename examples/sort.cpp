// Sorts a file of any size and origin within 64 MiB, and writes BAM with an index.
//
//   example_sort IN OUT.bam

#include <cstddef>
#include <iostream>
#include <string>

#include "interop/alignment_reader.h"
#include "interop/alignment_writer.h"
#include "interop/coordinate_sorter.h"

namespace {

int fail(std::string const& message) {
    std::cerr << message << '\n';
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    using namespace tesk::interop;

    AlignmentReader reader;
    SorterOptions sorting;
    sorting.memory_bytes = std::size_t{64} << 20;
    CoordinateSorter sorter(sorting);
    RecordBatch batch;
    if (!reader.open(argv[1])) return fail(reader.error_message);
    do {
        if (!reader.read_batch(batch)) return fail(reader.error_message);
        if (!sorter.add(batch)) return fail(sorter.error_message);
    } while (batch.n_records != 0);
    for (std::string const& line : reader.report().lines()) std::cerr << line << '\n';

    WriterOptions writing;
    writing.index = true;
    AlignmentWriter writer(writing);
    Header const& header = reader.header();
    bool const written = writer.open(argv[2], header, header.text_sorted_by_coordinate()) &&
                         sorter.drain([&](RecordView record) { return writer.write(record); }) &&
                         writer.close();
    if (written) return 0;
    return fail(writer.error_message.empty() ? sorter.error_message : writer.error_message);
}
