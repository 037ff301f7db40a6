#include "tests/support/tool_runner.h"

#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>
#include "tests/support/bam_encoder.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it to the program

namespace tesk::test {

namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> argv_of(std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    return argv;
}

bool is_temporary(std::string const& name) { return name.find(".tesk-") != std::string::npos; }

}  // namespace

char const* const TOOL = TESK_BAM_TOOL;

ProcessResult run_tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TOOL);
    return run_process(arguments);
}

ProcessResult run_shell(std::string const& command, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"bash", "-c", command, TOOL});
    return run_process(arguments);
}

void expect_done(ProcessResult const& result) {
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.errors, "");
}

void expect_failure(ProcessResult const& result, int status, std::string const& message) {
    EXPECT_EQ(result.exit_status, status);
    EXPECT_EQ(result.errors, "tesk-bam: " + message + "\n");
    EXPECT_EQ(result.output, "");
}

std::string with_file(std::string message, std::string const& path) {
    std::size_t const at = message.find("FILE");
    return at == std::string::npos ? message : message.replace(at, 4, path);
}

Names names_in(std::filesystem::path const& folder) {
    Names names;
    for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string payload_of(std::string const& path) { return inflate_bgzf(read_file(path)); }

Running::Running(std::vector<std::string> arguments, bool with_tool) {
    if (with_tool) arguments.insert(arguments.begin(), TOOL);
    std::vector<char*> argv = argv_of(arguments);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int const fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", O_RDWR, 0);
    }
    // Whoever runs the tests may have signals ignored or blocked.
    sigset_t signals;
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    int const code = posix_spawnp(&pid_, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (code != 0) throw std::runtime_error("cannot start " + arguments.front());
}

Running::~Running() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

void Running::send(int signal_number) const { ::kill(pid_, signal_number); }

int Running::wait() {
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = 0;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

bool eventually(std::function<bool()> const& condition) {
    Clock::time_point const end = Clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

bool has_temporary(std::filesystem::path const& folder) {
    Names const names = names_in(folder);
    return std::any_of(names.begin(), names.end(), is_temporary);
}

void remove_temporaries(std::filesystem::path const& folder) {
    for (std::string const& name : names_in(folder)) {
        if (is_temporary(name)) std::filesystem::remove(folder / name);
    }
}

void interrupt_at_random(std::vector<std::string> const& arguments, int n_runs,
                         std::vector<int> const& signals, std::function<void()> const& before,
                         std::function<void(int, int)> const& after) {
    before();
    Clock::time_point const start = Clock::now();
    Running undisturbed(arguments);
    ASSERT_EQ(undisturbed.wait(), 0);
    auto const duration =
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);

    // Seeded, yet the moments differ from run to run of the machine.
    constexpr unsigned SEED = 7;
    std::mt19937 random(SEED);  // NOLINT(cert-msc32-c,cert-msc51-cpp)
    std::uniform_int_distribution<std::int64_t> delay(0, duration.count() * 11 / 10);
    for (int i = 0; i < n_runs; ++i) {
        int const number = signals[static_cast<std::size_t>(i) % signals.size()];
        std::chrono::microseconds const moment(delay(random));
        SCOPED_TRACE("seed " + std::to_string(SEED) + ", run " + std::to_string(i) + ": signal " +
                     std::to_string(number) + " after " + std::to_string(moment.count()) + " of " +
                     std::to_string(duration.count()) + " microseconds");
        before();
        Running tool(arguments);
        std::this_thread::sleep_for(moment);
        tool.send(number);
        int const status = tool.wait();
        EXPECT_TRUE(status == 0 || status == -number) << status;
        after(status, number);
    }
}

std::string printed_on_terminal(std::function<void()> const& function) {
    int terminal = -1;
    winsize size = {};
    size.ws_row = 25;
    size.ws_col = 120;
    pid_t const pid = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (pid < 0) throw std::runtime_error("cannot open a terminal");
    if (pid == 0) {
        function();
        ::_exit(0);
    }
    std::string text;
    char piece[4096];
    for (ssize_t n = 0; (n = ::read(terminal, piece, sizeof piece)) > 0;) {
        text.append(piece, static_cast<std::size_t>(n));
    }
    ::close(terminal);
    ::waitpid(pid, nullptr, 0);
    return text;
}

std::string tool_on_terminal(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TOOL);
    std::vector<char*> argv = argv_of(arguments);
    return printed_on_terminal([&] { ::execv(argv[0], argv.data()); });
}

}  // namespace tesk::test
