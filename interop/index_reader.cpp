#include "interop/index_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>

#include "interop/index_gatherer.h"

namespace tesk::interop {

namespace {

constexpr std::string_view BAI_MAGIC_WORD("BAI\1", 4);
constexpr int WINDOW_SHIFT = 14;

// Sizes of what a BAI file consists of. Lists begin with their count, an i32.
constexpr std::size_t COUNT_BYTES = 4;
constexpr std::size_t BIN_BYTES = 4 + COUNT_BYTES;                  // number, no chunks
constexpr std::size_t CHUNK_BYTES = 16;                             // two virtual offsets
constexpr std::size_t WINDOW_BYTES = 8;                             // one
constexpr std::size_t REFERENCE_BYTES = COUNT_BYTES + COUNT_BYTES;  // no bins, no windows
constexpr std::size_t N_NO_COOR_BYTES = 8;

constexpr std::uint64_t IN_BLOCK_MASK = 0xFFFF;  // of a virtual offset

// A cursor over bytes. Whoever takes more than there are gets zeros, and failed().
class Cursor {
public:
    explicit Cursor(std::string_view bytes, std::size_t at = 0) : bytes_(bytes), at_(at) {}

    std::size_t at() const { return at_; }
    std::size_t left() const { return bytes_.size() - at_; }
    bool failed() const { return failed_at_ != NOWHERE; }
    // Where the first thing begins that the bytes do not hold.
    std::size_t failed_at() const { return failed_at_; }

    // Steps over n bytes and returns them.
    std::string_view take(std::size_t n) {
        if (n > left()) {
            fail(at_);
            return {};
        }
        at_ += n;
        return bytes_.substr(at_ - n, n);
    }

    template <typename Number>
    Number get() {
        Number value{};
        std::string_view const bytes = take(sizeof value);
        if (!bytes.empty()) std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }

    // A count of entries that take at least so many bytes each; 0 where the bytes
    // that are left cannot hold them.
    std::size_t count(std::size_t entry_bytes) {
        std::size_t const begin = at_;
        auto const n = get<std::int32_t>();
        if (n < 0 || static_cast<std::size_t>(n) > left() / entry_bytes) fail(begin);
        return failed() ? 0 : static_cast<std::size_t>(n);
    }

private:
    static constexpr std::size_t NOWHERE = std::string_view::npos;

    void fail(std::size_t at) { failed_at_ = std::min(failed_at_, at); }

    std::string_view bytes_;
    std::size_t at_;
    std::size_t failed_at_ = NOWHERE;
};

// Visits the bins of a reference, the cursor at its beginning: `visit` gets a bin's
// number and its chunks. The windows are what is left. Stops where bytes are missing.
template <typename Visit>
void for_each_bin(Cursor& cursor, Visit visit) {
    for (std::size_t n = cursor.count(BIN_BYTES); n > 0 && !cursor.failed(); --n) {
        auto const bin = cursor.get<std::uint32_t>();
        std::size_t const n_chunks = cursor.count(CHUNK_BYTES);
        visit(bin, cursor.take(n_chunks * CHUNK_BYTES));
    }
}

std::string_view take_windows(Cursor& cursor) {
    std::size_t const n_windows = cursor.count(WINDOW_BYTES);
    return cursor.take(n_windows * WINDOW_BYTES);
}

// A place in the file before which no record can reach into a window or beyond it.
// A window that no record overlaps may hold 0, and the list ends with the last
// record: then what precedes is true of later windows too, as records are sorted.
//
// An offset at the beginning of a block is not relied on. Where each record has
// blocks of its own, as BAMFileHandler writes them, a window may name a later record
// than the first one that overlaps it; among records that straddle blocks such an
// offset is rare, and doing without it only costs reading.
std::uint64_t least_offset(std::string_view windows, std::int64_t window) {
    auto n = static_cast<std::int64_t>(windows.size() / WINDOW_BYTES);
    for (n = std::min(n, window + 1); n > 0; --n) {
        auto const at = static_cast<std::size_t>(n - 1) * WINDOW_BYTES;
        auto const offset = Cursor(windows, at).get<std::uint64_t>();
        if (offset != 0) return (offset & IN_BLOCK_MASK) == 0 ? 0 : offset;
    }
    return 0;
}

// Appends the parts of some chunks that lie behind an offset.
void append_chunks(std::string_view bytes, std::uint64_t least, std::vector<ChunkIndex>& chunks) {
    for (Cursor cursor(bytes); cursor.left() > 0;) {
        auto const beg = std::max(cursor.get<std::uint64_t>(), least);
        auto const end = cursor.get<std::uint64_t>();
        if (beg < end) chunks.push_back({beg, end});
    }
}

struct CloseFile {
    int fd;
    ~CloseFile() { ::close(fd); }
};

// Reads a file to its end. Returns an error number, 0 for none.
int read_whole_file(std::string const& path, std::string& bytes) {
    constexpr std::size_t PIECE_BYTES = std::size_t{1} << 18;
    CloseFile const file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    if (file.fd < 0) return errno;
    auto const piece = std::make_unique<char[]>(PIECE_BYTES);
    for (;;) {
        ssize_t const n = ::read(file.fd, piece.get(), PIECE_BYTES);
        if (n == 0) return 0;
        if (n > 0) bytes.append(piece.get(), static_cast<std::size_t>(n));
        if (n < 0 && errno != EINTR) return errno;
    }
}

// Checks an index from its magic word to its end, and notes where references begin.
// Returns what is wrong with it; empty for nothing.
std::string check_index(std::string_view bytes, std::vector<std::size_t>& references) {
    Cursor cursor(bytes);
    if (cursor.take(BAI_MAGIC_WORD.size()) != BAI_MAGIC_WORD) return "this is no BAI index";
    for (std::size_t n = cursor.count(REFERENCE_BYTES); n > 0 && !cursor.failed(); --n) {
        references.push_back(cursor.at());
        for_each_bin(cursor, [](std::uint32_t, std::string_view) {});
        take_windows(cursor);
    }
    if (cursor.failed()) {
        return "the index is damaged or cut short at byte " + std::to_string(cursor.failed_at());
    }
    // The number of records without a reference came late to the format.
    if (cursor.left() != 0 && cursor.left() != N_NO_COOR_BYTES) {
        return "the index is damaged: it should end at byte " + std::to_string(cursor.at()) +
               " or 8 bytes later, but has " + std::to_string(bytes.size());
    }
    return {};
}

}  // namespace

bool IndexReader::open(std::string const& path) {
    bytes_.clear();
    references_.clear();
    if (int const error = read_whole_file(path, bytes_); error != 0) {
        error_message = "cannot open " + path + ": " + std::generic_category().message(error);
        bytes_.clear();
        return false;
    }
    std::string const fault = check_index(bytes_, references_);
    if (fault.empty()) return true;
    error_message = path + ": " + fault;
    bytes_.clear();
    references_.clear();
    return false;
}

void IndexReader::chunks(std::int32_t refID, std::int64_t beg, std::int64_t end,
                         std::vector<ChunkIndex>& chunks) const {
    beg = std::max<std::int64_t>(beg, 0);
    end = std::min(end, BAI_MAX_END);
    if (refID < 0 || static_cast<std::size_t>(refID) >= references_.size() || beg >= end) return;

    util::bam::BAMFileHandler scheme;
    std::vector<unsigned short> bins;  // ascending
    scheme.reg_to_bins(static_cast<int>(beg), static_cast<int>(end), bins);

    // The windows stand behind the bins, but decide which of their chunks count.
    std::vector<std::string_view> found;
    Cursor cursor(bytes_, references_[static_cast<std::size_t>(refID)]);
    for_each_bin(cursor, [&](std::uint32_t bin, std::string_view chunks_of_bin) {
        if (std::binary_search(bins.begin(), bins.end(), bin)) found.push_back(chunks_of_bin);
    });
    std::uint64_t const least = least_offset(take_windows(cursor), beg >> WINDOW_SHIFT);

    std::vector<ChunkIndex> result;
    for (std::string_view const chunks_of_bin : found) append_chunks(chunks_of_bin, least, result);
    merge_chunks(result);
    chunks.insert(chunks.end(), result.begin(), result.end());
}

void merge_chunks(std::vector<ChunkIndex>& chunks) {
    std::sort(chunks.begin(), chunks.end(),
              [](ChunkIndex const& a, ChunkIndex const& b) { return a.chunk_beg < b.chunk_beg; });
    std::size_t n = 0;  // chunks kept so far, apart from each other
    for (ChunkIndex const& chunk : chunks) {
        if (n > 0 && chunk.chunk_beg <= chunks[n - 1].chunk_end) {
            chunks[n - 1].chunk_end = std::max(chunks[n - 1].chunk_end, chunk.chunk_end);
        } else {
            chunks[n++] = chunk;
        }
    }
    chunks.resize(n);
}

}  // namespace tesk::interop
