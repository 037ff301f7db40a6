#include "tests/support/process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "tests/support/temp_file.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): POSIX leaves it to the program

namespace tesk::test {

namespace {

// As the system takes them: pointers to C strings, and a null.
std::vector<char*> pointers_to(std::vector<std::string> const& texts) {
    std::vector<char*> pointers;
    for (std::string const& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

ProcessResult run_process(std::vector<std::string> const& arguments,
                          std::vector<std::string> const& environment) {
    TempDir const dir;
    std::string const output_path = dir.write("output", "");
    std::string const errors_path = dir.write("errors", "");

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_path.c_str(), O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors_path.c_str(), O_WRONLY, 0);

    std::vector<char*> argv = pointers_to(arguments);
    std::vector<char*> variables = pointers_to(environment);
    for (char** variable = environ; *variable != nullptr; ++variable) {
        variables.insert(variables.end() - 1, *variable);
    }

    pid_t pid = 0;
    int const code = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), variables.data());
    posix_spawn_file_actions_destroy(&actions);
    if (code != 0) throw std::runtime_error("cannot start " + arguments.at(0));

    int status = 0;
    if (waitpid(pid, &status, 0) != pid) throw std::runtime_error("cannot wait for a process");
    ProcessResult result;
    if (WIFEXITED(status)) result.exit_status = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    result.output = read_file(output_path);
    result.errors = read_file(errors_path);
    return result;
}

}  // namespace tesk::test
