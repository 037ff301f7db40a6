#include "tools/index_check.h"

#include <cstdint>
#include <fstream>
#include <string_view>

#include "tools/text_sink.h"
#include "tools/tool_error.h"

namespace tesk::tool {

namespace {

constexpr std::string_view BAI_MAGIC("BAI\1", 4);
constexpr std::size_t CHUNK_BYTES = 16;      // chunk_beg, chunk_end
constexpr std::size_t IOFFSET_BYTES = 8;     // one entry of the linear index
constexpr std::uint64_t PSEUDO_BIN = 37450;  // holds totals instead of chunks
constexpr std::uint64_t PSEUDO_BIN_N_CHUNK = 2;

[[noreturn]] void fail(std::string const& fault) {
    throw ToolError("the index is damaged: " + fault);
}

std::string read_whole_file(std::string const& path) {
    constexpr std::size_t PIECE_BYTES = std::size_t{1} << 18;
    std::ifstream in(path, std::ios::binary);
    std::string bytes;
    for (std::size_t size = 0; in; bytes.resize(size)) {
        bytes.resize(size + PIECE_BYTES);
        in.read(&bytes[size], PIECE_BYTES);
        size += static_cast<std::size_t>(in.gcount());
    }
    if (!in.eof() || in.bad()) throw ToolError("the index cannot be read: " + path);
    return bytes;
}

// Steps through the bytes; no step goes beyond their end.
class Cursor {
public:
    explicit Cursor(std::string_view bytes) : rest_(bytes) {}

    // An unsigned 32-bit number, little-endian.
    std::uint64_t number(std::string const& what) {
        std::string_view const bytes = take(4, what);
        std::uint64_t value = 0;
        for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<unsigned char>(bytes[i]);
        return value;
    }

    // A count of items of the given size: as many must follow it. A negative
    // count, read as unsigned, asks for more than any index has.
    std::uint64_t count(std::size_t item_bytes, std::string const& what) {
        std::uint64_t const n = number(what);
        if (n > INT32_MAX || n > rest_.size() / item_bytes) {
            fail(what + " is " + std::to_string(n) + ", " + std::to_string(rest_.size()) +
                 " bytes follow");
        }
        return n;
    }

    std::string_view take(std::size_t n, std::string const& what) {
        if (n > rest_.size()) fail("it ends inside " + what);
        std::string_view const bytes = rest_.substr(0, n);
        rest_.remove_prefix(n);
        return bytes;
    }

    std::size_t left() const { return rest_.size(); }

private:
    std::string_view rest_;
};

void check_bin(Cursor& cursor, std::string const& of_reference) {
    std::uint64_t const bin = cursor.number("a bin" + of_reference);
    std::string const what = "n_chunk of bin " + std::to_string(bin) + of_reference;
    std::uint64_t const n_chunk = cursor.count(CHUNK_BYTES, what);
    if (bin == PSEUDO_BIN && n_chunk != PSEUDO_BIN_N_CHUNK) {
        fail(what + " is " + std::to_string(n_chunk) + " instead of 2");
    }
    cursor.take(n_chunk * CHUNK_BYTES, "the chunks");
}

void check_reference(Cursor& cursor, std::size_t reference) {
    std::string const of_reference = " of reference " + std::to_string(reference);
    std::uint64_t const n_bin = cursor.count(8, "n_bin" + of_reference);
    for (std::uint64_t i = 0; i < n_bin; ++i) check_bin(cursor, of_reference);
    std::uint64_t const n_intv = cursor.count(IOFFSET_BYTES, "n_intv" + of_reference);
    cursor.take(n_intv * IOFFSET_BYTES, "the linear index");
}

}  // namespace

void check_index(std::string const& path, std::size_t n_references) {
    std::string const bytes = read_whole_file(path);
    Cursor cursor(bytes);
    if (cursor.take(4, "its magic bytes") != BAI_MAGIC) fail("it does not begin with BAI");
    std::uint64_t const n_ref = cursor.number("n_ref");
    if (n_ref != n_references) {
        fail("n_ref is " + std::to_string(n_ref) + " instead of " + std::to_string(n_references));
    }
    for (std::size_t r = 0; r < n_references; ++r) check_reference(cursor, r);
    cursor.take(8, "n_no_coor");
    if (cursor.left() != 0) fail(std::to_string(cursor.left()) + " bytes follow its end");
}

void check_written_index(std::string const& path, OutputFile const& output,
                         std::size_t n_references) {
    check_delayed_errors(output.index_descriptor(), path + ".bai");
    try {
        check_index(output.write_path() + ".bai", n_references);
    } catch (ToolError const& e) {
        throw ToolError(path + ".bai: " + output.in_own_names(e.what()));
    }
}

}  // namespace tesk::tool
