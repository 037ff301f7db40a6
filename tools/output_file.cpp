#include "tools/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <utility>

#include "tools/message.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

constexpr int MAX_LINKS = 40;  // as many as the system itself follows

// Path up to and with its last '/'.
std::string folder_of(std::string const& path) { return path.substr(0, path.rfind('/') + 1); }

// Follows symbolic links at the path's end; what they lead to may be missing.
std::string follow_links(std::string path) {
    for (int i = 0; i < MAX_LINKS; ++i) {
        char text[PATH_MAX];
        ssize_t const size = ::readlink(path.c_str(), text, sizeof text);
        if (size < 0) return path;
        std::string const next(text, static_cast<std::size_t>(size));
        if (next.rfind('/', 0) == 0) {
            path = next;
        } else {
            path.replace(folder_of(path).size(), std::string::npos, next);
        }
    }
    errno = ELOOP;
    throw ToolError(with_errno("cannot write " + path));
}

enum class Target { MISSING, FILE, OTHER };

// What stands under a name, links followed.
Target examine(std::string const& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) return Target::MISSING;
    if (S_ISDIR(status.st_mode)) throw ToolError("cannot write " + path + ": it is a folder");
    return S_ISREG(status.st_mode) ? Target::FILE : Target::OTHER;
}

mode_t mode_of_new_files() {
    mode_t const mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

// Gives a file the owner and the permissions of the one that it will replace, or
// the permissions of a new one. Who may not give files away keeps them; where
// the group then is another one, it gets no rights.
void take_over_permissions(std::string const& temporary, std::string const& target,
                           mode_t new_file_mode) {
    struct stat old = {};
    mode_t mode = new_file_mode;
    bool const exists = ::stat(target.c_str(), &old) == 0;
    if (!exists && errno != ENOENT) {
        throw ToolError(with_errno("cannot set the permissions of " + target));
    }
    if (exists) {
        bool const same_group = ::chown(temporary.c_str(), old.st_uid, old.st_gid) == 0 ||
                                ::chown(temporary.c_str(), uid_t(-1), old.st_gid) == 0;
        mode = old.st_mode & (same_group ? 0777 : 0707);
    }
    if (::chmod(temporary.c_str(), mode) != 0) {
        throw ToolError(with_errno("cannot set the permissions of " + target));
    }
}

// A second name for a file, while the first is given to another one.
class Backup {
public:
    // A hard link where the file system has them, so that the file keeps its
    // first name all the time; otherwise the file moves to the second name.
    Backup(std::string file, std::string name) : file_(std::move(file)), name_(std::move(name)) {
        struct stat status = {};
        bool const is_there = ::lstat(file_.c_str(), &status) == 0;
        if (!is_there && errno != ENOENT) throw ToolError(with_errno("cannot replace " + file_));
        if (!is_there) return;
        if (!S_ISREG(status.st_mode))
            throw ToolError("cannot replace " + file_ + ": it is no file");
        exists_ = ::link(file_.c_str(), name_.c_str()) == 0 ||
                  std::rename(file_.c_str(), name_.c_str()) == 0;
        if (!exists_) throw ToolError(with_errno("cannot replace " + file_));
    }
    ~Backup() {
        if (exists_) ::unlink(name_.c_str());
    }
    Backup(Backup const&) = delete;
    Backup& operator=(Backup const&) = delete;

    // Brings the first name back to what it was. Where that fails, the second
    // name stays, as it is the only one that the file has left.
    void restore() {
        if (!exists_) {
            ::unlink(file_.c_str());
        } else if (std::rename(name_.c_str(), file_.c_str()) != 0) {
            exists_ = false;
        }
    }

private:
    std::string file_;
    std::string name_;
    bool exists_ = false;
};

void replace_all(std::string& text, std::string const& from, std::string const& to) {
    for (std::size_t at = text.find(from); at != std::string::npos;
         at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

}  // namespace

OutputFile::OutputFile(std::string const& path, bool with_index)
    : path_(path), new_file_mode_(mode_of_new_files()) {
    if (path.empty()) throw ToolError("cannot write a file without a name");
    if (path.back() == '/') throw ToolError("cannot write " + path + ": it is a folder");
    direct_ = examine(path) == Target::OTHER;
    if (direct_ && with_index) throw ToolError(path + " is no file that could have an index");
    if (direct_) return;

    target_ = follow_links(path);
    if (with_index && examine(path + ".bai") == Target::OTHER) {
        throw ToolError("cannot write " + path + ".bai: it is not a file");
    }
    temporary_.emplace(TemporaryPath::make_beside(target_));
    if (!with_index) return;

    // The library writes the index beside what it writes, under the name
    // + ".bai". Only where that is another folder than the index's own does it
    // write through a link.
    std::string const written = temporary_->path() + ".bai";
    bai_target_ = follow_links(path + ".bai");
    if (folder_of(bai_target_) == folder_of(target_)) {
        bai_.emplace(TemporaryPath::make_file(written));
        return;
    }
    bai_.emplace(TemporaryPath::make_beside(bai_target_));
    char absolute[PATH_MAX];
    if (::realpath(bai_->path().c_str(), absolute) == nullptr) {
        throw ToolError(with_errno("cannot write " + bai_target_));
    }
    bai_link_.emplace(TemporaryPath::make_link(written, absolute));
}

OutputFile::~OutputFile() {
    if (device_fd_ >= 0) ::close(device_fd_);
}

std::string const& OutputFile::write_path() const { return direct_ ? path_ : temporary_->path(); }

std::string OutputFile::folder() const {
    if (direct_) return "";
    std::string folder = folder_of(target_);
    return folder.empty() ? "." : folder;
}

int OutputFile::descriptor() {
    if (!direct_) return temporary_->descriptor();
    if (device_fd_ < 0) device_fd_ = ::open(path_.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC);
    if (device_fd_ < 0) throw ToolError(with_errno("cannot write to " + path_));
    return device_fd_;
}

std::string OutputFile::in_own_names(std::string message) const {
    if (!direct_) replace_all(message, temporary_->path(), path_);
    return message;
}

void OutputFile::commit() {
    if (direct_) return;
    SignalBlock const block;
    take_over_permissions(temporary_->path(), target_, new_file_mode_);
    if (bai_) return commit_pair();
    if (!temporary_->rename_to(target_)) throw ToolError(with_errno("cannot replace " + path_));
}

void OutputFile::commit_pair() {
    take_over_permissions(bai_->path(), bai_target_, new_file_mode_);
    Backup old(target_, temporary_->path() + ".old");
    std::string name = path_;
    bool done = temporary_->rename_to(target_);
    if (done) {
        name += ".bai";
        done = bai_->rename_to(bai_target_);
    }
    if (done) return;
    std::string const message = with_errno("cannot replace " + name);
    old.restore();
    throw ToolError(message);
}

}  // namespace tesk::tool
