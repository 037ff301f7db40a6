#include "interop/record_codec.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <array>
#include <cfloat>
#include <charconv>
#include <clocale>  // with POSIX's newlocale()
#include <cmath>
#include <cstdlib>  // with glibc's strtof_l()
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <utility>

namespace tesk::interop {

using util::bam::BAMFileHandler;

// ===========================================================================
// 1. Tables and rules that both directions share
//
// An encoded record: block_size (4 bytes), 32 bytes of fixed fields, the name
// with its NUL, the CIGAR's operations, bases two to a byte, qualities, optional
// fields.
// ===========================================================================

namespace {

constexpr std::size_t BLOCK_SIZE_BYTES = 4;
constexpr std::size_t FIXED_BYTES = 32;  // behind block_size, before the name
constexpr std::size_t MAX_NAME_LENGTH = 254;

constexpr std::string_view COLUMNS[] = {"QNAME", "FLAG",  "RNAME", "POS", "MAPQ", "CIGAR",
                                        "RNEXT", "PNEXT", "TLEN",  "SEQ", "QUAL"};
constexpr std::size_t N_COLUMNS = std::size(COLUMNS);

template <typename T>
T load(char const* bytes) {
    T value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
}

template <typename T>
char* store(char* at, T value) {
    std::memcpy(at, &value, sizeof value);
    return at + sizeof value;
}

// --- Names and other characters ----------------------------------------------

constexpr bool is_graphic(char c) { return c > ' ' && c < '\x7F'; }

constexpr bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

constexpr bool is_digit(char c) { return c >= '0' && c <= '9'; }

constexpr bool is_hex_digit(char c) {
    return is_digit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

// A byte as messages name it.
std::string quoted(char c) {
    constexpr char DIGITS[] = "0123456789ABCDEF";
    if (is_graphic(c) || c == ' ') return std::string("'") + c + "'";
    auto const byte = static_cast<unsigned char>(c);
    return std::string("byte 0x") + DIGITS[byte >> 4U] + DIGITS[byte & 15U];
}

// Empty, or what is wrong with a QNAME.
std::string name_fault(std::string_view name) {
    if (name.empty()) return "is empty";
    if (name.size() > MAX_NAME_LENGTH) {
        return "has " + std::to_string(name.size()) + " characters, at most 254 are possible";
    }
    if (name[0] == '@') return "begins with '@', as header lines do";
    // Bytes above 0x7F may pass. No early end: the loop runs in vector width.
    auto const is_bad = [](char c) {
        auto const byte = static_cast<unsigned char>(c);
        return byte <= ' ' || byte == 0x7F;
    };
    std::uint8_t n_bad = 0;
    for (char const c : name) {
        auto const byte = static_cast<unsigned char>(c);
        n_bad |= static_cast<std::uint8_t>(byte <= ' ') | static_cast<std::uint8_t>(byte == 0x7F);
    }
    if (n_bad == 0) return "";
    auto const at = std::find_if(name.begin(), name.end(), is_bad);
    return "holds " + quoted(*at);
}

bool is_tag(char const* tag) {
    return is_letter(tag[0]) && (is_letter(tag[1]) || is_digit(tag[1]));
}

// --- CIGAR -------------------------------------------------------------------

constexpr std::string_view OPERATIONS = CIGAR_OPERATIONS;
constexpr std::uint32_t OP_BITS = CIGAR_OP_BITS;
constexpr std::uint32_t OP_MASK = CIGAR_OP_MASK;
constexpr std::uint32_t MAX_OP_LENGTH = (1U << 28U) - 1;
constexpr std::size_t MAX_OPERATIONS = 65535;  // that a record holds outside a CG field
constexpr std::uint32_t CODE_N = 3;
constexpr std::uint32_t CODE_S = 4;
constexpr std::uint32_t COVERS_READ = 0b110010011;  // by code, bit 0 for M: M I S = X
constexpr std::uint8_t NO_OPERATION = 0xFF;

constexpr std::array<std::uint8_t, 256> make_operation_codes() {
    std::array<std::uint8_t, 256> codes{};
    for (std::uint8_t& code : codes) code = NO_OPERATION;
    for (std::size_t i = 0; i < OPERATIONS.size(); ++i) {
        codes[static_cast<unsigned char>(OPERATIONS[i])] = static_cast<std::uint8_t>(i);
    }
    return codes;
}
constexpr std::array<std::uint8_t, 256> OPERATION_CODES = make_operation_codes();

// How many bases a CIGAR covers; 64 bits hold any number of operations.
struct CigarSpan {
    std::uint64_t read = 0;
    std::uint64_t reference = 0;

    void add(std::uint32_t op) {
        std::uint32_t const code = op & OP_MASK;
        std::uint64_t const length = op >> OP_BITS;
        read += (COVERS_READ >> code & 1U) * length;
        reference += (CIGAR_COVERS_REFERENCE >> code & 1U) * length;
    }
};

// --- Bases -------------------------------------------------------------------

constexpr std::string_view BASES = SEQ_BASES;

// Entries of BASE_CODES: a code in the low four bits, and
constexpr std::uint8_t LOWER_CASE = 0x10;
constexpr std::uint8_t DOT = 0x20;
constexpr std::uint8_t URACIL = 0x40;
constexpr std::uint8_t NO_BASE = 0x80;

constexpr std::array<std::uint8_t, 256> make_base_codes() {
    std::array<std::uint8_t, 256> codes{};
    for (std::uint8_t& code : codes) code = NO_BASE;
    for (std::size_t i = 0; i < BASES.size(); ++i) {
        auto const code = static_cast<std::uint8_t>(i);
        auto const letter = static_cast<unsigned char>(BASES[i]);
        codes[letter] = code;
        if (letter != '=') codes[letter + 0x20U] = code | LOWER_CASE;
    }
    codes['.'] = codes['N'] | DOT;
    codes['U'] = codes['T'] | URACIL;
    codes['u'] = codes['T'] | URACIL | LOWER_CASE;
    return codes;
}
constexpr std::array<std::uint8_t, 256> BASE_CODES = make_base_codes();

struct TwoBases {
    char letters[2];
};

constexpr std::array<TwoBases, 256> make_base_pairs() {
    std::array<TwoBases, 256> pairs{};
    for (std::size_t i = 0; i < pairs.size(); ++i) {
        pairs[i] = {{BASES[i >> 4U], BASES[i & 15U]}};
    }
    return pairs;
}
constexpr std::array<TwoBases, 256> BASE_PAIRS = make_base_pairs();

// --- Qualities ---------------------------------------------------------------

constexpr char QUALITY_OFFSET = 33;
constexpr std::uint8_t MAX_QUALITY = 93;  // '~'

std::uint8_t greatest_of(char const* qualities, std::size_t n) {
    std::uint8_t greatest = 0;
    for (std::size_t i = 0; i < n; ++i) {
        greatest = std::max(greatest, static_cast<std::uint8_t>(qualities[i]));
    }
    return greatest;
}

// --- Optional fields ---------------------------------------------------------

// Integer types, of fields and of array elements.
struct IntegerType {
    std::size_t width_bytes;  // 0 for a letter that names none
    std::int64_t least;
    std::int64_t most;
};

constexpr IntegerType integer_type(char letter) {
    switch (letter) {
        case 'c': return {1, INT8_MIN, INT8_MAX};
        case 'C': return {1, 0, UINT8_MAX};
        case 's': return {2, INT16_MIN, INT16_MAX};
        case 'S': return {2, 0, UINT16_MAX};
        case 'i': return {4, INT32_MIN, INT32_MAX};
        case 'I': return {4, 0, UINT32_MAX};
        default: return {0, 0, 0};
    }
}

constexpr bool is_integer_type(char letter) { return integer_type(letter).width_bytes != 0; }

// Bytes of an array element; 0 where a letter names no element type.
constexpr std::size_t element_width(char letter) {
    return letter == 'f' ? sizeof(float) : integer_type(letter).width_bytes;
}

// A value of an integer type, from its bytes.
std::int64_t load_integer(char const* bytes, char letter) {
    switch (letter) {
        case 'c': return load<std::int8_t>(bytes);
        case 'C': return load<std::uint8_t>(bytes);
        case 's': return load<std::int16_t>(bytes);
        case 'S': return load<std::uint16_t>(bytes);
        case 'i': return load<std::int32_t>(bytes);
        default: return load<std::uint32_t>(bytes);
    }
}

constexpr std::string_view CG_FIELD = "CGBI";  // tag, type and element type
constexpr std::string_view CG_TAG = CG_FIELD.substr(0, 2);

// The first byte that a text field cannot hold, or the end. NUL, tab and line ends
// are among the lowest characters.
char const* find_text_end(char const* at, char const* end) {
    while (at != end && static_cast<unsigned char>(*at) > '\r') ++at;
    while (at != end && *at != '\0' && *at != '\t' && *at != '\n' && *at != '\r') ++at;
    return at;
}

// Empty, or what is wrong with the digits of an H field.
std::string hex_fault(std::string_view digits) {
    if (digits.size() % 2 != 0) return "has an odd number of hex digits";
    if (std::all_of(digits.begin(), digits.end(), is_hex_digit)) return "";
    return "holds something else than hex digits";
}

// Where in a field a blank parts it from another one, or its length. Only types
// whose values hold no blanks show that.
std::size_t blank_for_tab(std::string_view field) {
    constexpr std::size_t PREFIX = 5;  // TG:T:
    bool const may_hold_blanks = field.size() <= PREFIX || field[3] == 'Z' || field[3] == 'A';
    std::size_t const blank = may_hold_blanks ? std::string_view::npos : field.find(' ', PREFIX);
    if (blank == std::string_view::npos) return field.size();
    std::string_view const next = field.substr(blank + 1);
    bool const is_field =
        next.size() >= PREFIX && is_tag(next.data()) && next[2] == ':' && next[4] == ':';
    return is_field ? blank : field.size();
}

// --- Numbers -----------------------------------------------------------------

// An integer that may have a sign, as a whole.
std::optional<std::int64_t> whole_number(std::string_view text) {
    constexpr std::size_t MAX_DIGITS = 18;  // more overflow, unless they are zeros
    bool const negative = !text.empty() && text[0] == '-';
    std::string_view digits = text;
    if (!digits.empty() && (digits[0] == '-' || digits[0] == '+')) digits.remove_prefix(1);
    if (digits.empty()) return std::nullopt;
    while (digits.size() > MAX_DIGITS && digits[0] == '0') digits.remove_prefix(1);
    std::int64_t value = 0;
    bool too_large = false;
    for (std::size_t i = 0; i < digits.size(); ++i) {
        if (!is_digit(digits[i])) return std::nullopt;
        too_large = too_large || i >= MAX_DIGITS;
        if (!too_large) value = value * 10 + (digits[i] - '0');
    }
    // Beyond every range that is asked for.
    if (too_large) value = std::numeric_limits<std::int64_t>::max();
    return negative ? -value : value;
}

std::string range_text(std::int64_t least, std::int64_t most) {
    return std::to_string(least) + " to " + std::to_string(most);
}

// Of a number that no float is close to: 0, a subnormal float or infinity. The
// locale of the process may have a comma for the point.
float nearest_float(std::string const& number) {
    static locale_t const plain = newlocale(LC_ALL_MASK, "C", nullptr);
    return strtof_l(number.c_str(), nullptr, plain);
}

// Numbers closer to 0 than any normal float are stored as well as they can be.
bool is_subnormal(float value) { return value != 0 && std::fabs(value) < FLT_MIN; }

}  // namespace

RecordCodec::RecordCodec(Header const& header, Report& report) : header_(header), report_(report) {}

void RecordCodec::note(Repair repair) { repairs_.push_back(repair); }

void RecordCodec::note(Warning warning) { warnings_.push_back(warning); }

void RecordCodec::accept(Place place) {
    for (Repair const repair : repairs_) report_.add(repair, place);
    for (Warning const warning : warnings_) report_.add(warning, place);
    repairs_.clear();
    warnings_.clear();
}

bool RecordCodec::refuse(std::string column, std::string reason) {
    fault_ = {std::move(column), std::move(reason)};
    repairs_.clear();
    warnings_.clear();
    return false;
}

std::int32_t RecordCodec::find_reference(std::string_view name) {
    if (name != last_name_) {
        last_refID_ = header_.find(name);
        last_name_ = name;
    }
    return last_refID_;
}

std::uint16_t RecordCodec::bin_of(std::int32_t pos, std::int64_t n_reference_bases) {
    constexpr std::int64_t MAX_END = INT32_MAX;
    std::int64_t const end = end_on_reference(pos, n_reference_bases);
    return bins_.reg_to_bin(pos, static_cast<std::int32_t>(std::min(end, MAX_END)));
}

void RecordCodec::check_reference_end(std::int32_t refID, std::int32_t pos,
                                      std::int64_t n_reference_bases) {
    if (refID < 0 || pos < 0) return;
    std::int64_t const end = end_on_reference(pos, n_reference_bases);
    std::int32_t const length = header_.references()[static_cast<std::size_t>(refID)].length;
    if (end > length) note(Warning::BEYOND_REFERENCE_END);
}

// ===========================================================================
// 2. From a file's record to a valid one
// ===========================================================================

namespace {

// Appends an s or S field as the i or I field that holds the same number.
char* store_widened(char* at, OptionalField const& field) {
    *at++ = field.tag[0];
    *at++ = field.tag[1];
    if (field.type == 's') {
        *at++ = 'i';
        return store(at, std::int32_t{load<std::int16_t>(field.value)});
    }
    *at++ = 'I';
    return store(at, std::uint32_t{load<std::uint16_t>(field.value)});
}

// The field at a place of valid optional fields.
OptionalField field_at(char const* at) {
    OptionalField field = {at, at[2], at + 3, at + 3};
    switch (field.type) {
        case 'A':
        case 'c':
        case 'C': field.end += 1; break;
        case 's':
        case 'S': field.end += 2; break;
        case 'i':
        case 'I':
        case 'f': field.end += 4; break;
        case 'B':
            field.end += 5 + load<std::uint32_t>(field.value + 1) * element_width(field.value[0]);
            break;
        default: field.end += std::strlen(field.value) + 1; break;
    }
    return field;
}

std::string_view tag_of(OptionalField const& field) { return {field.tag, 2}; }

bool is_long_cigar_field(OptionalField const& field) {
    return std::memcmp(field.tag, CG_FIELD.data(), CG_FIELD.size()) == 0;
}

// Whether a CIGAR stands for one in a CG field.
bool is_placeholder(RecordView record) {
    if (record.n_cigar_op() != 2) return false;
    auto const first = load<std::uint32_t>(record.cigar());
    auto const second = load<std::uint32_t>(record.cigar() + sizeof first);
    return (first & OP_MASK) == CODE_S && (second & OP_MASK) == CODE_N &&
           first >> OP_BITS == static_cast<std::uint32_t>(record.l_seq());
}

CigarOperations find_operations(RecordView record) {
    if (is_placeholder(record)) {
        for (char const* at = record.aux(); at != record.end();) {
            OptionalField const field = field_at(at);
            if (is_long_cigar_field(field)) {
                return {field.value + 5, load<std::uint32_t>(field.value + 1), true};
            }
            at = field.end;
        }
    }
    return {record.cigar(), record.n_cigar_op(), false};
}

}  // namespace

// The codec itself calls the functions behind these, which compilers inline.
OptionalField optional_field_at(char const* at) { return field_at(at); }

CigarOperations operations_of(RecordView record) { return find_operations(record); }

class RecordCodec::RecordChecker {
public:
    RecordChecker(RecordCodec& codec, std::string_view body)
        : codec_(codec), body_(body), record_(RecordView::of_body(body.data())) {}

    bool run() {
        return check_sizes() && check_name() && check_places() && check_fields() && check_cigar() &&
               check_qualities();
    }

    // Number of optional fields to be widened.
    std::size_t n_short() const { return n_short_; }
    std::int64_t n_reference_bases() const { return static_cast<std::int64_t>(span_.reference); }

    // Appends the record; `out` has the room.
    char* write(char* out) const;

private:
    bool check_sizes();
    bool check_name();
    bool check_places();
    bool check_reference(std::size_t column, std::int32_t refID);
    bool check_position(std::size_t column, std::int32_t pos);
    bool check_fields();
    bool check_field(char const* at, char const*& end);
    bool check_text(std::string_view tag, char type, char const* value, char const*& end);
    bool check_array(std::string_view tag, char const* value, char const*& end);
    bool check_cigar();
    bool check_operations(char const* ops, std::size_t n, CigarSpan& span);
    bool check_qualities();

    bool refuse(std::string_view column, std::string reason) {
        return codec_.refuse(std::string(column), std::move(reason));
    }
    char const* body_end() const { return body_.data() + body_.size(); }
    char const* aux() const { return body_.data() + aux_offset_; }

    RecordCodec& codec_;
    std::string_view body_;
    RecordView record_;
    std::size_t aux_offset_ = 0;
    std::size_t n_short_ = 0;
    bool drops_qualities_ = false;
    CigarSpan span_;
    char const* long_ops_ = nullptr;  // of the CG field
    std::size_t n_long_ops_ = 0;
};

bool RecordCodec::RecordChecker::check_sizes() {
    if (body_.size() < FIXED_BYTES) {
        return refuse("", "the record is shorter than its fixed fields");
    }
    if (body_.size() > MAX_RECORD_BYTES - BLOCK_SIZE_BYTES) {
        return refuse("", "the record is too long");
    }
    if (record_.l_seq() < 0) {
        return refuse("SEQ", "has the length " + std::to_string(record_.l_seq()));
    }
    auto const l_seq = static_cast<std::size_t>(record_.l_seq());
    aux_offset_ = FIXED_BYTES + record_.l_read_name() + 4 * std::size_t{record_.n_cigar_op()} +
                  (l_seq + 1) / 2 + l_seq;
    if (aux_offset_ <= body_.size()) return true;
    return refuse("", "the record ends inside name, CIGAR, SEQ or QUAL");
}

bool RecordCodec::RecordChecker::check_name() {
    std::size_t const l_read_name = record_.l_read_name();
    std::string_view const bytes = body_.substr(FIXED_BYTES, l_read_name);
    if (bytes.empty() || bytes.back() != '\0') return refuse("QNAME", "does not end in a NUL byte");
    std::string fault = name_fault(bytes.substr(0, bytes.size() - 1));
    return fault.empty() || refuse("QNAME", std::move(fault));
}

bool RecordCodec::RecordChecker::check_reference(std::size_t column, std::int32_t refID) {
    auto const n = static_cast<std::int64_t>(codec_.header_.references().size());
    if (refID >= -1 && refID < n) return true;
    return refuse(COLUMNS[column], "reference number " + std::to_string(refID) + " of a list of " +
                                       std::to_string(n));
}

bool RecordCodec::RecordChecker::check_position(std::size_t column, std::int32_t pos) {
    if (pos >= -1 && pos < INT32_MAX) return true;
    return refuse(COLUMNS[column], std::to_string(std::int64_t{pos} + 1) +
                                       " is not in the range of " + range_text(0, INT32_MAX));
}

bool RecordCodec::RecordChecker::check_places() {
    enum { RNAME = 2, POS = 3, RNEXT = 6, PNEXT = 7, TLEN = 8 };
    if (!check_reference(RNAME, record_.refID()) || !check_position(POS, record_.pos()) ||
        !check_reference(RNEXT, record_.next_refID()) ||
        !check_position(PNEXT, record_.next_pos())) {
        return false;
    }
    if (record_.tlen() != INT32_MIN) return true;
    return refuse(COLUMNS[TLEN], std::to_string(INT32_MIN) + " is not in the range of " +
                                     range_text(-INT32_MAX, INT32_MAX));
}

bool RecordCodec::RecordChecker::check_fields() {
    for (char const* at = aux(); at != body_end();) {
        char const* end = at;
        if (!check_field(at, end)) return false;
        at = end;
    }
    return true;
}

bool RecordCodec::RecordChecker::check_field(char const* at, char const*& end) {
    constexpr std::size_t PREFIX = 3;  // tag and type
    auto const room = static_cast<std::size_t>(body_end() - at);
    if (room < PREFIX) return refuse("", "the record ends inside an optional field");
    if (!is_tag(at)) {
        return refuse("", "an optional field has the tag " + quoted(at[0]) + " " + quoted(at[1]));
    }
    std::string_view const tag(at, 2);
    char const type = at[2];
    char const* const value = at + PREFIX;
    if (type == 'Z' || type == 'H') return check_text(tag, type, value, end);
    if (type == 'B') return check_array(tag, value, end);
    std::size_t const width = type == 'A' ? 1 : element_width(type);
    if (width == 0) return refuse(tag, quoted(type) + " is no type of an optional field");
    if (room - PREFIX < width) return refuse(tag, "the record ends inside it");
    if (type == 'A' && !is_graphic(*value)) {
        return refuse(tag, "type A needs one printable character");
    }
    if (type == 's' || type == 'S') {
        ++n_short_;
        codec_.note(Repair::SHORT_INTEGER);
    }
    end = value + width;
    return true;
}

bool RecordCodec::RecordChecker::check_text(std::string_view tag, char type, char const* value,
                                            char const*& end) {
    char const* const at = find_text_end(value, body_end());
    if (at == body_end()) return refuse(tag, "the record ends inside it");
    if (*at == '\0') {
        end = at + 1;
        if (type != 'H') return true;
        std::string fault = hex_fault({value, static_cast<std::size_t>(at - value)});
        return fault.empty() || refuse(tag, std::move(fault));
    }
    return refuse(tag, "holds a tab or a line break, which SAM cannot hold");
}

bool RecordCodec::RecordChecker::check_array(std::string_view tag, char const* value,
                                             char const*& end) {
    constexpr std::size_t PREFIX = 5;  // element type and count
    auto const room = static_cast<std::size_t>(body_end() - value);
    if (room < PREFIX) return refuse(tag, "the record ends inside it");
    std::size_t const width = element_width(*value);
    if (width == 0) {
        return refuse(tag, "the type of its elements is none of c, C, s, S, i, I and f");
    }
    std::size_t const count = load<std::uint32_t>(value + 1);
    if (count > (room - PREFIX) / width) return refuse(tag, "the record ends inside it");
    if (*value == 'f' && count != 0) codec_.note(Repair::FLOAT_ARRAY);
    if (tag == "CG" && *value == 'I') {
        if (long_ops_ != nullptr && is_placeholder(record_)) return refuse(tag, "is there twice");
        long_ops_ = value + PREFIX;
        n_long_ops_ = count;
    }
    end = value + PREFIX + count * width;
    return true;
}

bool RecordCodec::RecordChecker::check_operations(char const* ops, std::size_t n, CigarSpan& span) {
    for (std::size_t i = 0; i < n; ++i) {
        auto const op = load<std::uint32_t>(ops + i * sizeof(std::uint32_t));
        if ((op & OP_MASK) >= OPERATIONS.size()) {
            return refuse("CIGAR", std::to_string(op & OP_MASK) + " is no operation");
        }
        span.add(op);
    }
    return true;
}

bool RecordCodec::RecordChecker::check_cigar() {
    CigarSpan placeholder;
    std::size_t const n = record_.n_cigar_op();
    if (!check_operations(record_.cigar(), n, span_)) return false;
    if (long_ops_ != nullptr && is_placeholder(record_)) {
        placeholder = std::exchange(span_, {});
        if (!check_operations(long_ops_, n_long_ops_, span_)) return false;
        if (span_.reference != placeholder.reference) {
            return refuse("CIGAR", "covers " + std::to_string(placeholder.reference) +
                                       " bases of the reference, its CG field " +
                                       std::to_string(span_.reference));
        }
    }
    auto const l_seq = static_cast<std::uint64_t>(record_.l_seq());
    if (n == 0 || l_seq == 0 || span_.read == l_seq) return true;
    return refuse("CIGAR", "covers " + std::to_string(span_.read) + " bases, SEQ has " +
                               std::to_string(l_seq));
}

bool RecordCodec::RecordChecker::check_qualities() {
    auto const l_seq = static_cast<std::size_t>(record_.l_seq());
    char const* const qualities = aux() - l_seq;
    if (l_seq == 0) return true;
    if (qualities[0] == NO_QUALITY) {
        drops_qualities_ =
            std::any_of(qualities, qualities + l_seq, [](char q) { return q != NO_QUALITY; });
        if (drops_qualities_) codec_.note(Repair::PARTIAL_QUALITY);
        return true;
    }
    if (greatest_of(qualities, l_seq) <= MAX_QUALITY) return true;
    auto const is_bad = [](char q) { return static_cast<std::uint8_t>(q) > MAX_QUALITY; };
    char const* const at = std::find_if(qualities, qualities + l_seq, is_bad);
    return refuse("QUAL", std::to_string(static_cast<std::uint8_t>(*at)) + " at place " +
                              std::to_string(at - qualities + 1) + " is above 93");
}

char* RecordCodec::RecordChecker::write(char* out) const {
    char* at = out + BLOCK_SIZE_BYTES;
    std::size_t const n_plain = n_short_ == 0 ? body_.size() : aux_offset_;
    std::memcpy(at, body_.data(), n_plain);
    if (drops_qualities_) {
        auto const l_seq = static_cast<std::size_t>(record_.l_seq());
        std::memset(at + aux_offset_ - l_seq, NO_QUALITY, l_seq);
    }
    at += n_plain;
    for (char const* field_begin = body_.data() + n_plain; field_begin != body_end();) {
        OptionalField const field = field_at(field_begin);
        auto const n_bytes = static_cast<std::size_t>(field.end - field_begin);
        if (field.type == 's' || field.type == 'S') {
            at = store_widened(at, field);
        } else {
            std::memcpy(at, field_begin, n_bytes);
            at += n_bytes;
        }
        field_begin = field.end;
    }
    store(out,
          static_cast<std::uint32_t>(at - out - static_cast<std::ptrdiff_t>(BLOCK_SIZE_BYTES)));
    return at;
}

bool RecordCodec::check_record(std::string_view body, std::uint64_t number, ByteBuffer& records) {
    constexpr std::size_t WIDENING_BYTES = 2;
    constexpr std::size_t BIN_OFFSET = 14;
    repairs_.clear();
    warnings_.clear();
    RecordChecker checker(*this, body);
    if (!checker.run()) return false;
    std::size_t const n_bytes = BLOCK_SIZE_BYTES + body.size() + WIDENING_BYTES * checker.n_short();
    if (n_bytes > MAX_RECORD_BYTES) return refuse("", "the record is too long");
    char* const out = records.room_for(n_bytes);
    records.set_end(checker.write(out));
    RecordView const record(out);
    store(out + BIN_OFFSET, bin_of(record.pos(), checker.n_reference_bases()));
    check_reference_end(record.refID(), record.pos(), checker.n_reference_bases());
    accept({Place::Unit::RECORD, number});
    return true;
}

// ===========================================================================
// 3. From a SAM line to a record
// ===========================================================================

// Encodes one line; lives as long as that takes.
class RecordCodec::LineEncoder {
public:
    // `out` has room for the longest record that the line can become.
    LineEncoder(RecordCodec& codec, std::string_view line, char* out, char* text)
        : codec_(codec), rest_(line), line_(line.data()), begin_(out), at_(out), text_(text) {}

    // The end of the record; null where the line was refused.
    char* run();

private:
    bool split_columns();
    bool take_name();
    bool take_numbers();
    bool take_cigar();
    bool parse_cigar(std::string_view text);
    bool check_cigar();
    bool take_bases();
    bool take_qualities();
    bool take_fields();
    bool take_field(std::string_view field);
    bool take_character(std::string_view tag, std::string_view text);
    bool take_text(std::string_view tag, std::string_view text, char letter);
    bool take_integer(std::string_view tag, std::string_view text, char letter, char const* place);
    bool take_float(std::string_view tag, std::string_view text);
    bool take_array(std::string_view tag, std::string_view text);
    bool take_elements(std::string_view tag, std::string_view text, IntegerType const& type);
    bool take_float_elements(std::string_view tag, std::string_view text);
    bool take_long_cigar();
    bool check_long_cigar_field();
    bool parse_number(std::size_t column, std::int64_t least, std::int64_t most,
                      std::int64_t& value);
    bool parse_float(std::string_view tag, std::string_view text, float& value);
    std::int32_t reference_of(std::string_view name);
    void finish();

    bool refuse(std::size_t column, std::string reason) {
        return codec_.refuse(std::string(COLUMNS[column]), std::move(reason));
    }
    bool refuse(std::string_view tag, std::string reason) {
        return codec_.refuse(std::string(tag), std::move(reason));
    }

    enum Column { QNAME, FLAG, RNAME, POS, MAPQ, CIGAR, RNEXT, PNEXT, TLEN, SEQ, QUAL };

    RecordCodec& codec_;
    std::string_view rest_;  // of the line
    char const* line_;
    char* begin_;  // of the record
    char* at_;     // its end so far
    char* text_;   // a copy of the line, to be repaired; may be null
    std::array<std::string_view, N_COLUMNS> columns_;
    std::int64_t flag_ = 0;
    std::int64_t pos_ = 0;  // 1-based, as the line has it
    std::int64_t mapq_ = 0;
    std::int64_t next_pos_ = 0;
    std::int64_t tlen_ = 0;
    std::int32_t refID_ = -1;
    std::int32_t next_refID_ = -1;
    std::size_t l_seq_ = 0;
    std::size_t n_ops_ = 0;
    CigarSpan span_;
    bool unknown_reference_ = false;
    bool has_long_cigar_field_ = false;  // in the line itself
};

char* RecordCodec::LineEncoder::run() {
    bool const done = split_columns() && take_name() && take_numbers() && take_cigar() &&
                      take_bases() && take_qualities() && take_fields() && take_long_cigar();
    if (!done) return nullptr;
    finish();
    return check_long_cigar_field() ? at_ : nullptr;
}

bool RecordCodec::LineEncoder::split_columns() {
    for (std::size_t i = 0; i < N_COLUMNS; ++i) {
        void const* const tab = std::memchr(rest_.data(), '\t', rest_.size());
        if (tab == nullptr) {
            if (i + 1 < N_COLUMNS) {
                return codec_.refuse("", "11 columns are needed, " + std::to_string(i + 1) +
                                             (i == 0 ? " is there" : " are there"));
            }
            columns_[i] = std::exchange(rest_, {});
            return true;
        }
        auto const length = static_cast<std::size_t>(static_cast<char const*>(tab) - rest_.data());
        columns_[i] = rest_.substr(0, length);
        rest_.remove_prefix(length + 1);
    }
    return true;
}

bool RecordCodec::LineEncoder::take_name() {
    std::string_view const name = columns_[QNAME];
    std::string fault = name_fault(name);
    if (!fault.empty()) return refuse(QNAME, std::move(fault));
    at_ += BLOCK_SIZE_BYTES + FIXED_BYTES;  // filled in at the end
    std::memcpy(at_, name.data(), name.size());
    at_ += name.size();
    *at_++ = '\0';
    return true;
}

bool RecordCodec::LineEncoder::parse_number(std::size_t column, std::int64_t least,
                                            std::int64_t most, std::int64_t& value) {
    std::optional<std::int64_t> const number = whole_number(columns_[column]);
    if (!number) return refuse(column, "'" + std::string(columns_[column]) + "' is no integer");
    if (*number < least || *number > most) {
        return refuse(column, std::string(columns_[column]) + " is not in the range of " +
                                  range_text(least, most));
    }
    value = *number;
    return true;
}

std::int32_t RecordCodec::LineEncoder::reference_of(std::string_view name) {
    if (name == "*") return -1;
    std::int32_t const refID = codec_.find_reference(name);
    unknown_reference_ = unknown_reference_ || refID < 0;
    return refID;
}

bool RecordCodec::LineEncoder::take_numbers() {
    constexpr std::int64_t MAX = INT32_MAX;
    bool const valid = parse_number(FLAG, 0, 65535, flag_) && parse_number(POS, 0, MAX, pos_) &&
                       parse_number(MAPQ, 0, 255, mapq_) &&
                       parse_number(PNEXT, 0, MAX, next_pos_) &&
                       parse_number(TLEN, -MAX, MAX, tlen_);
    if (!valid) return false;
    if (columns_[RNAME].empty()) return refuse(RNAME, "is empty");
    if (columns_[RNEXT].empty()) return refuse(RNEXT, "is empty");
    refID_ = reference_of(columns_[RNAME]);
    next_refID_ = columns_[RNEXT] == "=" ? refID_ : reference_of(columns_[RNEXT]);
    if (unknown_reference_) codec_.note(Warning::UNKNOWN_REFERENCE);
    return true;
}

// Operations as the text has them, appended to the record however many they are.
bool RecordCodec::LineEncoder::parse_cigar(std::string_view text) {
    char const* c = text.data();
    char const* const end = c + text.size();
    while (c != end) {
        char const* const digits = c;
        std::uint64_t length = 0;
        for (; c != end && is_digit(*c); ++c) {
            length = std::min<std::uint64_t>(length * 10 + static_cast<std::uint64_t>(*c - '0'),
                                             std::uint64_t{1} << 40U);
        }
        if (c == end) return refuse(CIGAR, "ends in a length without an operation");
        std::uint8_t const code = OPERATION_CODES[static_cast<unsigned char>(*c)];
        if (code == NO_OPERATION) return refuse(CIGAR, quoted(*c) + " is no operation");
        if (c == digits) return refuse(CIGAR, "operation " + quoted(*c) + " has no length");
        if (length > MAX_OP_LENGTH) {
            return refuse(CIGAR, "length " + std::string(digits, c) + " of operation " +
                                     quoted(*c) + " is above 268435455");
        }
        ++c;
        std::uint32_t const op = static_cast<std::uint32_t>(length) << OP_BITS | code;
        span_.add(op);
        at_ = store(at_, op);
        ++n_ops_;
    }
    return true;
}

bool RecordCodec::LineEncoder::check_cigar() {
    l_seq_ = columns_[SEQ] == "*" ? 0 : columns_[SEQ].size();
    if (columns_[SEQ].empty()) return refuse(SEQ, "is empty");
    if (l_seq_ > static_cast<std::size_t>(INT32_MAX)) return refuse(SEQ, "is too long");
    if (n_ops_ != 0 && l_seq_ != 0 && span_.read != l_seq_) {
        return refuse(CIGAR, "covers " + std::to_string(span_.read) + " bases, SEQ has " +
                                 std::to_string(l_seq_));
    }
    return true;
}

bool RecordCodec::LineEncoder::take_cigar() {
    std::string_view const text = columns_[CIGAR];
    if (text.empty()) return refuse(CIGAR, "is empty");
    char* const ops = at_;
    codec_.long_cigar_.clear();
    if (text != "*" && !parse_cigar(text)) return false;
    if (!check_cigar()) return false;
    if (n_ops_ <= MAX_OPERATIONS) return true;

    // They go into a CG field; their placeholder covers the same bases.
    if (l_seq_ > MAX_OP_LENGTH || span_.reference > MAX_OP_LENGTH) {
        return refuse(CIGAR, "has more than 65535 operations and covers more than 268435455 bases");
    }
    codec_.long_cigar_.resize(n_ops_);
    std::memcpy(codec_.long_cigar_.data(), ops, n_ops_ * sizeof(std::uint32_t));
    at_ = store(ops, static_cast<std::uint32_t>(l_seq_) << OP_BITS | CODE_S);
    at_ = store(at_, static_cast<std::uint32_t>(span_.reference) << OP_BITS | CODE_N);
    n_ops_ = 2;
    return true;
}

bool RecordCodec::LineEncoder::take_bases() {
    if (l_seq_ == 0) return true;
    std::string_view const bases = columns_[SEQ];
    char const* const letters = bases.data();
    char* const codes = at_;  // a local: stores to bytes may change any member
    std::size_t const n_pairs = bases.size() / 2;
    unsigned seen = 0;
    auto const code_of = [&seen](char letter) -> unsigned {
        unsigned const code = BASE_CODES[static_cast<unsigned char>(letter)];
        seen |= code;
        return code & 15U;
    };
    for (std::size_t i = 0; i < n_pairs; ++i) {
        unsigned const first = code_of(letters[2 * i]);
        codes[i] = static_cast<char>(first << 4U | code_of(letters[2 * i + 1]));
    }
    if (bases.size() % 2 != 0) codes[n_pairs] = static_cast<char>(code_of(bases.back()) << 4U);
    at_ += (bases.size() + 1) / 2;
    if (seen < LOWER_CASE) return true;

    if ((seen & NO_BASE) != 0) {
        auto const at = std::find_if(bases.begin(), bases.end(), [](char c) {
            return BASE_CODES[static_cast<unsigned char>(c)] == NO_BASE;
        });
        return refuse(SEQ, quoted(*at) + " at place " + std::to_string(at - bases.begin() + 1) +
                               " is no base");
    }
    if ((seen & LOWER_CASE) != 0) codec_.note(Repair::LOWER_CASE_BASE);
    if ((seen & DOT) != 0) codec_.note(Repair::DOT_BASE);
    if ((seen & URACIL) != 0) codec_.note(Repair::URACIL_BASE);
    if (text_ == nullptr) return true;
    char* const copy = text_ + (letters - line_);
    for (std::size_t k = 0; k < l_seq_; ++k) {
        if (copy[k] >= 'a') copy[k] = static_cast<char>(copy[k] - 'a' + 'A');
        if (copy[k] == '.') copy[k] = 'N';
    }
    return true;
}

bool RecordCodec::LineEncoder::take_qualities() {
    std::string_view const text = columns_[QUAL];
    if (text.empty()) return refuse(QUAL, "is empty");
    if (text == "*") {
        std::memset(at_, NO_QUALITY, l_seq_);
        at_ += l_seq_;
        return true;
    }
    if (text.size() != l_seq_) {
        return refuse(QUAL, std::to_string(text.size()) + " qualities for " +
                                std::to_string(l_seq_) + " bases");
    }
    char const* const letters = text.data();
    char* const qualities = at_;  // a local: stores to bytes may change any member
    std::size_t const n = l_seq_;
    for (std::size_t i = 0; i < n; ++i) {
        qualities[i] = static_cast<char>(letters[i] - QUALITY_OFFSET);
    }
    if (greatest_of(qualities, n) > MAX_QUALITY) {
        auto const at = std::find_if(text.begin(), text.end(), [](char c) {
            return static_cast<std::uint8_t>(c - QUALITY_OFFSET) > MAX_QUALITY;
        });
        return refuse(QUAL, quoted(*at) + " at place " + std::to_string(at - text.begin() + 1) +
                                " is no quality");
    }
    at_ += l_seq_;
    return true;
}

// --- Optional fields ---------------------------------------------------------

bool RecordCodec::LineEncoder::take_fields() {
    while (!rest_.empty()) {
        void const* const tab = std::memchr(rest_.data(), '\t', rest_.size());
        std::size_t const length =
            tab == nullptr ? rest_.size()
                           : static_cast<std::size_t>(static_cast<char const*>(tab) - rest_.data());
        std::string_view const field = rest_.substr(0, length);
        std::size_t const blank = blank_for_tab(field);
        if (blank != field.size()) {
            codec_.note(Repair::BLANK_FOR_TAB);
            if (text_ != nullptr) text_[field.data() + blank - line_] = '\t';
        }
        if (!take_field(field.substr(0, blank))) return false;
        rest_.remove_prefix(std::min(blank + 1, rest_.size()));
    }
    return true;
}

bool RecordCodec::LineEncoder::take_field(std::string_view field) {
    constexpr std::size_t PREFIX = 5;  // TG:T:
    if (field.size() < PREFIX || field[2] != ':' || field[4] != ':' || !is_tag(field.data())) {
        constexpr std::size_t SHOWN = 40;
        return codec_.refuse("", "'" + std::string(field.substr(0, SHOWN)) +
                                     "' is no optional field (TAG:TYPE:VALUE)");
    }
    std::string_view const tag = field.substr(0, 2);
    std::string_view const value = field.substr(PREFIX);
    char const letter = field[3];
    *at_++ = tag[0];
    *at_++ = tag[1];
    switch (letter) {
        case 'A': return take_character(tag, value);
        case 'f': return take_float(tag, value);
        case 'H':
        case 'Z': return take_text(tag, value, letter);
        case 'B': return take_array(tag, value);
        default: return take_integer(tag, value, letter, field.data() + 3);
    }
}

bool RecordCodec::LineEncoder::take_character(std::string_view tag, std::string_view text) {
    if (text.size() != 1 || !is_graphic(text[0])) {
        return refuse(tag, "type A needs one printable character");
    }
    *at_++ = 'A';
    *at_++ = text[0];
    return true;
}

bool RecordCodec::LineEncoder::take_text(std::string_view tag, std::string_view text, char letter) {
    if (letter == 'H') {
        std::string fault = hex_fault(text);
        if (!fault.empty()) return refuse(tag, std::move(fault));
    }
    char const* const text_end = text.data() + text.size();
    char const* const at = find_text_end(text.data(), text_end);
    if (at != text_end) return refuse(tag, "holds " + quoted(*at));
    *at_++ = letter;
    std::memcpy(at_, text.data(), text.size());
    at_ += text.size();
    *at_++ = '\0';
    return true;
}

bool RecordCodec::LineEncoder::take_integer(std::string_view tag, std::string_view text,
                                            char letter, char const* place) {
    if (!is_integer_type(letter)) {
        return refuse(tag, quoted(letter) + " is no type of an optional field");
    }
    std::optional<std::int64_t> const value = whole_number(text);
    if (!value) return refuse(tag, "'" + std::string(text) + "' is no integer");
    if (*value < INT32_MIN || *value > UINT32_MAX) {
        return refuse(tag, std::string(text) + " is not in the range of " +
                               range_text(INT32_MIN, UINT32_MAX));
    }
    if (letter != 'i') {
        codec_.note(Repair::INTEGER_TYPE_LETTER);
        if (text_ != nullptr) text_[place - line_] = 'i';
    }
    if (*value > INT32_MAX) {
        codec_.note(Repair::WIDE_INTEGER);
        *at_++ = 'I';
        at_ = store(at_, static_cast<std::uint32_t>(*value));
    } else {
        *at_++ = 'i';
        at_ = store(at_, static_cast<std::int32_t>(*value));
    }
    return true;
}

bool RecordCodec::LineEncoder::parse_float(std::string_view tag, std::string_view text,
                                           float& value) {
    std::string_view number = text;
    if (number.size() > 1 && number[0] == '+' && number[1] != '-') number.remove_prefix(1);
    auto const [end, error] = std::from_chars(number.data(), number.data() + number.size(), value);
    if (error == std::errc::invalid_argument || end != number.data() + number.size()) {
        return refuse(tag, "'" + std::string(text) + "' is no number");
    }
    if (error == std::errc::result_out_of_range) {
        value = nearest_float(std::string(number));
        if (std::isinf(value)) return refuse(tag, std::string(text) + " is too large for a float");
        codec_.note(Repair::FLOAT_UNDERFLOW);
    } else if (is_subnormal(value)) {
        codec_.note(Repair::FLOAT_UNDERFLOW);
    }
    return true;
}

bool RecordCodec::LineEncoder::take_float(std::string_view tag, std::string_view text) {
    float value = 0;
    if (!parse_float(tag, text, value)) return false;
    *at_++ = 'f';
    at_ = store(at_, value);
    return true;
}

bool RecordCodec::LineEncoder::take_array(std::string_view tag, std::string_view text) {
    char const letter = text.empty() ? '\0' : text[0];
    if (element_width(letter) == 0) {
        return refuse(tag, "the type of its elements is none of c, C, s, S, i, I and f");
    }
    text.remove_prefix(1);
    if (!text.empty() && text[0] != ',') return refuse(tag, "a comma must follow the element type");
    has_long_cigar_field_ = has_long_cigar_field_ || (tag == "CG" && letter == 'I');
    *at_++ = 'B';
    *at_++ = letter;
    char* const count = at_;
    at_ += sizeof(std::uint32_t);
    bool const done = letter == 'f' ? take_float_elements(tag, text)
                                    : take_elements(tag, text, integer_type(letter));
    if (!done) return false;
    auto const n_bytes = static_cast<std::size_t>(at_ - count) - sizeof(std::uint32_t);
    store(count, static_cast<std::uint32_t>(n_bytes / element_width(letter)));
    return true;
}

bool RecordCodec::LineEncoder::take_elements(std::string_view tag, std::string_view text,
                                             IntegerType const& type) {
    constexpr std::int64_t TOO_LARGE = std::int64_t{1} << 40U;
    char const* c = text.data();
    char const* const end = c + text.size();
    char* out = at_;  // a local: stores to bytes may change any member
    bool wide = false;
    while (c != end) {  // at a comma
        char const* const element = ++c;
        bool const negative = c != end && *c == '-';
        if (c != end && (*c == '-' || *c == '+')) ++c;
        char const* const digits = c;
        std::int64_t value = 0;
        for (; c != end && is_digit(*c); ++c) {
            value = std::min(value * 10 + (*c - '0'), TOO_LARGE);
        }
        if (negative) value = -value;
        if (c == digits || (c != end && *c != ',')) {
            return refuse(tag,
                          "'" + std::string(element, std::find(c, end, ',')) + "' is no integer");
        }
        if (value < type.least || value > type.most) {
            return refuse(tag, std::string(element, c) + " is not in the range of " +
                                   range_text(type.least, type.most));
        }
        wide = wide || value > INT32_MAX;
        std::memcpy(out, &value, sizeof(std::uint32_t));
        out += type.width_bytes;
    }
    at_ = out;
    if (wide) codec_.note(Repair::WIDE_ARRAY_ELEMENT);
    return true;
}

bool RecordCodec::LineEncoder::take_float_elements(std::string_view tag, std::string_view text) {
    while (!text.empty()) {  // at a comma
        text.remove_prefix(1);
        std::string_view const element = text.substr(0, text.find(','));
        float value = 0;
        if (!parse_float(tag, element, value)) return false;
        at_ = store(at_, value);
        text.remove_prefix(element.size());
    }
    return true;
}

bool RecordCodec::LineEncoder::take_long_cigar() {
    std::vector<std::uint32_t> const& ops = codec_.long_cigar_;
    if (ops.empty()) return true;
    if (has_long_cigar_field_) {
        return refuse("CG", "is there, but the CIGAR has more than 65535 operations and needs it");
    }
    std::memcpy(at_, CG_FIELD.data(), CG_FIELD.size());
    at_ = store(at_ + CG_FIELD.size(), static_cast<std::uint32_t>(ops.size()));
    std::memcpy(at_, ops.data(), ops.size() * sizeof(std::uint32_t));
    at_ += ops.size() * sizeof(std::uint32_t);
    return true;
}

void RecordCodec::LineEncoder::finish() {
    auto const pos = static_cast<std::int32_t>(pos_ - 1);
    auto const n_reference_bases = static_cast<std::int64_t>(span_.reference);
    codec_.check_reference_end(refID_, pos, n_reference_bases);

    char* at = begin_;
    at = store(at, static_cast<std::uint32_t>(at_ - begin_) -
                       static_cast<std::uint32_t>(BLOCK_SIZE_BYTES));
    at = store(at, refID_);
    at = store(at, pos);
    at = store(at, static_cast<std::uint8_t>(columns_[QNAME].size() + 1));  // l_read_name
    at = store(at, static_cast<std::uint8_t>(mapq_));
    at = store(at, codec_.bin_of(pos, n_reference_bases));
    at = store(at, static_cast<std::uint16_t>(n_ops_));
    at = store(at, static_cast<std::uint16_t>(flag_));
    at = store(at, static_cast<std::int32_t>(l_seq_));
    at = store(at, next_refID_);
    at = store(at, static_cast<std::int32_t>(next_pos_ - 1));
    store(at, static_cast<std::int32_t>(tlen_));
}

// A line may hold a placeholder and a CG field as a BAM file does, and then the
// field must be as good as in a BAM file.
bool RecordCodec::LineEncoder::check_long_cigar_field() {
    if (!has_long_cigar_field_) return true;
    std::size_t const n_noted = codec_.repairs_.size();
    char const* const body = begin_ + BLOCK_SIZE_BYTES;
    RecordChecker checker(codec_, {body, static_cast<std::size_t>(at_ - body)});
    if (!checker.run()) return false;
    codec_.repairs_.resize(n_noted);  // what it finds has been noted
    return true;
}

bool RecordCodec::encode_line(std::string_view line, std::uint64_t number, ByteBuffer& records,
                              ByteBuffer* text) {
    // The longest record for its line is made of array elements or operations:
    // four bytes for two characters.
    constexpr std::size_t FIXED_ROOM = 256;
    repairs_.clear();
    warnings_.clear();
    if (line.empty()) line = "";  // not null
    if (!line.empty() && line.back() == '\r') {
        note(Repair::CARRIAGE_RETURN);
        line.remove_suffix(1);
    }
    if (!line.empty() && line.back() == '\t') {
        note(Repair::TRAILING_TAB);
        line = line.substr(0, line.find_last_not_of('\t') + 1);
    }
    if (line.size() > MAX_RECORD_BYTES) return refuse("", "the line is too long");

    std::size_t const text_begin = text == nullptr ? 0 : text->size();
    if (text != nullptr) {
        char* const copy = text->room_for(line.size() + 1);
        std::memcpy(copy, line.data(), line.size());
        copy[line.size()] = '\n';
        text->set_end(copy + line.size() + 1);
    }
    char* const out = records.room_for(FIXED_ROOM + 2 * line.size());
    LineEncoder encoder(*this, line, out, text == nullptr ? nullptr : text->data() + text_begin);
    char const* const end = encoder.run();
    bool const fits = end != nullptr && static_cast<std::size_t>(end - out) <= MAX_RECORD_BYTES;
    if (!fits) {
        if (text != nullptr) text->cut(text_begin);
        return end == nullptr ? false : refuse("", "the record is too long for BAM");
    }
    records.set_end(end);
    accept({Place::Unit::LINE, number});
    return true;
}

// ===========================================================================
// 4. From a record to a SAM line, and to a handler
// ===========================================================================

namespace {

// An array element's text, its comma first, at the front of eight bytes.
struct ElementText {
    char text[7];
    std::uint8_t length;
};

constexpr ElementText element_text(int value) {
    ElementText element{};
    std::uint8_t n = 0;
    element.text[n++] = ',';
    if (value < 0) element.text[n++] = '-';
    int const magnitude = value < 0 ? -value : value;
    if (magnitude >= 100) element.text[n++] = static_cast<char>('0' + magnitude / 100);
    if (magnitude >= 10) element.text[n++] = static_cast<char>('0' + magnitude / 10 % 10);
    element.text[n++] = static_cast<char>('0' + magnitude % 10);
    element.length = n;
    return element;
}

// By byte, as c and as C elements.
constexpr std::array<ElementText, 256> make_element_texts(bool is_signed) {
    std::array<ElementText, 256> texts{};
    for (int i = 0; i < 256; ++i) {
        texts[static_cast<std::size_t>(i)] = element_text(is_signed && i > 127 ? i - 256 : i);
    }
    return texts;
}
constexpr std::array<ElementText, 256> SIGNED_ELEMENTS = make_element_texts(true);
constexpr std::array<ElementText, 256> UNSIGNED_ELEMENTS = make_element_texts(false);

#if defined(__x86_64__)
// Unpacks bases 32 at a time, as far as that goes; returns how many bytes of codes it
// took. Needs an instruction beyond the baseline.
__attribute__((target("ssse3"))) std::size_t unpack_many_bases(char const* codes, std::size_t n,
                                                               char* out) {
    __m128i const letters = _mm_loadu_si128(reinterpret_cast<__m128i const*>(BASES.data()));
    __m128i const low_bits = _mm_set1_epi8(15);
    std::size_t i = 0;
    for (; i + sizeof(__m128i) <= n; i += sizeof(__m128i)) {
        __m128i const pairs = _mm_loadu_si128(reinterpret_cast<__m128i const*>(codes + i));
        __m128i const first =
            _mm_shuffle_epi8(letters, _mm_and_si128(_mm_srli_epi16(pairs, 4), low_bits));
        __m128i const second = _mm_shuffle_epi8(letters, _mm_and_si128(pairs, low_bits));
        auto* const to = reinterpret_cast<__m128i*>(out + 2 * i);
        _mm_storeu_si128(to, _mm_unpacklo_epi8(first, second));
        _mm_storeu_si128(to + 1, _mm_unpackhi_epi8(first, second));
    }
    return i;
}
bool can_unpack_many_bases() { return __builtin_cpu_supports("ssse3") != 0; }
#else
std::size_t unpack_many_bases(char const*, std::size_t, char*) { return 0; }
bool can_unpack_many_bases() { return false; }
#endif

// Writes text behind a place that has the room for it.
class LineRenderer {
public:
    explicit LineRenderer(char* at) : at_(at) {}

    char* end() const { return at_; }

    void text(std::string_view text) {
        std::memcpy(at_, text.data(), text.size());
        at_ += text.size();
    }
    void letter(char c) { *at_++ = c; }

    template <typename T>
    void number(T value) {
        constexpr std::size_t MAX_CHARS = 24;
        at_ = std::to_chars(at_, at_ + MAX_CHARS, value).ptr;
    }

    void cigar(CigarOperations const& operations);
    void bases(RecordView record);
    void qualities(RecordView record);
    void field(OptionalField const& field);

private:
    void array(OptionalField const& field);
    void bytes(std::array<ElementText, 256> const& texts, char const* elements, std::size_t n);

    char* at_;
};

void LineRenderer::cigar(CigarOperations const& operations) {
    if (operations.n == 0) letter('*');
    for (std::size_t i = 0; i < operations.n; ++i) {
        auto const op = load<std::uint32_t>(operations.begin + i * sizeof(std::uint32_t));
        number(op >> OP_BITS);
        letter(OPERATIONS[op & OP_MASK]);
    }
}

void LineRenderer::bases(RecordView record) {
    auto const l_seq = static_cast<std::size_t>(record.l_seq());
    if (l_seq == 0) return letter('*');
    char const* const codes = record.seq();
    std::size_t const n = (l_seq + 1) / 2;
    char* const at = at_;
    std::size_t i = can_unpack_many_bases() ? unpack_many_bases(codes, n, at) : 0;
    for (; i < n; ++i) {
        std::memcpy(at + 2 * i, &BASE_PAIRS[static_cast<unsigned char>(codes[i])], 2);
    }
    at_ += l_seq;  // the second one of the last pair may be none
}

void LineRenderer::qualities(RecordView record) {
    auto const l_seq = static_cast<std::size_t>(record.l_seq());
    char const* const scores = record.qual();
    if (l_seq == 0 || scores[0] == NO_QUALITY) return letter('*');
    char* const at = at_;
    for (std::size_t i = 0; i < l_seq; ++i) at[i] = static_cast<char>(scores[i] + QUALITY_OFFSET);
    at_ += l_seq;
}

void LineRenderer::bytes(std::array<ElementText, 256> const& texts, char const* elements,
                         std::size_t n) {
    char* at = at_;
    for (std::size_t i = 0; i < n; ++i) {
        ElementText const& element = texts[static_cast<unsigned char>(elements[i])];
        std::memcpy(at, element.text, sizeof element.text);
        at += element.length;
    }
    at_ = at;
}

void LineRenderer::array(OptionalField const& field) {
    char const type = field.value[0];
    std::size_t const n = load<std::uint32_t>(field.value + 1);
    std::size_t const width = element_width(type);
    char const* element = field.value + 5;
    letter(type);
    if (type == 'c') return bytes(SIGNED_ELEMENTS, element, n);
    if (type == 'C') return bytes(UNSIGNED_ELEMENTS, element, n);
    for (std::size_t i = 0; i < n; ++i, element += width) {
        letter(',');
        if (type == 'f') {
            number(load<float>(element));
        } else {
            number(load_integer(element, type));
        }
    }
}

void LineRenderer::field(OptionalField const& field) {
    letter('\t');
    letter(field.tag[0]);
    letter(field.tag[1]);
    letter(':');
    bool const is_integer = is_integer_type(field.type);
    letter(is_integer ? 'i' : field.type);
    letter(':');
    if (is_integer) return number(load_integer(field.value, field.type));
    switch (field.type) {
        case 'A': return letter(*field.value);
        case 'f': return number(load<float>(field.value));
        case 'B': return array(field);
        default: return text({field.value, static_cast<std::size_t>(field.end - 1 - field.value)});
    }
}

}  // namespace

void RecordCodec::render_line(RecordView record, ByteBuffer& text) {
    // One byte becomes five characters at most, in an array of c elements; pieces
    // are copied a few bytes beyond their ends.
    constexpr std::size_t GROWTH = 5;
    constexpr std::size_t FIXED_ROOM = 256;
    constexpr std::string_view NO_NAME = "*";
    auto const name_of = [&](std::int32_t refID) -> std::string_view {
        if (refID < 0) return NO_NAME;
        return header_.references()[static_cast<std::size_t>(refID)].name;
    };
    std::string_view const rname = name_of(record.refID());
    bool const same = record.next_refID() >= 0 && record.next_refID() == record.refID();
    std::string_view const rnext = same ? "=" : name_of(record.next_refID());
    CigarOperations const operations = find_operations(record);

    LineRenderer line(
        text.room_for(GROWTH * record.size() + rname.size() + rnext.size() + FIXED_ROOM));
    line.text(record.read_name());
    line.letter('\t');
    line.number(record.flag());
    line.letter('\t');
    line.text(rname);
    line.letter('\t');
    line.number(record.pos() + 1);
    line.letter('\t');
    line.number(record.mapq());
    line.letter('\t');
    line.cigar(operations);
    line.letter('\t');
    line.text(rnext);
    line.letter('\t');
    line.number(record.next_pos() + 1);
    line.letter('\t');
    line.number(record.tlen());
    line.letter('\t');
    line.bases(record);
    line.letter('\t');
    line.qualities(record);
    for (char const* at = record.aux(); at != record.end();) {
        OptionalField const field = field_at(at);
        at = field.end;
        if (!operations.in_field || !is_long_cigar_field(field)) line.field(field);
    }
    line.letter('\n');
    text.set_end(line.end());
}

namespace {

// Changes a copy of a record so that the library takes it: an array of floats, which it
// cannot render, becomes one of integers, which have the same width; a field called CG,
// which it may take for the CIGAR of any record that begins with a soft clip, gets another
// tag unless it is that. Returns whether there was something to change.
bool disguise_fields(RecordView record, char* bytes) {
    bool const has_long_cigar = find_operations(record).in_field;
    bool found = false;
    for (char const* at = record.aux(); at != record.end();) {
        OptionalField const field = field_at(at);
        at = field.end;
        if (field.type == 'B' && *field.value == 'f') {
            bytes[field.value - record.bytes()] = 'I';
            found = true;
        }
        if (!has_long_cigar && tag_of(field) == CG_TAG) {
            bytes[field.tag - record.bytes()] = 'c';
            found = true;
        }
    }
    return found;
}

// Gives them back what they are.
void uncover_fields(RecordView record, BAMFileHandler::BamRecord& filled) {
    std::size_t i = 0;
    for (char const* at = record.aux(); at != record.end(); ++i) {
        OptionalField const field = field_at(at);
        at = field.end;
        BAMFileHandler::AuxData& data = filled.aux_data.at(i);
        data.tag = tag_of(field);
        if (field.type != 'B' || *field.value != 'f') continue;
        boost::any_cast<BAMFileHandler::AuxNumericalArray&>(data.value).type = 'f';
    }
}

}  // namespace

bool RecordCodec::hand_over(RecordView record, std::string_view line, BAMFileHandler& handler,
                            std::string& error) {
    copy_.assign(record.bytes(), record.end());
    bool const has_disguise = disguise_fields(record, copy_.data());
    BAMFileHandler::BamBuffer buffer{copy_.data(), copy_.size()};
    try {
        if (!handler.extract_alignment_from_buffer(buffer)) {
            error = handler.error_message;
            return false;
        }
    } catch (std::bad_alloc const&) {
        throw;
    } catch (std::exception const& e) {
        error = e.what();
        return false;
    }
    BAMFileHandler::BamRecord& filled = handler.records.back();
    if (has_disguise) uncover_fields(record, filled);
    filled.sam_line = line;
    return true;
}

}  // namespace tesk::interop
