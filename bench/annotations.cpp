// Speed of the basecaller annotations, each beside its floor: a loop that writes
// the same bytes into ready memory, its numbers with std::to_chars.
//
//     bench_annotations [--benchmark_...]
//
// Counters and more options are those of pairs.h.

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <iostream>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/pairs.h"
#include "data_wrappers/vec_view.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::bench::Measured;
using tesk::bench::NOTHING;
using tesk::data_wrappers::VecView;
using tesk::util::bam::BAMFileHandler;

// The input of all functions: a read and the model's output on it.
struct Read {
    std::string sequence;
    std::string qualities;
    std::vector<std::uint8_t> moves;
    std::vector<std::uint8_t> probs;
};

constexpr char const* ALPHABET = "ACmhGT";
constexpr char const* MODIFICATIONS = "5mC 5hmC";
constexpr std::size_t N_CHANNELS = 6;
constexpr std::uint8_t THRESHOLD = 128;

Read make_read(std::mt19937& random, std::size_t n_bases) {
    Read read;
    for (std::size_t i = 0; i < n_bases; ++i) {
        read.sequence += "ACGT"[random() % 4];
        read.qualities += static_cast<char>('!' + random() % 50);
        read.moves.push_back(1);
        for (unsigned stay = 1 + random() % 2; stay > 0; --stay) read.moves.push_back(0);
        for (std::size_t c = 0; c < N_CHANNELS; ++c) {
            read.probs.push_back(static_cast<std::uint8_t>(random() % 256));
        }
    }
    return read;
}

// Reads as they come from a machine, 8,000 bases in the mean.
std::vector<Read> make_reads() {
    constexpr std::size_t N_READS = 64;
    std::mt19937 random(1);
    std::exponential_distribution<double> part(1 / 3900.0);
    std::vector<Read> reads;
    while (reads.size() < N_READS) {
        auto const n_bases = 200 + static_cast<std::size_t>(part(random) + part(random));
        reads.push_back(make_read(random, n_bases));
    }
    return reads;
}

// The floor of an output: its numbers, each after a comma, and the texts between
// them, all into ready memory.
class Floor {
public:
    Floor(Read const&, std::string const& output) : buffer_(output.size() + MAX_DIGITS) {
        char const* const end = output.data() + output.size();
        Run run;
        for (char const* next = output.data(); next != end;) {
            std::uint32_t number = 0;
            auto const parsed = std::from_chars(next + 1, end, number);
            if (*next == ',' && parsed.ec == std::errc()) {
                run.numbers.push_back(number);
                next = parsed.ptr;
                continue;
            }
            if (!run.numbers.empty()) runs_.push_back(std::exchange(run, Run()));
            run.text += *next++;
        }
        runs_.push_back(run);
        write();
        if (std::memcmp(buffer_.data(), output.data(), output.size()) != 0) {
            throw std::logic_error("the floor writes something else");
        }
    }

    void write() {
        char* next = buffer_.data();
        char* const end = next + buffer_.size();
        for (Run const& run : runs_) {
            std::memcpy(next, run.text.data(), run.text.size());
            next += run.text.size();
            for (std::uint32_t const number : run.numbers) {
                *next++ = ',';
                next = std::to_chars(next, end, number).ptr;
            }
        }
        benchmark::DoNotOptimize(next);
        benchmark::ClobberMemory();
    }

private:
    struct Run {
        std::string text;
        std::vector<std::uint32_t> numbers;
    };
    static constexpr std::size_t MAX_DIGITS = 16;
    std::vector<Run> runs_;
    std::vector<char> buffer_;
};

// The floor of mostly copying: the same texts, copied into ready memory.
class CopyFloor {
public:
    CopyFloor(Read const& read, std::string const& output)
        : read_(read),
          head_(output.substr(0, output.size() - 2 * read.sequence.size() - 1)),
          buffer_(output.size()) {}

    void write() {
        char* next = buffer_.data();
        auto const copy = [&next](std::string const& text) {
            std::memcpy(next, text.data(), text.size());
            next += text.size();
        };
        copy(head_);
        copy(read_.sequence);
        *next++ = '\t';
        copy(read_.qualities);
        benchmark::DoNotOptimize(next);
        benchmark::ClobberMemory();
    }

private:
    Read const& read_;
    std::string head_;
    std::vector<char> buffer_;
};

// Registers a function of all reads. `make` fills a string and, where it cannot, an
// error.
template <typename OutputFloor, typename Make>
void add(std::string const& operation, std::vector<Read> const& reads, Make make) {
    tesk::bench::register_pairs(operation, "long", [&reads, make](benchmark::State& state) {
        std::string output;
        std::string error;
        double n_bytes = 0;
        std::vector<OutputFloor> floors;
        for (Read const& read : reads) {
            if (!make(output, read, error)) throw std::runtime_error(error);
            n_bytes += static_cast<double>(output.size());
            floors.push_back(OutputFloor(read, output));
        }
        auto const make_all = [&] {
            for (Read const& read : reads) {
                make(output, read, error);
                benchmark::DoNotOptimize(output.data());
            }
        };
        auto const write_all = [&] {
            for (OutputFloor& floor : floors) floor.write();
        };
        tesk::bench::measure_pairs(state, Measured{NOTHING, make_all, NOTHING},
                                   Measured{NOTHING, write_all, NOTHING}, n_bytes,
                                   static_cast<double>(reads.size()));
    });
}

auto modbase(std::string const& context) {
    return [context, alphabet = std::string(ALPHABET), names = std::string(MODIFICATIONS)](
               std::string& output, Read const& read, std::string& error) {
        VecView<std::uint8_t> const probs{read.probs.data(), read.probs.size(), 1};
        return BAMFileHandler::generate_modbase_string(output, read.sequence, alphabet, names,
                                                       context, probs, THRESHOLD, error);
    };
}

void register_all(std::vector<Read> const& reads) {
    add<Floor>("generate_move_table_string", reads,
               [](std::string& output, Read const& read, std::string& error) {
                   VecView<std::uint8_t> const moves{read.moves.data(), read.moves.size(), 1};
                   return BAMFileHandler::generate_move_table_string(output, moves, 5, error);
               });
    add<Floor>("generate_modbase_string_by_threshold", reads, modbase(""));
    add<Floor>("generate_modbase_string_by_motif", reads, modbase("_:XG:_:_"));
    add<CopyFloor>("make_unmapped_sam_line", reads,
                   [](std::string& output, Read const& read, std::string& error) {
                       return BAMFileHandler::make_unmapped_sam_line(output, "read1", read.sequence,
                                                                     read.qualities, error);
                   });
}

}  // namespace

int main(int argc, char** argv) {
    tesk::bench::initialize(argc, argv, 0, "bench_annotations");
    try {
        std::vector<Read> const reads = make_reads();
        register_all(reads);
        benchmark::RunSpecifiedBenchmarks();
        return 0;
    } catch (std::exception const& error) {
        std::cerr << "bench_annotations: " << error.what() << '\n';
        return 1;
    }
}
