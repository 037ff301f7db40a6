#include "tests/support/bam_walker.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "tests/support/text.h"

namespace tesk::test {

namespace {

// A cursor over little-endian numbers and bytes.
class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    bool at_end() const { return rest_.empty(); }
    std::size_t size() const { return rest_.size(); }

    std::string_view take(std::size_t n) {
        if (n > rest_.size()) throw std::runtime_error("BAM payload: cut short");
        std::string_view const bytes = rest_.substr(0, n);
        rest_.remove_prefix(n);
        return bytes;
    }

    template <typename T>
    T get() {
        T value{};
        std::memcpy(&value, take(sizeof value).data(), sizeof value);
        return value;
    }

    std::string text_to_nul() {
        std::size_t const end = rest_.find('\0');
        if (end == std::string_view::npos) throw std::runtime_error("BAM payload: NUL missing");
        std::string const text(take(end));
        take(1);
        return text;
    }

private:
    std::string_view rest_;
};

// The fixed fields of a record, and a cursor behind them.
struct FixedFields {
    std::int32_t refID, pos;
    std::uint8_t l_read_name, mapq;
    std::uint16_t bin, n_cigar_op, flag;
    std::int32_t l_seq, next_refID, next_pos, tlen;
};

FixedFields read_fixed_fields(Reader& reader) {
    FixedFields f{};
    reader.take(4);  // block_size
    f.refID = reader.get<std::int32_t>();
    f.pos = reader.get<std::int32_t>();
    f.l_read_name = reader.get<std::uint8_t>();
    f.mapq = reader.get<std::uint8_t>();
    f.bin = reader.get<std::uint16_t>();
    f.n_cigar_op = reader.get<std::uint16_t>();
    f.flag = reader.get<std::uint16_t>();
    f.l_seq = reader.get<std::int32_t>();
    f.next_refID = reader.get<std::int32_t>();
    f.next_pos = reader.get<std::int32_t>();
    f.tlen = reader.get<std::int32_t>();
    return f;
}

std::uint64_t reference_bases(Reader reader, std::size_t n_ops) {
    std::uint64_t bases = 0;
    for (std::size_t i = 0; i < n_ops; ++i) {
        auto const op = reader.get<std::uint32_t>();
        switch (op & 15) {
            case 0:  // M
            case 2:  // D
            case 3:  // N
            case 7:  // =
            case 8:  // X
                bases += op >> 4;
                break;
            default: break;
        }
    }
    return bases;
}

std::string cigar_text(Reader reader, std::size_t n_ops) {
    std::string text;
    for (std::size_t i = 0; i < n_ops; ++i) {
        auto const op = reader.get<std::uint32_t>();
        text += std::to_string(op >> 4) + std::string("MIDNSHP=X").at(op & 15);
    }
    return text.empty() ? "*" : text;
}

// How floats are put into words: as the library does it, or so that their text
// reads back to the same float; arrays of floats have only the latter.
enum class FloatText { FIXED, EXACT };

std::string exact_float_text(float value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.9g", static_cast<double>(value));
    return text;
}

std::string float_text(float value) {
    char text[64];
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value));
    std::size_t length = std::strlen(text);
    while (text[length - 1] == '0') --length;
    return std::string(text, length);
}

template <typename T>
std::string integer_text(Reader& reader) {
    return std::to_string(reader.get<T>());
}

std::string number_text(Reader& reader, char type, FloatText floats) {
    if (type == 'f' && floats == FloatText::EXACT) return exact_float_text(reader.get<float>());
    switch (type) {
        case 'c': return integer_text<std::int8_t>(reader);
        case 'C': return integer_text<std::uint8_t>(reader);
        case 's': return integer_text<std::int16_t>(reader);
        case 'S': return integer_text<std::uint16_t>(reader);
        case 'i': return integer_text<std::int32_t>(reader);
        case 'I': return integer_text<std::uint32_t>(reader);
        default: throw std::runtime_error(std::string("BAM record: number of type ") + type);
    }
}

// The next optional field, from a cursor at its tag.
std::string optional_field_text(Reader& reader, FloatText floats) {
    std::string text(reader.take(2));
    auto const type = reader.get<char>();
    switch (type) {
        case 'A': return text + ":A:" + reader.get<char>();
        case 'f': {
            auto const value = reader.get<float>();
            return text + ":f:" +
                   (floats == FloatText::EXACT ? exact_float_text(value) : float_text(value));
        }
        case 'Z':
        case 'H': return text + ":" + type + ":" + reader.text_to_nul();
        case 'B': {
            auto const subtype = reader.get<char>();
            text += std::string(":B:") + subtype;
            for (auto n = reader.get<std::uint32_t>(); n > 0; --n) {
                text += "," + number_text(reader, subtype, floats);
            }
            return text;
        }
        default: return text + ":i:" + number_text(reader, type, floats);
    }
}

bool knows(std::vector<Reference> const& references, std::string const& name) {
    for (Reference const& reference : references) {
        if (reference.name == name) return true;
    }
    return false;
}

std::string field_through_bam(std::string const& field) {
    std::string const head = field.substr(0, 5);
    std::string const value = field.substr(5);
    switch (field.at(3)) {
        case 'A': return head + value.at(0);
        case 'i': return head + std::to_string(std::stoi(value));
        case 'f': return head + float_text(std::strtof(value.c_str(), nullptr));
        case 'B': return head + value.substr(0, value.find('\r'));
        default: return field;
    }
}

}  // namespace

BamPayload split_bam_payload(std::string_view payload) {
    Reader reader(payload);
    if (reader.take(4) != "BAM\x01") throw std::runtime_error("BAM payload: wrong magic");
    BamPayload bam;
    bam.header_text = reader.take(reader.get<std::uint32_t>());
    for (auto n = reader.get<std::uint32_t>(); n > 0; --n) {
        Reference reference;
        auto const l_name = reader.get<std::uint32_t>();
        reference.name = Reader(reader.take(l_name)).text_to_nul();
        reference.length = reader.get<std::int32_t>();
        bam.references.push_back(reference);
    }
    while (!reader.at_end()) {
        Reader ahead = reader;
        auto const block_size = ahead.get<std::uint32_t>();
        bam.records.emplace_back(reader.take(std::size_t{4} + block_size));
    }
    return bam;
}

std::vector<IndexedRecord> index_records(std::string_view bam_file, std::uint64_t bare_length) {
    std::vector<BgzfBlock> const blocks = parse_bgzf(bam_file);
    std::string payload;
    for (BgzfBlock const& block : blocks) payload += block.payload;
    BamPayload const bam = split_bam_payload(payload);

    // Steps over the blocks that hold the next `size` bytes; the last of them.
    std::size_t next = 0;
    auto const pass = [&](std::size_t size) -> BgzfBlock const& {
        while (true) {
            BgzfBlock const& block = blocks.at(next++);
            if (block.payload.size() > size) {
                throw std::runtime_error("BAM file: a record does not begin a block");
            }
            size -= block.payload.size();
            if (size == 0) return block;
        }
    };
    std::size_t records_size = 0;
    for (std::string const& record : bam.records) records_size += record.size();
    pass(payload.size() - records_size);

    std::vector<IndexedRecord> indexed;
    for (std::string const& bytes : bam.records) {
        BgzfBlock const& block = pass(bytes.size());
        Reader reader(bytes);
        FixedFields const f = read_fixed_fields(reader);
        reader.take(f.l_read_name);
        IndexedRecord record;
        record.refID = f.refID;
        record.pos = f.pos;
        record.bin = f.bin;
        record.flag = f.flag;
        record.ref_length = f.n_cigar_op == 0 ? bare_length : reference_bases(reader, f.n_cigar_op);
        record.begin = block.offset << 16;
        record.end = (block.offset + block.size) << 16;
        indexed.push_back(record);
    }
    return indexed;
}

namespace {

// Columns before the optional fields.
constexpr std::size_t N_COLUMNS = 11;

// The line, its optional fields after it.
std::string line_of_record(std::string_view record, std::vector<Reference> const& references,
                           FloatText floats) {
    Reader reader(record);
    FixedFields const f = read_fixed_fields(reader);
    auto const name_of = [&](std::int32_t id) {
        return id == -1 ? "*" : references.at(static_cast<std::size_t>(id)).name;
    };
    std::string const rname = name_of(f.refID);
    std::string const rnext = name_of(f.next_refID);
    std::string const name = Reader(reader.take(f.l_read_name)).text_to_nul();
    std::string const cigar = cigar_text(reader, f.n_cigar_op);
    reader.take(std::size_t{4} * f.n_cigar_op);

    auto const l_seq = static_cast<std::size_t>(f.l_seq);
    std::string_view const packed = reader.take((l_seq + 1) / 2);
    std::string seq;
    for (std::size_t i = 0; i < l_seq; ++i) {
        auto const byte = static_cast<unsigned char>(packed[i / 2]);
        seq += "=ACMGRSVTWYHKDBN"[i % 2 == 0 ? byte >> 4 : byte & 15];
    }
    std::string qual;
    for (char const score : reader.take(l_seq)) qual += static_cast<char>(score + 33);
    if (qual.empty() || qual[0] == ' ') qual = "*";  // 255 and 33 make 32

    std::string line = name + '\t' + std::to_string(f.flag) + '\t' + rname + '\t' +
                       std::to_string(f.pos + 1) + '\t' + std::to_string(f.mapq) + '\t' + cigar +
                       '\t' + (rnext != "*" && rnext == rname ? "=" : rnext) + '\t' +
                       std::to_string(f.next_pos + 1) + '\t' + std::to_string(f.tlen) + '\t' +
                       (seq.empty() ? "*" : seq) + '\t' + qual;
    while (!reader.at_end()) line += '\t' + optional_field_text(reader, floats);
    return line;
}

// The first optional field of a line with these first characters; empty for none.
std::string_view field_of_line(std::vector<std::string_view> const& columns,
                               std::string_view beginning) {
    for (std::size_t i = N_COLUMNS; i < columns.size(); ++i) {
        if (columns[i].substr(0, beginning.size()) == beginning) return columns[i];
    }
    return {};
}

// Operations as text, from the numbers of an array: "65,16" is 4I1M.
std::string cigar_of_array(std::string_view numbers) {
    std::string text;
    for (std::string_view const number : split(numbers, ',')) {
        auto const op = std::stoul(std::string(number));
        text += std::to_string(op >> 4) + std::string("MIDNSHP=X").at(op & 15);
    }
    return text;
}

std::string joined(std::vector<std::string_view> const& columns) {
    std::string text;
    for (std::string_view const column : columns) {
        if (!text.empty()) text += '\t';
        text += column;
    }
    return text;
}

// --- Comparing lines ---------------------------------------------------------

std::uint32_t bits_of_float(std::string_view text) {
    std::string const number(text);
    char* end = nullptr;
    float const value = std::strtof(number.c_str(), &end);
    if (number.empty() || *end != '\0') throw std::runtime_error("no float: " + number);
    std::uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

long long integer_of(std::string_view text) {
    std::string const number(text);
    std::size_t n_used = 0;
    long long const value = std::stoll(number, &n_used);
    if (n_used != number.size()) throw std::runtime_error("no integer: " + number);
    return value;
}

bool same_numbers(std::string_view a, std::string_view b, char type) {
    if (a.empty() || b.empty()) return a.empty() && b.empty();
    return type == 'f' ? bits_of_float(a) == bits_of_float(b) : integer_of(a) == integer_of(b);
}

bool same_arrays(std::string_view a, std::string_view b) {
    std::vector<std::string_view> const a_parts = split(a, ',');
    std::vector<std::string_view> const b_parts = split(b, ',');
    if (a_parts.size() != b_parts.size() || a_parts[0] != b_parts[0]) return false;
    for (std::size_t i = 1; i < a_parts.size(); ++i) {
        if (!same_numbers(a_parts[i], b_parts[i], a_parts[0].at(0))) return false;
    }
    return true;
}

bool same_fields(std::string_view a, std::string_view b) {
    if (a.substr(0, 5) != b.substr(0, 5)) return false;
    char const type = a.at(3);
    if (type == 'i' || type == 'f') return same_numbers(a.substr(5), b.substr(5), type);
    return type == 'B' ? same_arrays(a.substr(5), b.substr(5)) : a == b;
}

}  // namespace

std::string sam_line_of_record(std::string_view record, std::vector<Reference> const& references) {
    return line_of_record(record, references, FloatText::FIXED);
}

std::string exact_sam_line_of_record(std::string_view record,
                                     std::vector<Reference> const& references) {
    std::string line = line_of_record(record, references, FloatText::EXACT);
    std::vector<std::string_view> columns = split(line, '\t');
    std::string_view const long_cigar = field_of_line(columns, "CG:B:I,");
    std::string_view const cigar = columns.at(5);
    std::string const soft_clip = std::to_string(columns.at(9).size()) + 'S';
    bool const is_placeholder =
        cigar.substr(0, soft_clip.size()) == soft_clip && cigar.back() == 'N' &&
        cigar.find_first_not_of("0123456789", soft_clip.size()) == cigar.size() - 1;
    if (long_cigar.empty() || !is_placeholder) return line;
    std::string const operations = cigar_of_array(long_cigar.substr(7));
    columns[5] = operations;
    std::vector<std::string_view> kept;
    for (std::string_view const column : columns) {
        if (column.data() != long_cigar.data()) kept.push_back(column);
    }
    return joined(kept);
}

std::string with_wide_integers(std::string_view record) {
    Reader reader(record);
    FixedFields const f = read_fixed_fields(reader);
    auto const l_seq = static_cast<std::size_t>(f.l_seq);
    reader.take(f.l_read_name + std::size_t{4} * f.n_cigar_op + (l_seq + 1) / 2 + l_seq);
    std::string body(record.substr(4, record.size() - reader.size() - 4));
    while (!reader.at_end()) {
        std::string_view const field = record.substr(record.size() - reader.size());
        Reader ahead = reader;
        optional_field_text(reader, FloatText::EXACT);
        ahead.take(2);
        auto const type = ahead.get<char>();
        if (type == 's') {
            auto const value = std::int32_t{ahead.get<std::int16_t>()};
            body += bam_aux(field.substr(0, 2), 'i', le_bytes(value));
        } else if (type == 'S') {
            auto const value = std::uint32_t{ahead.get<std::uint16_t>()};
            body += bam_aux(field.substr(0, 2), 'I', le_bytes(value));
        } else {
            body += field.substr(0, field.size() - reader.size());
        }
    }
    return le_bytes(static_cast<std::uint32_t>(body.size())) + body;
}

Extent extent_of_record(std::string_view record) {
    Reader reader(record);
    FixedFields const f = read_fixed_fields(reader);
    reader.take(f.l_read_name);
    auto const n_bases = static_cast<std::int64_t>(reference_bases(reader, f.n_cigar_op));
    return {f.refID, f.pos, f.pos + (n_bases == 0 ? 1 : n_bases)};
}

std::string difference_of_sam_lines(std::string_view got, std::string_view expected) {
    if (got == expected) return {};
    std::vector<std::string_view> const a = split(got, '\t');
    std::vector<std::string_view> const b = split(expected, '\t');
    if (a.size() != b.size()) {
        return std::to_string(a.size()) + " columns instead of " + std::to_string(b.size());
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i] == b[i] || (i >= N_COLUMNS && same_fields(a[i], b[i]))) continue;
        return "column " + std::to_string(i + 1) + ": " + std::string(a[i]) + " instead of " +
               std::string(b[i]);
    }
    return {};
}

std::string sam_line_through_bam(std::string_view line, std::vector<Reference> const& references) {
    std::vector<std::string_view> const parts = split(line, '\t');
    std::vector<std::string> columns(parts.begin(), parts.end());
    std::string& rname = columns.at(2);
    std::string& rnext = columns.at(6);
    std::string const& seq = columns.at(9);
    std::string& qual = columns.at(10);
    if (rnext == "=") rnext = rname;
    if (!knows(references, rname)) rname = "*";
    if (!knows(references, rnext)) rnext = "*";
    if (rnext != "*" && rnext == rname) rnext = "=";
    if (seq == "*" || qual == "*\r") qual = "*";
    if (qual != "*") qual.resize(seq.size(), '!');

    std::string text;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (i > 0) text += '\t';
        text += i < 11 ? columns[i] : field_through_bam(columns[i]);
    }
    return text;
}

}  // namespace tesk::test
