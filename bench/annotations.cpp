// Speed of the basecaller annotations, each beside its floor: a loop that writes
// the same output, number by number, with std::to_chars into ready memory. The
// counter `ratio` is the function's time over the floor's, taken in turn.

#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
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

Read make_read(std::size_t n_bases) {
    std::mt19937 random(1);
    Read read;
    for (std::size_t i = 0; i < n_bases; ++i) {
        read.sequence += "ACGT"[random() % 4];
        read.qualities += static_cast<char>('!' + random() % 50);
        read.moves.push_back(1);
        for (unsigned stay = random() % 4; stay > 0; --stay) read.moves.push_back(0);
        for (std::size_t c = 0; c < N_CHANNELS; ++c) {
            read.probs.push_back(static_cast<std::uint8_t>(random() % 256));
        }
    }
    return read;
}

// The floor of an output: its numbers, each written after a comma, and as many
// bytes of text as are not numbers.
class Floor {
public:
    explicit Floor(std::string const& output) : buffer_(output.size() + MAX_DIGITS) {
        for (std::size_t i = 0; i < output.size();) {
            std::uint32_t number = 0;
            char const* const begin = output.data() + i;
            auto const [end, error] = std::from_chars(begin, output.data() + output.size(), number);
            if (error == std::errc()) numbers_.push_back(number);
            i += error == std::errc() ? static_cast<std::size_t>(end - begin) : 1;
        }
    }

    void write() {
        char* next = buffer_.data();
        char* const end = next + buffer_.size();
        for (std::uint32_t const number : numbers_) {
            *next++ = ',';
            next = std::to_chars(next, end, number).ptr;
        }
        benchmark::DoNotOptimize(next);
        benchmark::ClobberMemory();
    }

private:
    static constexpr std::size_t MAX_DIGITS = 16;
    std::vector<std::uint32_t> numbers_;
    std::vector<char> buffer_;
};

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// Runs a function and its floor in turn. `make` fills the output string.
template <typename Make, typename WriteFloor>
void compare(benchmark::State& state, std::string& output, Make make, WriteFloor write_floor) {
    Clock::duration function_time{};
    Clock::duration floor_time{};
    for (auto _ : state) {
        auto const begin = Clock::now();
        if (!make()) state.SkipWithError("the call failed");
        benchmark::DoNotOptimize(output.data());
        auto const middle = Clock::now();
        write_floor();
        auto const end = Clock::now();
        function_time += middle - begin;
        floor_time += end - middle;
        state.SetIterationTime(seconds(middle - begin));
    }
    state.counters["ratio"] = seconds(function_time) / seconds(floor_time);
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * output.size()));
}

void move_table(benchmark::State& state) {
    Read const read = make_read(static_cast<std::size_t>(state.range(0)));
    VecView<std::uint8_t> const moves{read.moves.data(), read.moves.size(), 1};
    std::string output;
    std::string error;
    auto const make = [&] {
        return BAMFileHandler::generate_move_table_string(output, moves, 5, error);
    };
    make();
    Floor floor(output);
    compare(state, output, make, [&] { floor.write(); });
}

void modbase(benchmark::State& state, char const* context) {
    Read const read = make_read(static_cast<std::size_t>(state.range(0)));
    VecView<std::uint8_t> const probs{read.probs.data(), read.probs.size(), 1};
    std::string output;
    std::string error;
    auto const make = [&] {
        return BAMFileHandler::generate_modbase_string(
            output, read.sequence, ALPHABET, MODIFICATIONS, context, probs, THRESHOLD, error);
    };
    make();
    Floor floor(output);
    compare(state, output, make, [&] { floor.write(); });
}

void modbase_by_threshold(benchmark::State& state) { modbase(state, ""); }
void modbase_by_motif(benchmark::State& state) { modbase(state, "_:XG:_:_"); }

// Mostly copying: its floor is to copy the same texts into ready memory.
void unmapped_line(benchmark::State& state) {
    Read const read = make_read(static_cast<std::size_t>(state.range(0)));
    std::string const name = "read1";
    std::string output;
    std::string error;
    auto const make = [&] {
        return BAMFileHandler::make_unmapped_sam_line(output, name, read.sequence, read.qualities,
                                                      error);
    };
    make();
    std::vector<char> buffer(output.size());
    compare(state, output, make, [&] {
        std::size_t const head = output.size() - 2 * read.sequence.size() - 1;
        std::memcpy(buffer.data(), output.data(), head);
        std::memcpy(buffer.data() + head, read.sequence.data(), read.sequence.size());
        buffer[head + read.sequence.size()] = '\t';
        std::memcpy(buffer.data() + head + read.sequence.size() + 1, read.qualities.data(),
                    read.qualities.size());
        benchmark::ClobberMemory();
    });
}

// Input that is refused at once.
void modbase_mismatch(benchmark::State& state) {
    Read const read = make_read(static_cast<std::size_t>(state.range(0)));
    VecView<std::uint8_t> const probs{read.probs.data(), read.probs.size() - 1, 1};
    std::string output;
    std::string error;
    for (auto _ : state) {
        benchmark::DoNotOptimize(BAMFileHandler::generate_modbase_string(
            output, read.sequence, ALPHABET, MODIFICATIONS, probs, THRESHOLD, error));
    }
}

#define TESK_BAM_COMPARED(function) \
    BENCHMARK(function)->Arg(1000)->Arg(10000)->Arg(100000)->UseManualTime()

TESK_BAM_COMPARED(unmapped_line);
TESK_BAM_COMPARED(move_table);
TESK_BAM_COMPARED(modbase_by_threshold);
TESK_BAM_COMPARED(modbase_by_motif);
BENCHMARK(modbase_mismatch)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
