// Speed of the basecaller annotations, each beside its floor: a loop that writes
// the same bytes into ready memory, its numbers with std::to_chars. The counter
// `ratio` is the function's time over the floor's, taken in turn; of the
// repetitions the median counts.

#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "data_wrappers/vec_view.h"
#include "util/bam/bam_file.h"

namespace {

using tesk::data_wrappers::VecView;
using tesk::util::bam::BAMFileHandler;
using Clock = std::chrono::steady_clock;

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

// Calls of a read: any probability as likely as any other, or nearly all small.
enum class Probabilities { UNIFORM, MOSTLY_SMALL };

std::uint8_t make_probability(std::mt19937& random, Probabilities kind) {
    bool const any_value = kind == Probabilities::UNIFORM || random() % 16 == 0;
    return static_cast<std::uint8_t>(random() % (any_value ? 256 : 20));
}

Read make_read(std::mt19937& random, std::size_t n_bases, Probabilities kind) {
    Read read;
    for (std::size_t i = 0; i < n_bases; ++i) {
        read.sequence += "ACGT"[random() % 4];
        read.qualities += static_cast<char>('!' + random() % 50);
        read.moves.push_back(1);
        for (unsigned stay = 1 + random() % 2; stay > 0; --stay) read.moves.push_back(0);
        for (std::size_t c = 0; c < N_CHANNELS; ++c) {
            read.probs.push_back(make_probability(random, kind));
        }
    }
    return read;
}

// Reads of one length, as many as have 200,000 bases together; or, where the
// length is 0, of lengths as they come from a machine, 8,000 bases in the mean.
std::vector<Read> make_reads(std::size_t n_bases, Probabilities kind) {
    constexpr std::size_t TOTAL_BASES = 200000;
    constexpr std::size_t N_MIXED = 64;
    std::mt19937 random(1);
    std::exponential_distribution<double> part(1 / 3900.0);
    std::size_t const n_reads = n_bases == 0 ? N_MIXED : TOTAL_BASES / n_bases;
    std::vector<Read> reads;
    while (reads.size() < n_reads) {
        std::size_t const mixed = 200 + static_cast<std::size_t>(part(random) + part(random));
        reads.push_back(make_read(random, n_bases == 0 ? mixed : n_bases, kind));
    }
    return reads;
}

// The floor of an output: its numbers, each after a comma, and the texts between
// them, all into ready memory.
class Floor {
public:
    explicit Floor(std::string const& output) : buffer_(output.size() + MAX_DIGITS) {
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
        benchmark::ClobberMemory();
    }

private:
    Read const& read_;
    std::string head_;
    std::vector<char> buffer_;
};

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// Runs a function over reads and their floors in turn. `make` fills the output
// string from a read, `make_floor` makes the floor of a read and its output.
template <typename Make, typename MakeFloor>
void compare(benchmark::State& state, std::vector<Read> const& reads, Make make,
             MakeFloor make_floor) {
    std::string output;
    std::int64_t n_bytes = 0;
    std::vector<decltype(make_floor(reads[0], output))> floors;
    for (Read const& read : reads) {
        if (!make(output, read)) state.SkipWithError("the call failed");
        n_bytes += static_cast<std::int64_t>(output.size());
        floors.push_back(make_floor(read, output));
    }
    Clock::duration function_time{};
    Clock::duration floor_time{};
    for (auto _ : state) {
        auto const begin = Clock::now();
        for (Read const& read : reads) {
            make(output, read);
            benchmark::DoNotOptimize(output.data());
        }
        auto const middle = Clock::now();
        for (auto& floor : floors) floor.write();
        auto const end = Clock::now();
        function_time += middle - begin;
        floor_time += end - middle;
        state.SetIterationTime(seconds(middle - begin));
    }
    state.counters["ratio"] = seconds(function_time) / seconds(floor_time);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * n_bytes);
}

std::vector<Read> reads_of(benchmark::State const& state, Probabilities kind) {
    return make_reads(static_cast<std::size_t>(state.range(0)), kind);
}

void move_table(benchmark::State& state) {
    std::string error;
    auto const make = [&](std::string& output, Read const& read) {
        VecView<std::uint8_t> const moves{read.moves.data(), read.moves.size(), 1};
        return BAMFileHandler::generate_move_table_string(output, moves, 5, error);
    };
    compare(state, reads_of(state, Probabilities::UNIFORM), make,
            [](Read const&, std::string const& output) { return Floor(output); });
}

void modbase(benchmark::State& state, char const* context, Probabilities kind) {
    std::string const alphabet = ALPHABET;
    std::string const modifications = MODIFICATIONS;
    std::string const context_text = context;
    std::string error;
    auto const make = [&](std::string& output, Read const& read) {
        VecView<std::uint8_t> const probs{read.probs.data(), read.probs.size(), 1};
        return BAMFileHandler::generate_modbase_string(
            output, read.sequence, alphabet, modifications, context_text, probs, THRESHOLD, error);
    };
    compare(state, reads_of(state, kind), make,
            [](Read const&, std::string const& output) { return Floor(output); });
}

void modbase_by_threshold(benchmark::State& state) { modbase(state, "", Probabilities::UNIFORM); }
void modbase_by_threshold_few(benchmark::State& state) {
    modbase(state, "", Probabilities::MOSTLY_SMALL);
}
void modbase_by_motif(benchmark::State& state) {
    modbase(state, "_:XG:_:_", Probabilities::UNIFORM);
}
void modbase_by_motif_small(benchmark::State& state) {
    modbase(state, "_:XG:_:_", Probabilities::MOSTLY_SMALL);
}

void unmapped_line(benchmark::State& state) {
    std::string const name = "read1";
    std::string error;
    auto const make = [&](std::string& output, Read const& read) {
        return BAMFileHandler::make_unmapped_sam_line(output, name, read.sequence, read.qualities,
                                                      error);
    };
    compare(state, reads_of(state, Probabilities::UNIFORM), make,
            [](Read const& read, std::string const& output) { return CopyFloor(read, output); });
}

// Input that is refused at once.
void modbase_mismatch(benchmark::State& state) {
    std::mt19937 random(1);
    Read const read =
        make_read(random, static_cast<std::size_t>(state.range(0)), Probabilities::UNIFORM);
    VecView<std::uint8_t> const probs{read.probs.data(), read.probs.size() - 1, 1};
    std::string output;
    std::string error;
    for (auto _ : state) {
        benchmark::DoNotOptimize(BAMFileHandler::generate_modbase_string(
            output, read.sequence, ALPHABET, MODIFICATIONS, probs, THRESHOLD, error));
    }
}

#define TESK_BAM_COMPARED(function) \
    BENCHMARK(function)->Arg(1000)->Arg(10000)->Arg(100000)->Arg(0)->UseManualTime()

TESK_BAM_COMPARED(unmapped_line);
TESK_BAM_COMPARED(move_table);
TESK_BAM_COMPARED(modbase_by_threshold);
TESK_BAM_COMPARED(modbase_by_threshold_few);
TESK_BAM_COMPARED(modbase_by_motif);
TESK_BAM_COMPARED(modbase_by_motif_small);
BENCHMARK(modbase_mismatch)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
