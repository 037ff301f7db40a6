// Memory that the library takes on a SAM file; prints JSON.
//
//     bench_memory KIND FILE.sam FOLDER
//
// KIND stands in the output; FOLDER takes files that are made. For each operation, in
// bytes of the heap: what was in use before (`start`: the handler and what it holds),
// how much more is in use afterwards (`held`) and was at the most (`peak`), and, of
// operations that read, how much the same records, references and header take in
// containers of just their size (`model`). But for a few bytes, the figures are the
// same in every run.

#include <cstddef>
#include <exception>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "bench/heap.h"
#include "bench/workload.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::bench::BamFiles;
using tesk::bench::require;
using tesk::util::bam::BAMFileHandler;

// What the state of a handler takes, exactly sized: what copies of it do.
std::size_t model_of(BAMFileHandler const& handler) {
    std::size_t const start = tesk::bench::heap_in_use();
    auto const records = handler.records;
    auto const references = handler.references;
    std::string const texts[] = {handler.header, handler.header_lines, handler.sort_order};
    return tesk::bench::heap_in_use() - start;
}

class Bench {
public:
    Bench(std::string kind, std::string sam, std::string const& folder)
        : kind_(std::move(kind)), sam_(std::move(sam)), out_(folder + "/out") {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_), handler);
        n_records_ = handler.records.size();
        n_bytes_ = tesk::bench::sam_bytes(handler);
        bam_ = tesk::bench::make_bam_files(handler, folder);
    }

    void run() {
        std::cout << "{\"benchmarks\": [";
        reading("read_from_sam_file", [this](auto& h) { return h.read_from_sam_file(sam_); });
        reading("add_alignment_sam", [this](auto& h) { return add_lines(h); });
        working("write_to_bam_file", [this](auto& h) { return write_bam(h, false); });
        working("write_to_bam_file_with_index", [this](auto& h) { return write_bam(h, true); });
        reading("read_from_bam_file", [this](auto& h) { return h.read_from_bam_file(bam_.own); });
        reading("read_from_bam_file_full_blocks",
                [this](auto& h) { return h.read_from_bam_file(bam_.full_blocks); });
        working("write_to_sam_file", [this](auto& h) { return h.write_to_sam_file(out_); });
        if (kind_ != "long") {  // has no positions
            sorting("sort_shuffled", [](auto& records) { tesk::bench::shuffle(records); });
            sorting("sort_nearly_sorted", [](auto& records) { tesk::bench::swap_some(records); });
        }
        std::cout << "\n]}\n";
    }

private:
    using Work = std::function<bool(BAMFileHandler&)>;
    using Disorder = std::function<void(std::vector<BAMFileHandler::BamRecord>&)>;

    void measure(char const* operation, BAMFileHandler& handler, Work const& work, bool reads) {
        std::size_t const start = tesk::bench::heap_in_use();
        tesk::bench::reset_heap_peak();
        require(work(handler), handler);
        std::size_t const peak = tesk::bench::heap_peak() - start;
        std::size_t const held = tesk::bench::heap_in_use() - start;
        std::cout << (is_first_ ? "\n" : ",\n") << R"(  {"name": ")" << operation << '/' << kind_
                  << R"(", "bytes": )" << n_bytes_ << R"(, "items": )" << n_records_
                  << R"(, "payload": )" << bam_.payload_bytes << R"(, "start": )" << start
                  << R"(, "held": )" << held << R"(, "peak": )" << peak;
        if (reads) std::cout << R"(, "model": )" << model_of(handler);
        std::cout << '}';
        is_first_ = false;
    }

    // What fills a handler.
    void reading(char const* operation, Work const& work) {
        BAMFileHandler handler;
        measure(operation, handler, work, true);
    }

    // What does something with a full one, in coordinate order.
    void working(char const* operation, Work const& work) {
        sorting_or_working(operation, work, [](auto&) {});
    }
    void sorting(char const* operation, Disorder const& disorder) {
        sorting_or_working(
            operation, [](auto& handler) { return handler.sort(); }, disorder);
    }
    void sorting_or_working(char const* operation, Work const& work, Disorder const& disorder) {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_) && handler.sort(), handler);
        disorder(handler.records);
        measure(operation, handler, work, false);
    }

    bool add_lines(BAMFileHandler& handler) {
        std::ifstream in(sam_, std::ios::binary);
        for (std::string line; std::getline(in, line);) {
            bool const done = line.front() == '@' ? handler.add_header_lines(line)
                                                  : handler.add_alignment_sam(std::move(line));
            if (!done) return false;
        }
        return true;
    }

    bool write_bam(BAMFileHandler const& handler, bool with_index) {
        return handler.write_to_bam_file(out_, with_index);
    }

    std::string kind_;
    std::string sam_;
    BamFiles bam_;
    std::string out_;
    std::size_t n_records_ = 0;
    std::size_t n_bytes_ = 0;
    bool is_first_ = true;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: bench_memory KIND FILE.sam FOLDER\n";
        return 2;
    }
    try {
        Bench(argv[1], argv[2], argv[3]).run();
        return 0;
    } catch (std::exception const& error) {
        std::cerr << "bench_memory: " << error.what() << '\n';
        return 1;
    }
}
