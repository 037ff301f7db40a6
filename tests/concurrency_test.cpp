// The functions that annotate a basecaller's reads, on many threads at once. To
// be run under the thread sanitizer, too.

#include "util/bam/bam_file.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using tesk::util::bam::BaseModContext;
using Handler = tesk::util::bam::BAMFileHandler;
using ByteView = tesk::data_wrappers::VecView<unsigned char>;
using Texts = std::vector<std::string>;

constexpr std::size_t N_THREADS = 8;

// Runs a job on each of eight threads, which begin together, and collects what
// the jobs return.
std::vector<Texts> run_on_threads(std::function<Texts(std::size_t)> const& job) {
    std::vector<Texts> results(N_THREADS);
    std::atomic<std::size_t> n_ready{0};
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < N_THREADS; ++t) {
        threads.emplace_back([&, t] {
            ++n_ready;
            while (n_ready < N_THREADS) std::this_thread::yield();
            results[t] = job(t);
        });
    }
    for (std::thread& thread : threads) thread.join();
    return results;
}

// The end of a call as text: its result, or the exception that it left with.
template <typename Call>
std::string result_of(Call call) {
    try {
        return call() ? "true" : "false";
    } catch (std::exception const& e) {
        return e.what();
    }
}

struct NameCase {
    char const* name;
    char const* text;  // code, or what the error string holds afterwards
};
constexpr NameCase NAMES[] = {
    {"6mA", "a"},   {"5mC", "m"},  {"5hmC", "h"},
    {"5fc", "f"},   {"5caC", "c"}, {"8oxoG", "o"},
    {"5hmU", "g"},  {"5fU", "e"},  {"5caU", "b"},
    {"123", "123"}, {"", ""},      {"5fC", "Unknown modified base abbreviation: 5fC"},
};
constexpr std::size_t N_NAMES = sizeof NAMES / sizeof NAMES[0];

// Code or message of every name, beginning with another one on each thread.
Texts look_up_names(std::size_t first) {
    Texts texts(N_NAMES);
    for (std::size_t k = 0; k < N_NAMES; ++k) {
        std::size_t const i = (first + k) % N_NAMES;
        std::string code;
        std::string error;
        bool const found = Handler::get_modbase_channel_name(code, NAMES[i].name, error);
        texts[i] = found ? code : error;
    }
    return texts;
}

struct Read {
    std::string name, sequence, qualities;
    std::vector<unsigned char> bytes;  // five a base
};

Read make_read(std::mt19937& random, std::size_t thread) {
    Read read;
    read.name = "thread" + std::to_string(thread) + '_' + std::to_string(random());
    for (std::size_t n = 20 + random() % 200; n > 0; --n) {
        read.sequence += "ACGT"[random() % 4];
        read.qualities += static_cast<char>('!' + random() % 94);
        for (int k = 0; k < 5; ++k) read.bytes.push_back(static_cast<unsigned char>(random()));
    }
    return read;
}

// Calls every function with arguments that belong to the thread, good ones and
// bad ones. The outputs are used again and again, as a producer would.
Texts annotate_reads(std::size_t thread) {
    std::mt19937 random(static_cast<std::uint32_t>(thread));
    Texts texts = look_up_names(thread);
    std::string out;
    std::string error;
    auto const keep = [&](std::string const& result) {
        texts.push_back(result);
        texts.push_back(out);
        texts.push_back(error);
    };
    for (int round = 0; round < 60; ++round) {
        Read const read = make_read(random, thread);
        ByteView const probs{read.bytes.data(), read.bytes.size(), 1};
        ByteView const moves{read.bytes.data() + thread % 5, read.sequence.size(), 5};
        auto const threshold = static_cast<unsigned char>(20 * thread + 60);
        auto const stride = static_cast<signed char>(thread);
        keep(result_of([&] {
            return Handler::make_unmapped_sam_line(out, read.name, read.sequence, read.qualities,
                                                   error);
        }));
        keep(result_of([&] {
            return Handler::make_unmapped_sam_line(out, "", read.sequence, read.qualities, error);
        }));
        keep(result_of(
            [&] { return Handler::generate_move_table_string(out, moves, stride, error); }));
        keep(result_of([&] {
            return Handler::generate_move_table_string(out, {nullptr, 0, 1}, stride, error);
        }));
        for (char const* const names : {"5mC", "8oxoG", "", "nonsense"}) {
            for (char const* const context : {"", "_:XG:_:_", "GXTC:X:_:_", "_:CG:_:_"}) {
                keep(result_of([&] {
                    return Handler::generate_modbase_string(out, read.sequence, "ACmGT", names,
                                                            context, probs, threshold, error);
                }));
            }
            keep(result_of([&] {
                return Handler::generate_modbase_string(out, read.sequence, "ACmGT", names, probs,
                                                        threshold, error);
            }));
        }
        keep(result_of([&] {
            return Handler::generate_modbase_string(out, read.sequence + 'N', "Cm", "5mC",
                                                    {read.bytes.data(), 2, 1}, threshold, error);
        }));
        keep(result_of([&] {
            return Handler::generate_modbase_string(out, "N", "ACmGT", "5mC",
                                                    {read.bytes.data(), 5, 1}, threshold, error);
        }));
    }
    return texts;
}

TEST(Concurrency, StaticFunctionsOnEightThreads_ResultsOfOneThread) {
    // Nothing here may use the table of names before the threads do: its first
    // use is one of the things to be seen.
    std::vector<Texts> const results = run_on_threads(annotate_reads);
    for (std::size_t t = 0; t < N_THREADS; ++t) {
        SCOPED_TRACE(t);
        for (std::size_t i = 0; i < N_NAMES; ++i) {
            EXPECT_EQ(results[t].at(i), NAMES[i].text) << NAMES[i].name;
        }
        EXPECT_EQ(results[t], annotate_reads(t));
        if (t == 0) continue;
        EXPECT_NE(results[t], results[0]) << "threads had the same arguments";
    }
}

TEST(Concurrency, OneConstantContextReadByEightThreads_ResultsOfOneThread) {
    BaseModContext shared;
    shared.set_context("CG", 0);
    shared.set_context("GATC", 1);
    BaseModContext const& context = shared;
    auto const job = [&](std::size_t thread) {
        std::mt19937 random(static_cast<std::uint32_t>(thread));
        Texts texts;
        for (int round = 0; round < 200; ++round) {
            Read const read = make_read(random, thread);
            std::vector<int> mask = context.get_sequence_mask(read.sequence);
            context.update_mask(mask, read.sequence, "AaCmGoT",
                                {read.bytes.data(), 7 * read.sequence.size(), 0}, 1);
            std::string text =
                context.encode() + context.motif('A') + std::to_string(context.motif_offset('A'));
            for (int const mark : mask) text += std::to_string(mark);
            BaseModContext own;
            text += own.decode(context.encode()) ? own.motif('C') : "";
            texts.push_back(text);
        }
        return texts;
    };
    std::vector<Texts> const results = run_on_threads(job);
    for (std::size_t t = 0; t < N_THREADS; ++t) EXPECT_EQ(results[t], job(t)) << t;
    EXPECT_EQ(results[0].at(0).substr(0, 16), "GXTC:XG:_:_GATC1");
}

}  // namespace
