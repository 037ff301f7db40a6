// Measures an operation beside its floor: pairs of both, taken in turn in one
// process, so that what the machine does meanwhile meets both alike.

#pragma once

#include <malloc.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include <benchmark/benchmark.h>

namespace tesk::bench {

// What a process has taken so far.
struct Usage {
    double user = 0;    // CPU seconds in the program
    double system = 0;  // CPU seconds in the system
    double faults = 0;  // pages that were new to the process

    static Usage now() {
        rusage usage = {};
        getrusage(RUSAGE_SELF, &usage);
        return {seconds(usage.ru_utime), seconds(usage.ru_stime),
                static_cast<double>(usage.ru_minflt + usage.ru_majflt)};
    }

    Usage since(Usage const& begin) const {
        return {user - begin.user, system - begin.system, faults - begin.faults};
    }
    Usage& operator+=(Usage const& other) {
        user += other.user;
        system += other.system;
        faults += other.faults;
        return *this;
    }
    Usage operator/(double n) const { return {user / n, system / n, faults / n}; }

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

// Something to measure, and what is done before and after it, which does not count.
template <typename Prepare, typename Work, typename TidyUp>
class Measured {
public:
    Measured(Prepare prepare, Work work, TidyUp tidy_up)
        : prepare_(prepare), work_(work), tidy_up_(tidy_up) {}

    // What one run took, in a heap without memory that earlier runs have left.
    Usage operator()() {
        prepare_();
        malloc_trim(0);
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

// The system tells CPU time in the program and in the system apart by looking every
// few milliseconds. Samples are long enough for that to be fair.
constexpr double MIN_SAMPLE_SECONDS = 0.4;

// Runs that a sample takes.
template <typename Run>
int n_runs_of_sample(Run& run) {
    run();  // once unmeasured: whatever is set up at first use
    Usage const usage = run();
    double const seconds = std::max(usage.user + usage.system, 1e-6);
    return static_cast<int>(std::max(1.0, std::ceil(MIN_SAMPLE_SECONDS / seconds)));
}

// What a run takes, as the mean of n.
template <typename Run>
Usage sample(Run& run, int n) {
    Usage usage;
    for (int i = 0; i < n; ++i) usage += run();
    return usage / n;
}

// Measures an operation and its floor in turn, as often as the benchmark has
// iterations; the time of an iteration is the operation's. The counters are medians;
// `ratio` is the median of the pairs' ratios. `bytes` and `n_items` are those of one
// run.
template <typename Operation, typename Floor>
void measure_pairs(benchmark::State& state, Operation operation, Floor floor, double bytes,
                   double n_items) {
    Usages usages;
    Usages floor_usages;
    std::vector<double> ratios;
    int const n_runs = n_runs_of_sample(operation);
    int const n_floor_runs = n_runs_of_sample(floor);
    bool floor_first = false;
    for ([[maybe_unused]] auto _ : state) {
        Usage floor_usage = floor_first ? sample(floor, n_floor_runs) : Usage{};
        Usage const usage = sample(operation, n_runs);
        if (!floor_first) floor_usage = sample(floor, n_floor_runs);
        floor_first = !floor_first;
        usages.add(usage);
        floor_usages.add(floor_usage);
        ratios.push_back(usage.user / floor_usage.user);
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
    state.counters["bytes"] = bytes;
    state.counters["items"] = n_items;
}

}  // namespace tesk::bench
