#include "tools/progress.h"

#include <dirent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <utility>

#include "tools/message.h"
#include "tools/temporary_path.h"

namespace tesk::tool {

namespace {

constexpr std::chrono::milliseconds REDRAW_INTERVAL(200);

std::string megabytes(std::uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytes) / 1e6);
    return text;
}

std::string file_name(std::string const& path) { return path.substr(path.rfind('/') + 1); }

// The file without symbolic links in its path, as the system lists open files;
// empty where there is no such file.
std::string canonical(std::string const& path) {
    char resolved[PATH_MAX];
    return ::realpath(path.c_str(), resolved) == nullptr ? std::string() : std::string(resolved);
}

std::optional<std::uint64_t> size_of(std::string const& path) {
    struct stat status = {};
    if (path.empty() || ::stat(path.c_str(), &status) != 0) return std::nullopt;
    if (!S_ISREG(status.st_mode)) return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size);
}

std::string open_file(std::string const& descriptor) {
    char text[PATH_MAX];
    ssize_t const size = ::readlink(("/proc/self/fd/" + descriptor).c_str(), text, sizeof text);
    return size < 0 ? std::string() : std::string(text, static_cast<std::size_t>(size));
}

// The system tells the offset of every open file: "pos:\t<number>" in its first
// line.
std::optional<std::uint64_t> offset_of(std::string const& descriptor) {
    std::ifstream in("/proc/self/fdinfo/" + descriptor);
    std::string word;
    std::uint64_t offset = 0;
    if (!(in >> word >> offset) || word != "pos:") return std::nullopt;
    return offset;
}

// How far this process has got in a file that it has open.
std::optional<std::uint64_t> offset_in(std::string const& file) {
    std::unique_ptr<DIR, int (*)(DIR*)> const folder(::opendir("/proc/self/fd"), &::closedir);
    if (!folder || file.empty()) return std::nullopt;
    while (dirent const* entry =
               ::readdir(folder.get())) {  // NOLINT(concurrency-mt-unsafe): own DIR
        if (open_file(entry->d_name) == file) return offset_of(entry->d_name);
    }
    return std::nullopt;
}

std::size_t terminal_width() {
    winsize size = {};
    bool const known = ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : 80;
}

void print(std::string const& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

}  // namespace

Progress::Progress(bool wanted) {
    if (!wanted || ::isatty(STDERR_FILENO) == 0) return;
    SignalBlock const block;  // the thread inherits it: signals are the main thread's
    watcher_ = std::thread([this] { watch(); });
}

Progress::~Progress() { finish(); }

void Progress::reading(std::string const& path) {
    if (path == "-") {
        enter({Stage::Kind::READING, "reading standard input", {}});
    } else {
        enter({Stage::Kind::READING, "reading " + file_name(path), canonical(path)});
    }
}

void Progress::writing(std::string const& path, std::string const& written) {
    enter({Stage::Kind::WRITING, "writing " + file_name(path), written});
}

void Progress::stage(std::string const& text) { enter({Stage::Kind::TEXT, text, {}}); }

void Progress::finish() {
    if (!watcher_.joinable()) return;
    {
        std::lock_guard<std::mutex> const lock(mutex_);
        stop_ = true;
    }
    changed_.notify_one();
    watcher_.join();
    print("\r\033[K");
}

// Draws at once, so that short stages are seen too.
void Progress::enter(Stage stage) {
    if (!watcher_.joinable()) return;
    std::lock_guard<std::mutex> const lock(mutex_);
    stage_ = std::move(stage);
    draw();
}

void Progress::watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!changed_.wait_for(lock, REDRAW_INTERVAL, [this] { return stop_; })) draw();
}

void Progress::draw() {
    if (!stage_) return;
    // A line that fills the last column would wrap, and stay.
    std::string const line = one_line(line_of(*stage_)).substr(0, terminal_width() - 1);
    print("\r" + line + "\033[K");
}

std::string Progress::line_of(Stage& stage) const {
    if (stage.kind == Stage::Kind::TEXT) return stage.text;
    std::optional<std::uint64_t> const size = size_of(stage.file);
    std::uint64_t const told =
        stage.kind == Stage::Kind::READING ? bytes_read_.load(std::memory_order_relaxed) : 0;
    if (!size) return stage.text + (told != 0 ? "  " + megabytes(told) + " MB" : "");
    if (stage.kind == Stage::Kind::WRITING) return stage.text + "  " + megabytes(*size) + " MB";

    std::optional<std::uint64_t> const offset = told != 0 ? told : offset_in(stage.file);
    if (!offset) return stage.text + (stage.was_open ? ": decoding its records" : "");
    stage.was_open = true;
    std::uint64_t const percent = *size == 0 ? 100 : *offset * 100 / *size;
    return stage.text + "  " + std::to_string(percent) + "% (" + megabytes(*offset) + " of " +
           megabytes(*size) + " MB)";
}

}  // namespace tesk::tool
