#include "tests/support/index_builder.h"

#include <algorithm>
#include <limits>
#include <map>
#include <stdexcept>

#include "tests/support/bam_encoder.h"

namespace tesk::test {

namespace {

constexpr std::uint32_t PSEUDO_BIN = 37450;
constexpr std::int64_t MOST_WINDOWS = 1 << 20;

using Chunk = std::pair<std::uint64_t, std::uint64_t>;

// What an index holds of one reference.
struct Section {
    std::vector<Chunk> chunks;  // of all bins, in file order
    std::map<std::uint32_t, std::vector<Chunk>> bins;
    std::uint64_t n_mapped = 0;
    std::uint64_t n_unmapped = 0;
    std::vector<std::uint64_t> windows;
    std::int64_t n_intv = 0;  // the number of windows, or less than 0
    std::int64_t room = 0;    // windows that there is room for; grows by doubling
};

// Neighbouring records of one reference and bin: they share a chunk.
struct Run {
    std::int32_t refID = 0;
    std::uint16_t bin = 0;
    Chunk chunk;
};

// Every placed record belongs to one run. What an earlier index leaves behind
// is an empty run on reference 0, bin 0, in front of them all.
std::vector<Run> runs_of(std::vector<IndexedRecord> const& records, bool carry_over) {
    std::vector<Run> runs;
    if (carry_over) runs.push_back({0, 0, {0, 0}});
    for (IndexedRecord const& record : records) {
        if (record.refID == -1) continue;
        if (runs.empty() || runs.back().refID != record.refID || runs.back().bin != record.bin) {
            runs.push_back({record.refID, record.bin, {record.begin, record.end}});
        }
        runs.back().chunk.second = record.end;
    }
    return runs;
}

// The 16,384-base window of a coordinate, rounded downwards below 0 too.
std::int64_t window_of(std::int64_t coordinate) {
    std::int64_t const quotient = coordinate / 16384;
    return coordinate % 16384 < 0 ? quotient - 1 : quotient;
}

// The list of windows ends after the last window of the last record, the window
// of the base behind that record. Windows that it gains hold the record, or, in
// the gap before it, what the list ended with.
void add_windows(Section& section, IndexedRecord const& record) {
    std::uint64_t const end = static_cast<std::uint64_t>(record.pos) + record.ref_length;
    std::int64_t const first = window_of(record.pos);
    std::int64_t const last = window_of(static_cast<std::int64_t>(end));
    bool const grows = last >= section.room;
    if (last < std::numeric_limits<std::int32_t>::min() || (grows && 2 * last > MOST_WINDOWS)) {
        throw std::length_error("a record beyond the last window of an index");
    }
    if (grows) section.room = std::max<std::int64_t>(1, 2 * last);
    std::vector<std::uint64_t>& windows = section.windows;
    std::uint64_t const gap = windows.empty() ? record.begin : windows.back();
    auto window = static_cast<std::int64_t>(windows.size());
    for (; window <= last; ++window) windows.push_back(window < first ? gap : record.begin);
    windows.resize(static_cast<std::size_t>(std::max<std::int64_t>(last + 1, 0)));
    section.n_intv = last + 1;
}

std::string bin_bytes(std::uint32_t bin, std::vector<Chunk> const& chunks) {
    std::string bytes = le_bytes(bin) + le_bytes(static_cast<std::int32_t>(chunks.size()));
    for (Chunk const& chunk : chunks) bytes += le_bytes(chunk.first) + le_bytes(chunk.second);
    return bytes;
}

std::string section_bytes(Section const& section) {
    if (section.chunks.empty()) return le_bytes(std::int32_t{0}) + le_bytes(std::int32_t{0});
    std::uint64_t end = 0;
    for (Chunk const& chunk : section.chunks) end = std::max(end, chunk.second);
    std::string bytes = le_bytes(static_cast<std::int32_t>(section.bins.size() + 1));
    bytes += bin_bytes(
        PSEUDO_BIN, {{section.chunks.front().first, end}, {section.n_mapped, section.n_unmapped}});
    for (auto const& [bin, chunks] : section.bins) bytes += bin_bytes(bin, chunks);
    bytes += le_bytes(static_cast<std::int32_t>(section.n_intv));
    for (std::uint64_t const offset : section.windows) bytes += le_bytes(offset);
    return bytes;
}

// A cursor over a file's bytes.
class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    bool at_end() const { return rest_.empty(); }

    std::string_view take(std::size_t n) {
        if (n > rest_.size()) throw std::runtime_error("BAI file: cut short");
        std::string_view const bytes = rest_.substr(0, n);
        rest_.remove_prefix(n);
        return bytes;
    }

    std::uint64_t u64() { return number(8); }
    std::uint32_t u32() { return static_cast<std::uint32_t>(number(4)); }

    // The number of entries of a list, each of which takes at least this many bytes.
    std::size_t count(std::size_t entry_bytes) {
        std::uint32_t const value = u32();
        if (value > rest_.size() / entry_bytes) throw std::runtime_error("BAI file: wrong count");
        return value;
    }

private:
    std::uint64_t number(std::size_t width) {
        std::string_view const bytes = take(width);
        std::uint64_t value = 0;
        for (std::size_t i = width; i-- > 0;) {
            value = value << 8 | static_cast<unsigned char>(bytes[i]);
        }
        return value;
    }

    std::string_view rest_;
};

ParsedBai::Bin parse_bin(Reader& reader) {
    ParsedBai::Bin bin;
    bin.bin = reader.u32();
    for (std::size_t n = reader.count(16); n > 0; --n) {
        std::uint64_t const begin = reader.u64();
        bin.chunks.emplace_back(begin, reader.u64());
    }
    return bin;
}

ParsedBai::Section parse_section(Reader& reader) {
    ParsedBai::Section section;
    for (std::size_t n = reader.count(8); n > 0; --n) section.bins.push_back(parse_bin(reader));
    for (std::size_t n = reader.count(8); n > 0; --n) section.ioffsets.push_back(reader.u64());
    return section;
}

}  // namespace

std::string build_bai(std::int32_t n_ref, std::vector<IndexedRecord> const& records,
                      bool carry_over) {
    std::map<std::int32_t, Section> sections;
    for (Run const& run : runs_of(records, carry_over)) {
        sections[run.refID].chunks.push_back(run.chunk);
        sections[run.refID].bins[run.bin].push_back(run.chunk);
    }
    std::uint64_t n_no_coor = 0;
    for (IndexedRecord const& record : records) {
        if (record.refID == -1) {
            ++n_no_coor;
            continue;
        }
        Section& section = sections[record.refID];
        ++((record.flag & 4) != 0 ? section.n_unmapped : section.n_mapped);
        add_windows(section, record);
    }

    std::string bytes = "BAI\x01" + le_bytes(n_ref);
    for (std::int32_t r = 0; r < n_ref; ++r) bytes += section_bytes(sections[r]);
    return bytes + le_bytes(n_no_coor);
}

// The number of reads without coordinates may be missing from the end.
ParsedBai parse_bai(std::string_view file) {
    Reader reader(file);
    if (reader.take(4) != "BAI\x01") throw std::runtime_error("BAI file: wrong magic");
    ParsedBai bai;
    for (std::size_t n = reader.count(8); n > 0; --n) {
        bai.references.push_back(parse_section(reader));
    }
    if (!reader.at_end()) bai.n_no_coor = reader.u64();
    if (!reader.at_end()) throw std::runtime_error("BAI file: bytes left over");
    return bai;
}

}  // namespace tesk::test
