#include "bench/floors.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

#include "bench/blocks.h"

namespace tesk::bench {

namespace {

constexpr std::size_t PIECE_BYTES = std::size_t{1} << 20;

constexpr int RAW_WINDOW_BITS = -15;
constexpr int MEM_LEVEL = 8;

class File {
public:
    File(std::string const& path, int flags) : fd_(open(path.c_str(), flags | O_CLOEXEC, 0666)) {
        if (fd_ < 0) throw std::runtime_error("cannot open " + path);
    }
    ~File() { close(fd_); }
    File(File const&) = delete;
    File& operator=(File const&) = delete;

    std::size_t read(char* bytes, std::size_t n) {
        ssize_t const n_read = ::read(fd_, bytes, n);
        if (n_read < 0) throw std::runtime_error("reading failed");
        return static_cast<std::size_t>(n_read);
    }
    void write(char const* bytes, std::size_t n) {
        while (n > 0) {
            ssize_t const n_written = ::write(fd_, bytes, n);
            if (n_written <= 0) throw std::runtime_error("writing failed");
            bytes += n_written;
            n -= static_cast<std::size_t>(n_written);
        }
    }

private:
    int fd_;
};

// A file that is read in pieces; what is left of one goes before the next.
class PieceReader {
public:
    explicit PieceReader(std::string const& path) : file_(path, O_RDONLY) {}

    std::string_view rest() const { return {buffer_.data() + begin_, end_ - begin_}; }
    void skip(std::size_t n) { begin_ += n; }
    // False at the file's end.
    bool read_more() {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        if (buffer_.size() - end_ < PIECE_BYTES) buffer_.resize(end_ + PIECE_BYTES);
        std::size_t const n = file_.read(buffer_.data() + end_, PIECE_BYTES);
        end_ += n;
        return n > 0;
    }

private:
    File file_;
    std::vector<char> buffer_ = std::vector<char>(PIECE_BYTES);
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

// A file that is written in pieces.
class PieceWriter {
public:
    explicit PieceWriter(std::string const& path) : file_(path, O_WRONLY | O_CREAT | O_TRUNC) {}

    // Where the next n bytes go, of which advance() tells how many there are.
    char* room_for(std::size_t n) {
        if (n > PIECE_BYTES - size_) flush();
        return buffer_.get() + size_;
    }
    void advance(std::size_t n) { size_ += n; }
    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            std::string_view const part = bytes.substr(0, PIECE_BYTES);
            std::memcpy(room_for(part.size()), part.data(), part.size());
            advance(part.size());
            bytes.remove_prefix(part.size());
        }
    }
    void flush() { file_.write(buffer_.get(), std::exchange(size_, 0)); }

private:
    File file_;
    std::unique_ptr<char[]> buffer_ = std::make_unique<char[]>(PIECE_BYTES);
    std::size_t size_ = 0;
};

Bytef const* as_bytes(char const* data) { return reinterpret_cast<Bytef const*>(data); }
Bytef* as_bytes(char* data) { return reinterpret_cast<Bytef*>(data); }

std::uint32_t checksum(char const* data, std::size_t size) {
    return static_cast<std::uint32_t>(crc32(0, as_bytes(data), static_cast<uInt>(size)));
}

// The number of a line's fields, for which its tabs are found.
std::size_t count_fields(std::string_view line) {
    std::size_t n_fields = 1;
    for (char const* next = line.data();;) {
        auto const* const tab = static_cast<char const*>(
            std::memchr(next, '\t', static_cast<std::size_t>(line.data() + line.size() - next)));
        if (tab == nullptr) return n_fields;
        ++n_fields;
        next = tab + 1;
    }
}

// Builds the records of lines, one after the other.
class Builder {
public:
    explicit Builder(FloorRecords const& ready) : ready_(ready) {}

    void add_line(std::string_view line) {
        if (line.front() == '@') return;
        if (count_fields(line) < 11) throw std::runtime_error("a line lacks fields");
        add_next();
    }
    void add_next() { records_.push_back(ready_[records_.size()]); }
    std::size_t n_records() const { return records_.size(); }
    FloorRecords take() { return std::move(records_); }

private:
    FloorRecords const& ready_;
    FloorRecords records_;
};

// Calls a function with the blocks of a file and where their compressed bytes are.
template <typename TakeBlock>
void for_each_block(std::string const& path, TakeBlock take_block) {
    PieceReader reader(path);
    while (reader.read_more()) {
        for (;;) {
            std::string_view const rest = reader.rest();
            if (rest.size() < HEADER_BYTES) break;
            std::size_t const size =
                get<std::uint16_t>(rest.data() + BSIZE_OFFSET) + std::size_t{1};
            if (size < HEADER_BYTES + FOOTER_BYTES) throw std::runtime_error("no BGZF block");
            if (rest.size() < size) break;
            take_block(rest.substr(HEADER_BYTES, size - HEADER_BYTES - FOOTER_BYTES),
                       get<std::uint32_t>(rest.data() + size - 8),
                       get<std::uint32_t>(rest.data() + size - 4));
            reader.skip(size);
        }
    }
}

class Inflater {
public:
    Inflater() {
        if (inflateInit2(&stream_, RAW_WINDOW_BITS) != Z_OK) throw std::bad_alloc();
    }
    ~Inflater() { inflateEnd(&stream_); }
    Inflater(Inflater const&) = delete;
    Inflater& operator=(Inflater const&) = delete;

    void inflate_block(std::string_view cdata, char* out, std::size_t size, std::uint32_t crc) {
        inflateReset(&stream_);
        stream_.next_in = const_cast<Bytef*>(as_bytes(cdata.data()));
        stream_.avail_in = static_cast<uInt>(cdata.size());
        stream_.next_out = as_bytes(out);
        stream_.avail_out = static_cast<uInt>(size);
        if ((inflate(&stream_, Z_FINISH) != Z_STREAM_END && size != 0) ||
            checksum(out, size) != crc) {
            throw std::runtime_error("a block is damaged");
        }
    }

private:
    z_stream stream_{};
};

}  // namespace

FloorRecords floor_read_sam(std::string const& path, FloorRecords const& ready) {
    Builder builder(ready);
    PieceReader reader(path);
    while (reader.read_more()) {
        for (;;) {
            std::string_view const rest = reader.rest();
            void const* const newline = std::memchr(rest.data(), '\n', rest.size());
            if (newline == nullptr) break;
            auto const size =
                static_cast<std::size_t>(static_cast<char const*>(newline) - rest.data());
            builder.add_line(rest.substr(0, size));
            reader.skip(size + 1);
        }
    }
    return builder.take();
}

FloorRecords floor_add_lines(std::vector<std::string_view> const& lines,
                             FloorRecords const& ready) {
    Builder builder(ready);
    for (std::string_view const line : lines) builder.add_line(line);
    return builder.take();
}

void floor_write_bam(std::string const& path, Payload const& payload) {
    PieceWriter out(path);
    z_stream stream{};
    if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, RAW_WINDOW_BITS, MEM_LEVEL,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::bad_alloc();
    }
    for (Block const& block : payload.blocks) {
        char const* const data = payload.bytes.data() + block.payload_begin;
        char* const place = out.room_for(MAX_BLOCK_BYTES);
        deflateReset(&stream);
        stream.next_in = const_cast<Bytef*>(as_bytes(data));
        stream.avail_in = static_cast<uInt>(block.payload_bytes);
        stream.next_out = as_bytes(place + HEADER_BYTES);
        stream.avail_out = static_cast<uInt>(MAX_BLOCK_BYTES - HEADER_BYTES - FOOTER_BYTES);
        if (deflate(&stream, Z_FINISH) != Z_STREAM_END) {
            throw std::runtime_error("a block does not fit");
        }
        std::size_t const n = stream.total_out;
        std::memcpy(place, EOF_BLOCK, HEADER_BYTES);
        put(place + BSIZE_OFFSET, static_cast<std::uint16_t>(HEADER_BYTES + n + FOOTER_BYTES - 1));
        put(place + HEADER_BYTES + n, checksum(data, block.payload_bytes));
        put(place + HEADER_BYTES + n + 4, static_cast<std::uint32_t>(block.payload_bytes));
        out.advance(HEADER_BYTES + n + FOOTER_BYTES);
    }
    deflateEnd(&stream);
    out.write({EOF_BLOCK, sizeof EOF_BLOCK});
    out.flush();
}

FloorRecords floor_read_bam(std::string const& path, std::size_t payload_bytes,
                            FloorRecords const& ready) {
    std::unique_ptr<char[]> const payload(new char[payload_bytes]);
    {
        std::size_t done = 0;
        Inflater inflater;
        for_each_block(path, [&](std::string_view cdata, std::uint32_t crc, std::size_t size) {
            if (size > payload_bytes - done) throw std::runtime_error("too much data");
            inflater.inflate_block(cdata, payload.get() + done, size, crc);
            done += size;
        });
    }
    Builder builder(ready);
    while (builder.n_records() < ready.size()) builder.add_next();
    return builder.take();
}

void floor_write_sam(std::string const& path, std::string const& header,
                     FloorRecords const& records) {
    PieceWriter out(path);
    out.write(header);
    for (FloorRecord const& record : records) {
        out.write(record.sam_line);
        out.write("\n");
    }
    out.flush();
}

void floor_sort(FloorRecords& records) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> keys;
    keys.reserve(records.size());
    for (FloorRecord const& record : records) {
        keys.emplace_back(std::uint64_t{static_cast<std::uint32_t>(record.refID)} << 32U |
                              static_cast<std::uint32_t>(record.pos + 1),
                          keys.size());
    }
    std::sort(keys.begin(), keys.end());
    FloorRecords sorted;
    sorted.reserve(records.size());
    for (auto const& key : keys) sorted.push_back(std::move(records[key.second]));
    records.swap(sorted);
}

Payload read_payload(std::string const& path) {
    Payload payload;
    Inflater inflater;
    for_each_block(path, [&](std::string_view cdata, std::uint32_t crc, std::size_t size) {
        std::size_t const begin = payload.bytes.size();
        payload.bytes.resize(begin + size);
        inflater.inflate_block(cdata, payload.bytes.data() + begin, size, crc);
        if (size > 0) payload.blocks.push_back({begin, size});
    });
    return payload;
}

void write_full_blocks(std::string const& path, Payload const& payload) {
    Payload full;
    full.bytes = payload.bytes;
    for (std::size_t begin = 0; begin < full.bytes.size(); begin += FULL_PAYLOAD_BYTES) {
        full.blocks.push_back({begin, std::min(FULL_PAYLOAD_BYTES, full.bytes.size() - begin)});
    }
    floor_write_bam(path, full);
}

}  // namespace tesk::bench
