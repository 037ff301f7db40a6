// Speed of headers with many references, and of looking names up in them.
//
//     bench_references FOLDER N_RECORDS [--benchmark_...]
//
// FOLDER takes files that are made. Counters and more options are those of pairs.h.
// What stands beside 200,000 references is the same with 20,000, on as many lines: ten
// headers beside one, N_RECORDS alignment lines beside as many.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/pairs.h"
#include "bench/workload.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::bench::measure_pairs;
using tesk::bench::Measured;
using tesk::bench::NOTHING;
using tesk::bench::require;
using tesk::util::bam::BAMFileHandler;

constexpr std::size_t N_FEW = 20'000;
constexpr std::size_t N_MANY = 200'000;
constexpr char const* DATA = "references";

// Names of 8 to 30 characters, no two the same.
std::vector<std::string> make_names(std::size_t n, std::mt19937_64& random) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < n; ++i) {
        std::string name = std::to_string(1'000'000 + i);
        for (std::size_t rest = 1 + random() % 23; rest > 0; --rest) {
            name += "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdef_.-|0123456789"[random() % 46];
        }
        names.push_back(std::move(name));
    }
    return names;
}

// A SAM file of references, and alignment lines to them in no order.
class References {
public:
    References(std::size_t n_references, std::size_t n_lines, std::string path)
        : path_(std::move(path)) {
        std::mt19937_64 random(1);
        std::vector<std::string> const names = make_names(n_references, random);
        std::ofstream out(path_, std::ios::binary);
        out << "@HD\tVN:1.6\tSO:unknown\n";
        for (std::string const& name : names) {
            out << "@SQ\tSN:" << name << "\tLN:" << 1000 + random() % 1'000'000 << '\n';
        }
        n_bytes_ = static_cast<double>(out.tellp());
        if (!out.flush()) throw std::runtime_error("cannot write " + path_);
        for (std::size_t i = 0; i < n_lines; ++i) {
            lines_.push_back("r\t0\t" + names[random() % n_references] +
                             "\t1\t0\t*\t*\t0\t0\t*\t*");
        }
    }

    void read(BAMFileHandler& handler) const {
        require(handler.read_from_sam_file(path_), handler);
    }
    void add_lines(BAMFileHandler& handler) const {
        for (std::string const& line : lines_) require(handler.add_alignment_sam(line), handler);
    }
    double n_bytes() const { return n_bytes_; }
    std::vector<std::string> const& lines() const { return lines_; }

private:
    std::string path_;
    double n_bytes_ = 0;  // of the file
    std::vector<std::string> lines_;
};

// Reads a header into each of n handlers.
auto reading(References const& references, std::size_t n) {
    auto const handlers = std::make_shared<std::vector<BAMFileHandler>>();
    return Measured{[=] { handlers->resize(n); },
                    [=, &references] {
                        for (BAMFileHandler& handler : *handlers) references.read(handler);
                    },
                    [=] { handlers->clear(); }};
}

// Adds all lines to a handler with a header.
auto adding(References const& references) {
    auto const handler = std::make_shared<BAMFileHandler>();
    references.read(*handler);
    return Measured{NOTHING, [=, &references] { references.add_lines(*handler); },
                    [=] { std::vector<BAMFileHandler::BamRecord>().swap(handler->records); }};
}

void register_all(References const& few, References const& many) {
    tesk::bench::register_pairs("read_sam_header", DATA, [&](benchmark::State& state) {
        measure_pairs(state, reading(many, 1), reading(few, N_MANY / N_FEW), many.n_bytes(),
                      N_MANY);
    });
    tesk::bench::register_pairs("look_up_reference", DATA, [&](benchmark::State& state) {
        double n_bytes = 0;
        for (std::string const& line : many.lines()) {
            n_bytes += static_cast<double>(line.size() + 1);
        }
        measure_pairs(state, adding(many), adding(few), n_bytes,
                      static_cast<double>(many.lines().size()));
    });
}

}  // namespace

int main(int argc, char** argv) {
    tesk::bench::initialize(argc, argv, 2, "bench_references FOLDER N_RECORDS");
    try {
        std::string const folder = argv[1];
        std::size_t const n_records = std::stoul(argv[2]);
        References const few(N_FEW, n_records, folder + "/few.sam");
        References const many(N_MANY, n_records, folder + "/many.sam");
        register_all(few, many);
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    } catch (std::exception const& error) {
        std::cerr << "bench_references: " << error.what() << '\n';
        return 1;
    }
}
