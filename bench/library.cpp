// Speed of the library on a SAM file, each operation beside its floor.
//
//     bench_library KIND FILE.sam FOLDER [--benchmark_...]
//
// KIND names the data in the benchmarks' names; FOLDER takes files that are made.
// Counters and more options are those of pairs.h. Of write_to_bam_file with an index the floor is
// the same without one.

#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/floors.h"
#include "bench/pairs.h"
#include "bench/workload.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::bench::FloorArray;
using tesk::bench::FloorRecord;
using tesk::bench::FloorRecords;
using tesk::bench::measure_pairs;
using tesk::bench::Measured;
using tesk::bench::NOTHING;
using tesk::bench::Payload;
using tesk::bench::require;
using tesk::util::bam::BAMFileHandler;

std::string text_of(std::string const& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

FloorRecord ready_record(BAMFileHandler::BamRecord const& record) {
    FloorRecord ready{
        record.refID,   record.pos,        record.read_name,  record.mapq,     record.bin,
        record.flag,    record.l_seq,      record.next_refID, record.next_pos, record.tlen,
        record.cigar,   record.ref_length, record.seq,        record.qual,     {},
        record.sam_line};
    ready.aux_data.reserve(record.aux_data.size());
    for (BAMFileHandler::AuxData const& field : record.aux_data) {
        boost::any value = field.value;
        if (field.type == 'B') {
            auto const& array = boost::any_cast<BAMFileHandler::AuxNumericalArray const&>(value);
            value = FloorArray{array.type, array.count, array.data};
        }
        ready.aux_data.push_back({field.tag, field.type, std::move(value)});
    }
    return ready;
}

FloorRecords ready_records(BAMFileHandler const& handler) {
    FloorRecords ready;
    ready.reserve(handler.records.size());
    for (auto const& record : handler.records) ready.push_back(ready_record(record));
    return ready;
}

// The data of a run.
class Bench {
public:
    Bench(std::string kind, std::string sam, std::string const& folder)
        : kind_(std::move(kind)), sam_(std::move(sam)), out_(folder + "/out") {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_), handler);
        n_records_ = static_cast<double>(handler.records.size());
        n_bytes_ = static_cast<double>(tesk::bench::sam_bytes(handler));
        bam_ = tesk::bench::make_bam_files(handler, folder);
    }

    void register_all() {
        add("read_from_sam_file", [this](auto& state) { read_sam(state); });
        add("add_alignment_sam", [this](auto& state) { add_lines(state); });
        add("write_to_bam_file", [this](auto& state) { write_bam(state); });
        add("write_to_bam_file_with_index", [this](auto& state) { write_index(state); });
        add("read_from_bam_file", [this](auto& state) { read_bam(state, bam_.own); });
        add("read_from_bam_file_full_blocks",
            [this](auto& state) { read_bam(state, bam_.full_blocks); });
        add("write_to_sam_file", [this](auto& state) { write_sam(state); });
        if (kind_ == "long") return;  // has no positions
        add("sort_shuffled", [this](auto& state) {
            sort(state, [](auto& records) { tesk::bench::shuffle(records); });
        });
        add("sort_nearly_sorted", [this](auto& state) {
            sort(state, [](auto& records) { tesk::bench::swap_some(records); });
        });
    }

private:
    template <typename Run>
    void add(std::string const& operation, Run run) {
        tesk::bench::register_pairs(operation, kind_, run);
    }

    template <typename Operation, typename Floor>
    void measure(benchmark::State& state, Operation operation, Floor floor) {
        measure_pairs(state, operation, floor, n_bytes_, n_records_);
    }

    // What reads records: the handler and the floor's records are emptied after each
    // run, which does not count.
    template <typename Read, typename ReadFloor>
    void measure_reading(benchmark::State& state, Read read, ReadFloor read_floor) {
        std::unique_ptr<BAMFileHandler> handler;
        FloorRecords records;
        measure(state,
                Measured{[&] { handler = std::make_unique<BAMFileHandler>(); },
                         [&] { read(*handler); }, [&] { handler.reset(); }},
                Measured{NOTHING, [&] { records = read_floor(); },
                         [&] { FloorRecords().swap(records); }});
    }

    FloorRecords ready_from_sam() const {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_), handler);
        return ready_records(handler);
    }

    void read_sam(benchmark::State& state) {
        FloorRecords const ready = ready_from_sam();
        measure_reading(
            state,
            [&](BAMFileHandler& handler) { require(handler.read_from_sam_file(sam_), handler); },
            [&] { return tesk::bench::floor_read_sam(sam_, ready); });
    }

    void add_lines(benchmark::State& state) {
        FloorRecords const ready = ready_from_sam();
        std::string const text = text_of(sam_);
        std::string header;
        std::vector<std::string_view> lines;
        for (std::size_t begin = 0; begin < text.size();) {
            std::size_t const end = text.find('\n', begin);
            std::string_view const line(text.data() + begin, end - begin);
            if (line.front() == '@') {
                (header += line) += '\n';
            } else {
                lines.push_back(line);
            }
            begin = end + 1;
        }
        measure_reading(
            state,
            [&](BAMFileHandler& handler) {
                require(handler.add_header_lines(header), handler);
                for (std::string_view const line : lines) {
                    require(handler.add_alignment_sam(std::string(line)), handler);
                }
            },
            [&] { return tesk::bench::floor_add_lines(lines, ready); });
    }

    void read_bam(benchmark::State& state, std::string const& path) {
        BAMFileHandler model;
        require(model.read_from_bam_file(path), model);
        FloorRecords const ready = ready_records(model);
        model = BAMFileHandler();
        measure_reading(
            state,
            [&](BAMFileHandler& handler) { require(handler.read_from_bam_file(path), handler); },
            [&] { return tesk::bench::floor_read_bam(path, bam_.payload_bytes, ready); });
    }

    void write_bam(benchmark::State& state) {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_), handler);
        Payload const payload = tesk::bench::read_payload(bam_.own);
        measure(
            state,
            Measured{
                NOTHING,
                [&] { require(std::as_const(handler).write_to_bam_file(out_, false), handler); },
                NOTHING},
            Measured{NOTHING, [&] { tesk::bench::floor_write_bam(out_, payload); }, NOTHING});
    }

    void write_index(benchmark::State& state) {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_) && handler.sort(), handler);
        auto const writing = [&](bool with_index) {
            return Measured{NOTHING,
                            [&, with_index] {
                                require(std::as_const(handler).write_to_bam_file(out_, with_index),
                                        handler);
                            },
                            NOTHING};
        };
        measure(state, writing(true), writing(false));
    }

    void write_sam(benchmark::State& state) {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_), handler);
        FloorRecords const records = ready_records(handler);
        std::string const header = handler.header;
        measure(
            state,
            Measured{NOTHING, [&] { require(handler.write_to_sam_file(out_), handler); }, NOTHING},
            Measured{NOTHING, [&] { tesk::bench::floor_write_sam(out_, header, records); },
                     NOTHING});
    }

    // Disorders the records, the same way in every run, and sorts them.
    template <typename Disorder>
    void sort(benchmark::State& state, Disorder disorder) {
        BAMFileHandler handler;
        require(handler.read_from_sam_file(sam_) && handler.sort(), handler);
        FloorRecords records = ready_records(handler);
        measure(state,
                Measured{[&] { disorder(handler.records); },
                         [&] { require(handler.sort(), handler); }, NOTHING},
                Measured{[&] { disorder(records); }, [&] { tesk::bench::floor_sort(records); },
                         NOTHING});
    }

    std::string kind_;
    std::string sam_;
    tesk::bench::BamFiles bam_;
    std::string out_;
    double n_records_ = 0;
    double n_bytes_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    tesk::bench::initialize(argc, argv, 3, "bench_library KIND FILE.sam FOLDER");
    try {
        Bench bench(argv[1], argv[2], argv[3]);
        bench.register_all();
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    } catch (std::exception const& error) {
        std::cerr << "bench_library: " << error.what() << '\n';
        return 1;
    }
}
