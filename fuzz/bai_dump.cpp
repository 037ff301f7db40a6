// The bytes of a BAI file. They are printed as a plain printer prints them; and where
// the index reader takes them, so does an independent one, and what the reader finds
// for a region lies within what the index holds.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/alignments.h"
#include "fuzz/target.h"
#include "interop/index_reader.h"
#include "tests/support/cout_capture.h"
#include "tests/support/index_builder.h"
#include "tests/support/temp_file.h"

namespace {

using tesk::fuzz::require;
using tesk::fuzz::require_same;

constexpr std::int32_t PSEUDO_BIN = 37450;

// Prints a BAI file. Every step throws at the end of the bytes.
class PlainPrinter {
public:
    explicit PlainPrinter(std::string_view bytes) : rest_(bytes) {}

    // What the dump prints, and whether it succeeds.
    bool print(std::string& out) {
        if (rest_.substr(0, 4) != "BAI\x01") return false;
        rest_.remove_prefix(4);
        try {
            return print_all(out);
        } catch (End const&) {
            return true;
        }
    }

private:
    struct End {};
    struct Damage {};

    template <typename T>
    T take() {
        if (rest_.size() < sizeof(T)) throw End();
        T value;
        std::memcpy(&value, rest_.data(), sizeof value);
        rest_.remove_prefix(sizeof value);
        return value;
    }

    std::string offset(char const* between) {
        auto const value = take<std::uint64_t>();
        return std::to_string(value / 65536) + between + std::to_string(value % 65536);
    }

    bool print_all(std::string& out) {
        // Its first bytes count even where others are missing.
        std::int32_t n_ref = 0;
        std::size_t const n_bytes = std::min(rest_.size(), sizeof n_ref);
        std::memcpy(&n_ref, rest_.data(), n_bytes);
        rest_.remove_prefix(n_bytes);
        out += "n_ref is " + std::to_string(n_ref) + '\n';
        for (std::int32_t ref = 0; ref < n_ref; ++ref) {
            if (!print_reference(out, "Ref " + std::to_string(ref))) return false;
        }
        out += "Got n_no_coor " + std::to_string(take<std::uint64_t>()) + '\n';
        if (!rest_.empty()) out += "Error: more bytes available in the index file!\n";
        return true;
    }

    bool print_reference(std::string& out, std::string const& ref) {
        auto const n_bin = take<std::int32_t>();
        out += '\n' + ref + " has " + std::to_string(n_bin) + " bins\n";
        std::uint32_t n_chunks = 0;
        for (std::int32_t i = 0; i < n_bin; ++i) {
            auto const bin = take<std::int32_t>();
            auto const n_chunk = take<std::int32_t>();
            out += ref + " bin " + std::to_string(bin) + " has " + std::to_string(n_chunk) +
                   " chunks\n";
            if (bin == PSEUDO_BIN) {
                if (n_chunk != 2) return false;
                print_pseudo_bin(out);
                continue;
            }
            n_chunks += static_cast<std::uint32_t>(n_chunk);
            for (std::int32_t k = 0; k < n_chunk; ++k) print_chunk(out);
        }
        out += ref + " has " + std::to_string(static_cast<std::int32_t>(n_chunks)) +
               " total real chunks\n";
        auto const n_intv = take<std::int32_t>();
        out += ref + " has " + std::to_string(n_intv) + " linear intervals\n";
        for (std::int32_t i = 0; i < n_intv; ++i) {
            std::uint32_t const start = static_cast<std::uint32_t>(i) * 16384U;
            out += "Linear file offset " + offset(" block offset ") + " (" + std::to_string(start) +
                   " - " + std::to_string(start + 16383U) + ")\n";
        }
        return true;
    }

    // A chunk is printed only where it is whole.
    void print_chunk(std::string& out) {
        std::string const start = offset(" block offset ");
        std::string const end = offset(" block offset ");
        out += "Start is file offset " + start + "\nEnd is file offset " + end + '\n';
    }

    void print_pseudo_bin(std::string& out) {
        std::string const begin = offset(",");
        std::string const end = offset(",");
        auto const n_mapped = take<std::uint64_t>();
        auto const n_unmapped = take<std::uint64_t>();
        out += "Magic bin says placed unmapped begin " + begin + " end " + end + ", num mapped " +
               std::to_string(n_mapped) + ", unmapped " + std::to_string(n_unmapped) + '\n';
    }

    std::string_view rest_;
};

void check_dump(std::string const& path, std::string_view bytes) {
    std::string expected;
    bool const is_done = PlainPrinter(bytes).print(expected);
    tesk::fuzz::BAMFileHandler handler;
    tesk::test::CoutCapture capture;
    require(handler.print_index_from_file(path) == is_done, "the dump fails as the plain one");
    require_same(expected, capture.text(), "the dump is that of a plain printer");
}

// The reader takes indexes without n_no_coor, too.
tesk::test::ParsedBai parse(std::string_view bytes) {
    try {
        return tesk::test::parse_bai(bytes);
    } catch (std::runtime_error const&) {
        return tesk::test::parse_bai(std::string(bytes) + std::string(8, '\0'));
    }
}

bool lies_within(tesk::interop::ChunkIndex const& chunk,
                 tesk::test::ParsedBai::Section const& section) {
    bool begins = false;
    bool ends = false;
    for (auto const& bin : section.bins) {
        if (bin.bin == PSEUDO_BIN) continue;
        for (auto const& [beg, end] : bin.chunks) {
            begins = begins || (beg <= chunk.chunk_beg && chunk.chunk_beg <= end);
            ends = ends || end == chunk.chunk_end;
        }
    }
    return begins && ends;
}

void check_reader(std::string const& path, std::string_view bytes) {
    tesk::interop::IndexReader reader;
    if (!reader.open(path)) return;
    tesk::test::ParsedBai const parsed = parse(bytes);
    require(parsed.references.size() == reader.n_references(), "references are counted");
    for (std::size_t ref = 0; ref < parsed.references.size(); ++ref) {
        std::vector<tesk::interop::ChunkIndex> found;
        reader.chunks(static_cast<std::int32_t>(ref), 0, std::int64_t{1} << 29, found);
        std::uint64_t last_end = 0;
        for (auto const& chunk : found) {
            require(chunk.chunk_beg >= last_end && chunk.chunk_beg < chunk.chunk_end,
                    "chunks are in order, and apart");
            last_end = chunk.chunk_end;
            require(lies_within(chunk, parsed.references[ref]),
                    "what is found lies within what the index holds");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const bytes(reinterpret_cast<char const*>(data), size);
    std::string const path = tesk::fuzz::scratch_path("file.bai");
    tesk::test::write_file(path, bytes);
    check_dump(path, bytes);
    check_reader(path, bytes);
    return 0;
}
