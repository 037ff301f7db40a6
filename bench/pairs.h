// Measures an operation beside its floor: pairs of both, taken in turn in one
// process, so that what the machine does meanwhile meets both alike.

#pragma once

#include <malloc.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>

namespace tesk::bench {

// What a process has taken so far.
struct Usage {
    double user = 0;    // CPU seconds in the program
    double system = 0;  // CPU seconds in the system
    double faults = 0;  // pages that were new to the process
    double cpu = 0;     // CPU seconds in both, known more exactly than each; of many
                        // runs those of the quickest

    static Usage now() {
        rusage usage = {};
        getrusage(RUSAGE_SELF, &usage);
        timespec cpu = {};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
        return {seconds(usage.ru_utime), seconds(usage.ru_stime),
                static_cast<double>(usage.ru_minflt + usage.ru_majflt),
                static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) * 1e-9};
    }

    Usage since(Usage const& begin) const {
        return {user - begin.user, system - begin.system, faults - begin.faults, cpu - begin.cpu};
    }
    Usage& operator+=(Usage const& other) {
        user += other.user;
        system += other.system;
        faults += other.faults;
        cpu = std::min(cpu, other.cpu);
        return *this;
    }
    Usage operator/(double n) const { return {user / n, system / n, faults / n, cpu}; }

private:
    static double seconds(timeval const& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    }
};

inline double median(std::vector<double> values) {
    auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// What many runs took.
class Usages {
public:
    void add(Usage const& usage) {
        user_.push_back(usage.user);
        system_.push_back(usage.system);
        faults_.push_back(usage.faults);
    }
    Usage medians() const { return {median(user_), median(system_), median(faults_)}; }

private:
    std::vector<double> user_;
    std::vector<double> system_;
    std::vector<double> faults_;
};

// How a program measures.
struct Effort {
    int n_pairs = 9;
    // A sample takes longer where much of it is system time; see n_runs_of_sample().
    double min_sample_seconds = 0.25;
    // The heap keeps its memory from run to run, so that little is left for the
    // system to do.
    bool warm = false;
};

inline Effort effort;  // set once, by initialize()

inline bool take_option(std::string_view option) {
    std::string const value(option.substr(std::min(option.find('=') + 1, option.size())));
    if (option == "--warm") {
        effort.warm = true;
    } else if (option.rfind("--pairs=", 0) == 0) {
        effort.n_pairs = std::atoi(value.c_str());
    } else if (option.rfind("--min-sample=", 0) == 0) {
        effort.min_sample_seconds = std::atof(value.c_str());
    } else {
        return false;
    }
    return true;
}

// Takes the options of all programs out of the arguments of one. Ends it unless
// n_arguments others are left.
inline void initialize(int& argc, char** argv, int n_arguments, char const* usage) {
    benchmark::Initialize(&argc, argv);
    argc = static_cast<int>(std::remove_if(argv + 1, argv + argc, take_option) - argv);
    if (argc - 1 != n_arguments || effort.n_pairs < 1) {
        std::cerr << "usage: " << usage
                  << " [--pairs=N] [--min-sample=SECONDS] [--warm] [--benchmark_...]\n";
        std::exit(2);
    }
    if (effort.warm) {
        mallopt(M_MMAP_MAX, 0);
        mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    }
}

// Something to measure, and what is done before and after it, which does not count.
template <typename Prepare, typename Work, typename TidyUp>
class Measured {
public:
    Measured(Prepare prepare, Work work, TidyUp tidy_up)
        : prepare_(prepare), work_(work), tidy_up_(tidy_up) {}

    // What one run took; in a heap without memory that earlier runs have left, unless
    // it is to keep that.
    Usage operator()() {
        prepare_();
        if (!effort.warm) malloc_trim(0);
        Usage const begin = Usage::now();
        work_();
        Usage const usage = Usage::now().since(begin);
        tidy_up_();
        return usage;
    }

private:
    Prepare prepare_;
    Work work_;
    TidyUp tidy_up_;
};

inline constexpr auto NOTHING = [] {};

// Runs that a sample takes. The system tells CPU time in the program and in the system
// apart by looking every few milliseconds, so that user time scatters the more, the less
// of the whole it is: by some 6% in a quarter of a second where it is four fifths, and in
// 3 seconds where it is a quarter. Samples are as long as that asks for.
template <typename Run>
int n_runs_of_sample(Run& run) {
    constexpr double LONGER_FOR_SYSTEM_TIME = 4;
    constexpr double LONGEST = 16;
    constexpr double LONG_RUN = 4;  // enough by itself
    // The first run also sets up what is set up at first use.
    if (run().cpu > effort.min_sample_seconds * LONG_RUN) return 1;
    Usage usage;
    double seconds = 0;
    int n = 0;
    for (; seconds < effort.min_sample_seconds; ++n) {
        usage += run();
        seconds = usage.user + usage.system;
    }
    double const longer =
        std::clamp(LONGER_FOR_SYSTEM_TIME * usage.system / usage.user, 1.0, LONGEST);
    return static_cast<int>(std::ceil(effort.min_sample_seconds * longer * n / seconds));
}

// What a run takes, as the mean of n.
template <typename Run>
Usage sample(Run& run, int n) {
    Usage usage = run();
    for (int i = 1; i < n; ++i) usage += run();
    return usage / n;
}

// Measures an operation and its floor in turn, as often as the benchmark has
// iterations; the time of an iteration is the operation's. The counters are medians;
// `ratio` is the median of the pairs' ratios; `quickest_ratio` is that of the quickest
// runs' user and system time together, which a busy machine disturbs least. `bytes` and
// `n_items` are those of one run.
template <typename Operation, typename Floor>
void measure_pairs(benchmark::State& state, Operation operation, Floor floor, double bytes,
                   double n_items) {
    Usages usages;
    Usages floor_usages;
    std::vector<double> ratios;
    int const n_runs = n_runs_of_sample(operation);
    int const n_floor_runs = n_runs_of_sample(floor);
    double quickest = std::numeric_limits<double>::max();
    double quickest_floor = quickest;
    bool floor_first = false;
    for ([[maybe_unused]] auto _ : state) {
        Usage floor_usage = floor_first ? sample(floor, n_floor_runs) : Usage{};
        Usage const usage = sample(operation, n_runs);
        if (!floor_first) floor_usage = sample(floor, n_floor_runs);
        floor_first = !floor_first;
        usages.add(usage);
        floor_usages.add(floor_usage);
        ratios.push_back(usage.user / floor_usage.user);
        quickest = std::min(quickest, usage.cpu);
        quickest_floor = std::min(quickest_floor, floor_usage.cpu);
        state.SetIterationTime(usage.user);
    }
    Usage const usual = usages.medians();
    Usage const usual_floor = floor_usages.medians();
    state.counters["user"] = usual.user;
    state.counters["system"] = usual.system;
    state.counters["faults"] = usual.faults;
    state.counters["floor_user"] = usual_floor.user;
    state.counters["floor_system"] = usual_floor.system;
    state.counters["floor_faults"] = usual_floor.faults;
    state.counters["ratio"] = median(ratios);
    state.counters["quickest_ratio"] = quickest / quickest_floor;
    state.counters["bytes"] = bytes;
    state.counters["items"] = n_items;
}

// Registers a benchmark of pairs as "operation/data".
template <typename Run>
void register_pairs(std::string const& operation, std::string const& data, Run run) {
    benchmark::RegisterBenchmark((operation + '/' + data).c_str(), run)
        ->Iterations(effort.n_pairs)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace tesk::bench
