#include "interop/input_stream.h"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include <libdeflate.h>
#define ZLIB_CONST  // zlib then takes its input through pointers to const
#include <zlib.h>

namespace tesk::interop {

namespace {

constexpr std::size_t READ_BYTES = std::size_t{1} << 20;
// At first, and after a jump, few blocks may be wanted: reading starts small and
// doubles.
constexpr std::size_t FIRST_READ_BYTES = std::size_t{1} << 17;
constexpr std::size_t INFLATE_BYTES = std::size_t{1} << 18;
constexpr int GZIP_WINDOW_BITS = 15 + 16;  // the largest window, in the gzip wrapping

// gzip member header, offsets in bytes from its start.
constexpr std::string_view GZIP_MAGIC = "\x1f\x8b";
constexpr std::size_t GZIP_CM_OFFSET = 2;     // u8, 8: deflate
constexpr std::size_t GZIP_FLG_OFFSET = 3;    // u8
constexpr std::size_t GZIP_XLEN_OFFSET = 10;  // u16, bytes of subfields, where FLG says so
constexpr std::size_t GZIP_HEAD_BYTES = 12;   // up to the subfields
constexpr unsigned CM_DEFLATE = 8;
constexpr unsigned FLG_EXTRA = 4;  // subfields follow; BGZF has no other flag

// A subfield: two letters, u16 length, contents. Subfield BC holds the u16 BSIZE:
// bytes of the whole block, less 1.
constexpr std::size_t SUBFIELD_HEAD_BYTES = 4;
constexpr std::string_view BLOCK_SIZE_SUBFIELD("BC\x02\x00", SUBFIELD_HEAD_BYTES);

constexpr std::size_t BLOCK_TAIL_BYTES = 8;  // u32 CRC-32, u32 ISIZE
constexpr std::size_t BLOCK_ISIZE_FROM_END = 4;
constexpr std::size_t MAX_BLOCK_BYTES = std::size_t{1} << 16;             // packed and unpacked
constexpr std::uint64_t MAX_BLOCK_OFFSET = (std::uint64_t{1} << 48) - 1;  // of virtual offsets

template <typename T>
T number_at(char const* place) {
    T value;
    std::memcpy(&value, place, sizeof value);
    return value;
}

std::string reason_of(int error_number) { return std::generic_category().message(error_number); }

int open_for_reading(std::string const& path) {
    int fd = -1;
    do {
        fd = ::open(path.c_str(), O_RDONLY | O_NOCTTY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// What the header of a gzip member says about it as a BGZF block.
struct BlockHead {
    std::size_t head_bytes = 0;   // the header's own size
    std::size_t block_bytes = 0;  // the whole block's; 0: this is no BGZF block
};

// Looks at the subfields of a header for the block's size.
BlockHead find_block_size(std::string_view head) {
    BlockHead result;
    result.head_bytes = head.size();
    std::string_view subfields = head.substr(GZIP_HEAD_BYTES);
    while (subfields.size() >= SUBFIELD_HEAD_BYTES) {
        std::size_t const n_bytes = SUBFIELD_HEAD_BYTES + number_at<std::uint16_t>(&subfields[2]);
        if (n_bytes > subfields.size()) break;
        if (subfields.substr(0, SUBFIELD_HEAD_BYTES) == BLOCK_SIZE_SUBFIELD) {
            char const* const bsize = &subfields[SUBFIELD_HEAD_BYTES];
            result.block_bytes = std::size_t{number_at<std::uint16_t>(bsize)} + 1;
            break;
        }
        subfields.remove_prefix(n_bytes);
    }
    return result;
}

bool has_subfields(char const* head) {
    return std::string_view(head, GZIP_MAGIC.size()) == GZIP_MAGIC &&
           number_at<std::uint8_t>(head + GZIP_CM_OFFSET) == CM_DEFLATE &&
           number_at<std::uint8_t>(head + GZIP_FLG_OFFSET) == FLG_EXTRA;
}

struct DecompressorDeleter {
    void operator()(libdeflate_decompressor* decompressor) const {
        libdeflate_free_decompressor(decompressor);
    }
};

struct InflateDeleter {
    void operator()(z_stream* stream) const {
        inflateEnd(stream);
        delete stream;
    }
};

}  // namespace

struct InputStream::State {
    State() = default;
    ~State() {
        if (fd >= 0 && !is_standard_input) ::close(fd);
    }
    State(State const&) = delete;
    State& operator=(State const&) = delete;

    bool fail(std::string message) {
        error = std::move(message);
        return false;
    }

    bool open(std::string const& path);
    bool find_packing();
    bool look_for_block();
    bool start_unpacking();

    std::size_t available() const { return end - begin; }
    char const* next_byte() const { return &buffer[begin]; }
    void take(std::size_t n) { begin += n, offset += n; }
    bool read_into(char* place, std::size_t n, std::size_t& n_read);
    bool fill();
    bool want(std::size_t n);

    bool read_plain(ByteBuffer& out);
    bool read_gzip(ByteBuffer& out);
    bool read_bgzf(ByteBuffer& out);
    bool damaged(char const* reason);
    bool find_block(BlockHead& head);
    bool unpack_block(BlockHead const& head, ByteBuffer& out);
    bool seek(std::uint64_t wanted);

    std::string error;
    std::string name;
    bool is_standard_input = false;
    int fd = -1;
    Packing packing = Packing::NONE;
    off_t start = -1;                // of the input in its file; -1 where there is no seeking
    std::unique_ptr<char[]> buffer;  // of READ_BYTES: bytes as they were read,
    std::size_t begin = 0;           // what of them is left
    std::size_t end = 0;
    std::uint64_t offset = 0;                   // in the input, of the byte at `begin`
    std::size_t read_bytes = FIRST_READ_BYTES;  // at a time
    std::uint64_t n_read_bytes = 0;
    bool ended = false;                                  // nothing is left to read
    std::unique_ptr<z_stream, InflateDeleter> inflater;  // of gzip data
    bool inside_member = false;
    std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> decompressor;  // of BGZF data
    std::uint64_t block_offset = 0;
    bool last_block_was_empty = false;
};

// --- Opening -------------------------------------------------------------------

bool InputStream::State::open(std::string const& path) {
    is_standard_input = path == "-";
    name = is_standard_input ? "standard input" : path;
    fd = is_standard_input ? STDIN_FILENO : open_for_reading(path);
    if (fd < 0) return fail("cannot open " + path + ": " + reason_of(errno));
    start = ::lseek(fd, 0, SEEK_CUR);
    buffer.reset(new char[READ_BYTES]);  // not set to zero, as make_unique would
    return find_packing() && start_unpacking();
}

bool InputStream::State::find_packing() {
    if (!want(GZIP_MAGIC.size())) return false;
    if (available() < GZIP_MAGIC.size()) return true;
    if (std::string_view(next_byte(), GZIP_MAGIC.size()) != GZIP_MAGIC) return true;
    packing = Packing::GZIP;
    return look_for_block();
}

// A header that is cut short is left to gzip's own reader.
bool InputStream::State::look_for_block() {
    if (!want(GZIP_HEAD_BYTES)) return false;
    if (available() < GZIP_HEAD_BYTES || !has_subfields(next_byte())) return true;
    std::size_t const head_bytes =
        GZIP_HEAD_BYTES + number_at<std::uint16_t>(next_byte() + GZIP_XLEN_OFFSET);
    if (!want(head_bytes)) return false;
    if (available() < head_bytes) return true;
    if (find_block_size({next_byte(), head_bytes}).block_bytes != 0) packing = Packing::BGZF;
    return true;
}

bool InputStream::State::start_unpacking() {
    if (packing == Packing::GZIP) {
        auto stream = std::make_unique<z_stream>();
        if (inflateInit2(stream.get(), GZIP_WINDOW_BITS) != Z_OK) {
            return fail(name + ": gzip data cannot be unpacked: not enough memory");
        }
        inflater.reset(stream.release());
    } else if (packing == Packing::BGZF) {
        decompressor.reset(libdeflate_alloc_decompressor());
        if (!decompressor) return fail(name + ": BGZF data cannot be unpacked: not enough memory");
    }
    return true;
}

// --- Bytes as they stand in the file -------------------------------------------

// Reads up to n bytes; none at the end.
bool InputStream::State::read_into(char* place, std::size_t n, std::size_t& n_read) {
    ssize_t result = 0;
    do {
        result = ::read(fd, place, n);
    } while (result < 0 && errno == EINTR);
    if (result < 0) return fail("cannot read " + name + ": " + reason_of(errno));
    n_read = static_cast<std::size_t>(result);
    n_read_bytes += n_read;
    ended = n_read == 0;
    return true;
}

// Puts more bytes behind those that are left.
bool InputStream::State::fill() {
    if (begin != 0) std::memmove(&buffer[0], &buffer[begin], available());
    end = available();
    begin = 0;
    std::size_t n_read = 0;
    if (!read_into(&buffer[end], std::min(read_bytes, READ_BYTES - end), n_read)) return false;
    end += n_read;
    read_bytes = std::min(read_bytes * 2, READ_BYTES);
    return true;
}

// Tries to have n bytes, at most READ_BYTES; a pipe may give one at a time. There
// are fewer at the end alone.
bool InputStream::State::want(std::size_t n) {
    while (available() < n && !ended) {
        if (!fill()) return false;
    }
    return true;
}

bool InputStream::State::read_plain(ByteBuffer& out) {
    if (available() != 0) {
        out.append({next_byte(), available()});
        take(available());
        return true;
    }
    if (ended) return true;
    char* const place = out.room_for(READ_BYTES);
    std::size_t n_read = 0;
    if (!read_into(place, READ_BYTES, n_read)) return false;
    out.set_end(place + n_read);
    return true;
}

// --- gzip ----------------------------------------------------------------------

// Data may consist of several members, one after another; nothing else may follow
// them.
bool InputStream::State::read_gzip(ByteBuffer& out) {
    if (!inflater && !start_unpacking()) return false;
    for (;;) {
        if (!want(1)) return false;
        if (available() == 0) {
            return !inside_member || fail(name + ": the gzip data ends too early");
        }
        inside_member = true;
        char* const place = out.room_for(INFLATE_BYTES);
        z_stream& stream = *inflater;
        stream.next_in = reinterpret_cast<Bytef const*>(next_byte());
        stream.avail_in = static_cast<uInt>(available());
        stream.next_out = reinterpret_cast<Bytef*>(place);
        stream.avail_out = static_cast<uInt>(INFLATE_BYTES);
        int const code = inflate(&stream, Z_NO_FLUSH);
        if (code == Z_STREAM_END) {
            inside_member = false;
            inflateReset(&stream);
        } else if (code == Z_MEM_ERROR) {
            return fail(name + ": gzip data cannot be unpacked: not enough memory");
        } else if (code != Z_OK && code != Z_BUF_ERROR) {
            char const* const fault = stream.msg == nullptr ? zError(code) : stream.msg;
            return fail(name + ": the gzip data is damaged: " + fault);
        }
        take(available() - stream.avail_in);
        std::size_t const n = INFLATE_BYTES - stream.avail_out;
        if (n == 0) continue;
        out.set_end(place + n);
        return true;
    }
}

// --- BGZF ----------------------------------------------------------------------

bool InputStream::State::damaged(char const* reason) {
    return fail(name + ": damaged BGZF block at byte " + std::to_string(offset) + ": " + reason);
}

// Checks the header of the block that begins here, and gets the whole block into
// the buffer.
bool InputStream::State::find_block(BlockHead& head) {
    if (!want(GZIP_HEAD_BYTES)) return false;
    if (available() < GZIP_HEAD_BYTES) return damaged("the file ends inside it");
    if (!has_subfields(next_byte())) return damaged("no header of a block");
    std::size_t const head_bytes =
        GZIP_HEAD_BYTES + number_at<std::uint16_t>(next_byte() + GZIP_XLEN_OFFSET);
    if (!want(head_bytes)) return false;
    if (available() < head_bytes) return damaged("the file ends inside it");
    head = find_block_size({next_byte(), head_bytes});
    if (head.block_bytes == 0) return damaged("no block size in its header");
    if (head.block_bytes < head.head_bytes + BLOCK_TAIL_BYTES) {
        return damaged("its size is less than that of its header");
    }
    if (!want(head.block_bytes)) return false;
    return available() >= head.block_bytes || damaged("the file ends inside it");
}

// Appends the data of the block in the buffer, which is taken only if it is right.
bool InputStream::State::unpack_block(BlockHead const& head, ByteBuffer& out) {
    char const* const block_end = next_byte() + head.block_bytes;
    auto const crc = number_at<std::uint32_t>(block_end - BLOCK_TAIL_BYTES);
    auto const isize = number_at<std::uint32_t>(block_end - BLOCK_ISIZE_FROM_END);
    if (isize > MAX_BLOCK_BYTES) return damaged("more than 64 KiB of data");
    char* const place = out.room_for(std::max<std::size_t>(isize, 1));
    std::size_t const packed_bytes = head.block_bytes - head.head_bytes - BLOCK_TAIL_BYTES;
    std::size_t n_taken = 0;
    libdeflate_result const result =
        libdeflate_deflate_decompress_ex(decompressor.get(), next_byte() + head.head_bytes,
                                         packed_bytes, place, isize, &n_taken, nullptr);
    if (result == LIBDEFLATE_BAD_DATA) return damaged("its data cannot be unpacked");
    if (result != LIBDEFLATE_SUCCESS) return damaged("its data has another length than it says");
    if (n_taken != packed_bytes) return damaged("its data ends too early");
    if (libdeflate_crc32(0, place, isize) != crc) return damaged("its checksum does not match");
    out.set_end(place + isize);
    block_offset = offset;
    last_block_was_empty = isize == 0;
    take(head.block_bytes);
    return true;
}

bool InputStream::State::read_bgzf(ByteBuffer& out) {
    if (!decompressor && !start_unpacking()) return false;
    for (;;) {
        if (!want(1)) return false;
        if (available() == 0) return true;
        BlockHead head;
        if (!find_block(head) || !unpack_block(head, out)) return false;
        if (!last_block_was_empty) return true;
    }
}

bool InputStream::State::seek(std::uint64_t wanted) {
    if (packing != Packing::BGZF || start < 0) {
        return fail(name + ": not a BGZF file that can be read from any place");
    }
    last_block_was_empty = false;
    std::uint64_t const buffer_offset = offset - begin;
    if (wanted >= buffer_offset && wanted - buffer_offset <= end) {
        begin = wanted - buffer_offset;
        offset = wanted;
        return true;
    }
    if (wanted > MAX_BLOCK_OFFSET) {
        return fail(name + ": no block can begin at byte " + std::to_string(wanted));
    }
    off_t const place = start + static_cast<off_t>(wanted);
    if (::lseek(fd, place, SEEK_SET) != place) {
        return fail("cannot read " + name + ": " + reason_of(errno));
    }
    begin = end = 0;
    offset = wanted;
    read_bytes = FIRST_READ_BYTES;
    ended = false;
    return true;
}

// --- The members ---------------------------------------------------------------

InputStream::InputStream() : state_(std::make_unique<State>()) {}
InputStream::~InputStream() = default;
InputStream::InputStream(InputStream&&) noexcept = default;
InputStream& InputStream::operator=(InputStream&&) noexcept = default;

bool InputStream::open(std::string const& path) {
    auto opened = std::make_unique<State>();
    bool const done = opened->open(path);
    state_ = std::move(opened);
    if (!done) error_message = state_->error;
    return done;
}

std::string const& InputStream::name() const { return state_->name; }
InputStream::Packing InputStream::packing() const { return state_->packing; }
std::uint64_t InputStream::bytes_read() const { return state_->n_read_bytes; }
std::uint64_t InputStream::block_offset() const { return state_->block_offset; }

bool InputStream::read(ByteBuffer& out) {
    bool done = false;
    switch (state_->packing) {
        case Packing::NONE: done = state_->read_plain(out); break;
        case Packing::GZIP: done = state_->read_gzip(out); break;
        case Packing::BGZF: done = state_->read_bgzf(out); break;
    }
    if (!done) error_message = state_->error;
    return done;
}

bool InputStream::has_eof_block() const {
    return state_->packing != Packing::BGZF || state_->last_block_was_empty;
}

bool InputStream::seek(std::uint64_t offset) {
    if (state_->seek(offset)) return true;
    error_message = state_->error;
    return false;
}

}  // namespace tesk::interop
