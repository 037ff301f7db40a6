#include "util/bam/bam_file.h"

#include <algorithm>
#include <array>
#include <cfloat>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <system_error>
#include <utility>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/range/iterator_range.hpp>
#include <gsl/util>

// Vectors of 16 bytes, which every x86-64 has; TESK_BAM_PORTABLE does without. What
// needs SSSE3 asks for it when it runs.
#if defined(__x86_64__) && !defined(TESK_BAM_PORTABLE)
#define TESK_BAM_SSE2
#include <tmmintrin.h>
#endif

#define ZLIB_CONST  // zlib then takes its input through pointers to const
#include <zlib.h>

namespace tesk::util::bam {

// Shared helpers

namespace {

using AuxData = BAMFileHandler::AuxData;
using AuxNumericalArray = BAMFileHandler::AuxNumericalArray;
using BamBuffer = BAMFileHandler::BamBuffer;
using BamRecord = BAMFileHandler::BamRecord;
using ChunkIndex = BAMFileHandler::ChunkIndex;
using FileIndex = BAMFileHandler::FileIndex;
using RefSeq = BAMFileHandler::RefSeq;
using ReferenceIndex = BAMFileHandler::ReferenceIndex;

// A letter's index is its code in a BAM record.
constexpr std::string_view CIGAR_OP_CODES = "MIDNSHP=X";
constexpr std::string_view SEQ_CODES = "=ACMGRSVTWYHKDBN";

// The low bits of a packed CIGAR operation hold its code, the others its length.
constexpr unsigned CIGAR_OP_SHIFT = 4;
constexpr std::uint32_t CIGAR_OP_MASK = 0xF;

// Operations beyond this number do not fit n_cigar_op of a BAM record.
constexpr std::size_t MAX_CIGAR_OPS = 65535;

// Printable qualities begin at '!'; the whole of a missing QUAL is this byte.
constexpr char PHRED_OFFSET = 33;
constexpr char MISSING_QUAL = '\xFF';

// Element types of a B array. Letters outside the table have no width.
struct ElementType {
    char letter;
    std::uint32_t width_bytes;
};
constexpr ElementType ELEMENT_TYPES[] = {
    {'c', 1}, {'C', 1}, {'s', 2}, {'S', 2}, {'i', 4}, {'I', 4}, {'f', 4},
};

// Bytes of one element of a B array, 0 for an unknown element type.
std::uint32_t element_width(char letter) {
    for (ElementType const& type : ELEMENT_TYPES) {
        if (type.letter == letter) return type.width_bytes;
    }
    return 0;
}

// One window of the linear index covers 2^14 = 16,384 bases.
constexpr int WINDOW_SHIFT = 14;

// Sort order fragment of the @HD line that an index asks for.
constexpr std::string_view COORDINATE_ORDER = "\tSO:coordinate";

// Stores why a call failed. Returns false, so that checks read `return fail(...)`.
bool fail(std::string& error, std::string message) {
    error = std::move(message);
    return false;
}

[[noreturn]] void throw_extracting_overrun() {
    throw std::runtime_error("Hit end of BAM buffer while extracting data");
}

// 32-bit arithmetic on values from files wraps, which only unsigned numbers may.
std::int32_t wrapping_add(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

bool begins_with(std::string_view text, std::string_view beginning) {
    return text.substr(0, beginning.size()) == beginning;
}

// White space of the classic locale.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Sets of bytes, found in sixteen bytes at a time.
struct BlanksAndControls {};
struct Digits {};
struct Char {
    char c;
};

#ifdef TESK_BAM_SSE2

// Whether bytes, read without a sign, are at most so much.
__m128i are_at_most(__m128i bytes, char largest) {
    return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(largest)), bytes);
}

__m128i are_in(__m128i bytes, BlanksAndControls) { return are_at_most(bytes, ' '); }
__m128i are_in(__m128i bytes, Digits) {
    return are_at_most(_mm_sub_epi8(bytes, _mm_set1_epi8('0')), 9);
}
__m128i are_in(__m128i bytes, Char letter) {
    return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(letter.c));
}

__m128i load_16(void const* bytes) { return _mm_loadu_si128(static_cast<__m128i const*>(bytes)); }

// Which of sixteen bytes are in a set, as bits, the first byte the lowest.
template <typename Set>
std::uint32_t find_in_16(char const* bytes, Set set) {
    return static_cast<std::uint32_t>(_mm_movemask_epi8(are_in(load_16(bytes), set)));
}

#else

bool is_in(char byte, BlanksAndControls) { return static_cast<unsigned char>(byte) <= ' '; }
bool is_in(char byte, Digits) { return is_digit(byte); }
bool is_in(char byte, Char letter) { return byte == letter.c; }

template <typename Set>
std::uint32_t find_in_16(char const* bytes, Set set) {
    std::uint32_t bits = 0;
    for (unsigned i = 0; i < 16; ++i) bits |= (is_in(bytes[i], set) ? 1U : 0U) << i;
    return bits;
}

#endif

// The same of 64 bytes.
template <typename Set>
std::uint64_t find_in_64(char const* bytes, Set set) {
    std::uint64_t bits = 0;
    for (unsigned i = 0; i < 64; i += 16) {
        bits |= std::uint64_t{find_in_16(bytes + i, set)} << i;
    }
    return bits;
}

// Whether any of 64 bytes is in a set.
template <typename Set>
bool is_any_in_64(char const* bytes, Set set) {
#ifdef TESK_BAM_SSE2
    __m128i const first =
        _mm_or_si128(are_in(load_16(bytes), set), are_in(load_16(bytes + 16), set));
    __m128i const last =
        _mm_or_si128(are_in(load_16(bytes + 32), set), are_in(load_16(bytes + 48), set));
    return _mm_movemask_epi8(_mm_or_si128(first, last)) != 0;
#else
    return find_in_64(bytes, set) != 0;
#endif
}

// Whether the processor has SSSE3, which takes bytes out of a vector in any order.
bool has_vector_shuffles() {
#ifdef TESK_BAM_SSE2
    return __builtin_cpu_supports("ssse3") != 0;
#else
    return false;
#endif
}

// Place of the lowest bit that is set; there is one.
unsigned lowest_bit(std::uint64_t bits) { return static_cast<unsigned>(__builtin_ctzll(bits)); }

// How many characters of a text are in a set.
template <typename Set>
std::size_t count_in(std::string_view text, Set set) {
    std::size_t count = 0;
    while (text.size() >= 16) {
#ifdef TESK_BAM_SSE2
        // Sixteen sums, which take 255 steps without overflow.
        __m128i sums = _mm_setzero_si128();
        std::size_t const n_steps = std::min<std::size_t>(255, text.size() / 16);
        for (std::size_t step = 0; step < n_steps; ++step) {
            sums = _mm_sub_epi8(sums, are_in(load_16(text.data() + 16 * step), set));
        }
        sums = _mm_sad_epu8(sums, _mm_setzero_si128());
        count += static_cast<std::size_t>(_mm_cvtsi128_si64(sums)) +
                 static_cast<std::size_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sums, sums)));
        text.remove_prefix(16 * n_steps);
#else
        for (char const c : text.substr(0, 16)) count += is_in(c, set) ? 1 : 0;
        text.remove_prefix(16);
#endif
    }
    char last[16] = {};
    if (text.empty()) return count;
    std::memcpy(last, text.data(), text.size());
    std::uint32_t bits = find_in_16(last, set) & ((1U << text.size()) - 1);
    for (; bits != 0; bits &= bits - 1) ++count;
    return count;
}

// Copies bytes, a number added to each.
void copy_adding(char const* from, std::size_t n, char addend, char* to) {
    std::size_t i = 0;
#ifdef TESK_BAM_SSE2
    for (; n - i >= 16; i += 16) {
        __m128i const sums = _mm_add_epi8(load_16(from + i), _mm_set1_epi8(addend));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i), sums);
    }
#endif
    for (; i < n; ++i) to[i] = static_cast<char>(from[i] + addend);
}

// A number of one to four digits. Four characters are read in any case.
std::uint32_t short_number(char const* digits, std::size_t n_digits) {
    std::uint32_t word = 0;
    std::memcpy(&word, digits, sizeof word);
    // The last digit into the highest byte; zeros stand before the first one.
    word = (word << (32 - 8 * n_digits)) & 0x0F0F0F0FU;
    std::uint32_t const pairs = ((word * (10U << 8U | 1U)) >> 8U) & 0x00FF00FFU;
    return (pairs * (100U << 16U | 1U)) >> 16U;
}
constexpr std::size_t MAX_SHORT_DIGITS = 4;

// The digits of 0 to 999, and behind them their number.
constexpr auto SHORT_NUMBERS = [] {
    std::array<std::array<char, 4>, 1000> texts{};
    for (std::size_t value = 0; value < texts.size(); ++value) {
        char n_digits = 0;
        for (std::size_t unit = 100; unit != 0; unit /= 10) {
            if (value < unit && unit != 1) continue;
            texts[value][static_cast<std::size_t>(n_digits++)] =
                static_cast<char>('0' + value / unit % 10);
        }
        texts[value].back() = n_digits;
    }
    return texts;
}();

// Room that a number takes while it is written: twenty digits, or a sign and fewer.
constexpr std::size_t NUMBER_ROOM = 20;

// Writes a number to a place of NUMBER_ROOM characters; returns its end.
template <typename Integer>
char* write_integer(char* out, Integer number) {
    using Magnitude = std::conditional_t<(sizeof number > 4), std::uint64_t, std::uint32_t>;
    auto magnitude = static_cast<Magnitude>(+number);
    if constexpr (std::is_signed_v<Integer>) {
        if (number < 0) {
            *out++ = '-';
            magnitude = 0 - magnitude;
        }
    }
    if (magnitude >= SHORT_NUMBERS.size()) {
        return std::to_chars(out, out + NUMBER_ROOM, magnitude).ptr;
    }
    std::array<char, 4> const& text = SHORT_NUMBERS[magnitude];
    std::memcpy(out, text.data(), text.size());
    return out + text.back();
}

// Numbers of a byte that are looked at together, whether all have one digit.
constexpr std::size_t DIGITS_AT_A_TIME = 32;

// Writes DIGITS_AT_A_TIME numbers, each after a comma, and returns their end; null,
// where one has more than one digit. Without branches, so that the compiler makes vector
// code of it.
char* write_single_digits(char* out, char const* numbers) {
    std::array<unsigned char, DIGITS_AT_A_TIME> block;
    std::memcpy(block.data(), numbers, block.size());
    unsigned char largest = 0;
    for (unsigned char const number : block) largest = std::max(largest, number);
    if (largest >= 10) return nullptr;
    std::array<std::uint16_t, DIGITS_AT_A_TIME> pairs;
    for (std::size_t i = 0; i < block.size(); ++i) {
        pairs[i] = static_cast<std::uint16_t>(',' | ('0' + block[i]) << 8);
    }
    std::memcpy(out, pairs.data(), sizeof pairs);
    return out + sizeof pairs;
}

// Characters that grow at their end. Unlike those of a string or vector, they are
// not set to anything before they are written.
class CharBuffer {
public:
    explicit CharBuffer(std::size_t capacity = 0)
        : data_(capacity == 0 ? nullptr : new char[capacity]), capacity_(capacity) {}

    char* data() { return data_.get(); }
    std::size_t size() const { return size_; }
    std::string_view view() const { return {data_.get(), size_}; }

    // Where the next n characters go; end_at() or advance() tells how many of them
    // there are.
    char* room_for(std::size_t n) {
        if (n > capacity_ - size_) grow(n);
        return data_.get() + size_;
    }
    void advance(std::size_t n) { size_ += n; }
    void end_at(char const* end) { size_ = static_cast<std::size_t>(end - data_.get()); }

    void add(char c) {
        *room_for(1) = c;
        ++size_;
    }
    void add(std::string_view text) {
        if (text.empty()) return;
        std::memcpy(room_for(text.size()), text.data(), text.size());
        size_ += text.size();
    }
    void remove_last() { --size_; }
    void clear() { size_ = 0; }

private:
    void grow(std::size_t n) {
        std::size_t const capacity = std::max(size_ + n, 2 * capacity_);
        std::unique_ptr<char[]> larger(new char[capacity]);
        if (size_ != 0) std::memcpy(larger.get(), data_.get(), size_);
        data_ = std::move(larger);
        capacity_ = capacity;
    }

    std::unique_ptr<char[]> data_;
    std::size_t size_ = 0;
    std::size_t capacity_;
};

// Reads words and numbers out of a text with the results of formatted stream
// extraction in the classic locale: a read that fails makes all later ones
// fail, and the end counts as seen once a read has run into it.
class TextCursor {
public:
    explicit TextCursor(std::string_view text)
        : next_(text.data()), end_(text.data() + text.size()) {}

    // The next run of characters that are not white space. Without one the
    // target stays as it is.
    bool read_word(std::string_view& word) {
        if (!skip_space()) return false;
        char const* const begin = next_;
        next_ = find_space(next_);
        saw_end_ = next_ == end_;
        word = std::string_view(begin, static_cast<std::size_t>(next_ - begin));
        return true;
    }

    bool read_word(std::string& word) {
        std::string_view view;
        if (!read_word(view)) return false;
        word = view;
        return true;
    }

    // A decimal number with an optional sign. Without digits the target becomes
    // 0; where it does not fit, the nearest number that does; both are failures.
    // A negative number wraps into an unsigned target.
    template <typename Number>
    bool read_number(Number& number) {
        static_assert(sizeof(Number) <= 4, "a larger one could overflow the sum below");
        if (!skip_space()) return false;
        bool const negative = *next_ == '-';
        if (negative || *next_ == '+') ++next_;

        using Limits = std::numeric_limits<Number>;
        std::uint64_t const largest =
            static_cast<std::uint64_t>(Limits::max()) + (negative && Limits::is_signed ? 1U : 0U);
        char const* const digits = next_;
        std::uint64_t value = 0;
        bool fits = true;
        for (; next_ != end_ && is_digit(*next_); ++next_) {
            value = value * 10 + static_cast<std::uint64_t>(*next_ - '0');
            fits = fits && value <= largest;
            if (!fits) value = largest;
        }
        saw_end_ = next_ == end_;
        failed_ = next_ == digits || !fits;
        if (!fits) {
            number = negative && Limits::is_signed ? Limits::min() : Limits::max();
        } else {
            number = static_cast<Number>(negative ? 0 - value : value);
        }
        return !failed_;
    }

    // Whether the last read ran into the end of the text.
    bool saw_end() const { return saw_end_; }

    // What has not been read.
    std::string_view rest() const { return {next_, static_cast<std::size_t>(end_ - next_)}; }

private:
    // The first white space from a place on, or the end.
    char const* find_space(char const* from) const {
        while (end_ - from >= 64 && !is_any_in_64(from, BlanksAndControls())) from += 64;
        for (; end_ - from >= 16; from += 16) {
            for (std::uint32_t bits = find_in_16(from, BlanksAndControls()); bits != 0;
                 bits &= bits - 1) {
                char const* const found = from + lowest_bit(bits);
                if (is_space(*found)) return found;
            }
        }
        while (from != end_ && !is_space(*from)) ++from;
        return from;
    }

    // Steps to the next word; fails where there is none.
    bool skip_space() {
        if (failed_) return false;
        if (saw_end_) return !(failed_ = true);
        while (next_ != end_ && is_space(*next_)) ++next_;
        saw_end_ = failed_ = next_ == end_;
        return !failed_;
    }

    char const* next_;
    char const* end_;
    bool saw_end_ = false;
    bool failed_ = false;
};

// Opens a file for reading. A directory, which the system would open, is a file
// that cannot be opened.
bool open_for_reading(std::ifstream& in, std::string const& path, std::ios::openmode mode) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) return false;
    in.open(path, mode);
    return in.is_open() && in.good();
}

}  // namespace

// ===========================================================================
// 1. Alignment store
//
// The handler owns all it holds by value. Records refer to references by their
// position in `references`; the parser finds that position by name through a
// hash table over the list, which follows the list as it grows, or through a map
// where names were made to collide.
// ===========================================================================

namespace {

// Lists up to this length are scanned: as fast as hashing.
constexpr std::size_t MAX_SCANNED_REFERENCES = 16;

constexpr std::int32_t FREE_SLOT = -1;

// A table at most half full has no runs of this length, unless the names were made
// to collide.
constexpr std::size_t MAX_PROBES = 512;

// Every char maps to -1, except the letters, which map to their index.
std::map<char, std::int32_t> make_code_map(std::string_view letters) {
    std::map<char, std::int32_t> codes;
    for (int c = CHAR_MIN; c <= CHAR_MAX; ++c) codes[static_cast<char>(c)] = -1;
    for (std::size_t i = 0; i < letters.size(); ++i) {
        codes[letters[i]] = static_cast<std::int32_t>(i);
    }
    return codes;
}

}  // namespace

BAMFileHandler::BAMFileHandler()
    : cigar_op_codes(make_code_map(CIGAR_OP_CODES)), seq_codes(make_code_map(SEQ_CODES)) {
    // Deliberate: RNA reads are stored as DNA.
    seq_codes['U'] = seq_codes['T'];
}

bool BAMFileHandler::reset() {
    header.clear();
    sort_order.clear();
    header_lines.clear();
    references.clear();
    records.clear();
    forget_reference_names();
    has_sort_order = false;
    return true;
}

bool BAMFileHandler::get_header(std::string& out) const {
    out = header;
    return true;
}

bool BAMFileHandler::get_num_alignments(unsigned long& n) const {
    n = records.size();
    return true;
}

bool BAMFileHandler::get_alignment_sam(unsigned long index, std::string& out) const {
    if (index >= records.size()) return fail(error_message, "alignment sam index out of range!");
    out = records[index].sam_line;
    return true;
}

std::int32_t BAMFileHandler::find_reference(std::string_view name) {
    if (references.size() <= MAX_SCANNED_REFERENCES) {
        forget_reference_names();
        auto const found = std::find_if(references.begin(), references.end(),
                                        [&](RefSeq const& ref) { return ref.name == name; });
        return found == references.end() ? -1
                                         : static_cast<std::int32_t>(found - references.begin());
    }
    if (references.size() < n_references_known) forget_reference_names();
    if (references_by_name.empty() && 2 * references.size() > reference_slots.size()) {
        std::size_t n_slots = 4 * MAX_SCANNED_REFERENCES;
        while (n_slots < 4 * references.size()) n_slots *= 2;
        reference_slots.assign(n_slots, FREE_SLOT);
        n_references_known = 0;
    }
    // The first entry of a name is the one that counts.
    for (; n_references_known < references.size(); ++n_references_known) {
        auto const index = static_cast<std::int32_t>(n_references_known);
        std::string const& new_name = references[n_references_known].name;
        std::int32_t* const slot = references_by_name.empty() ? reference_slot(new_name) : nullptr;
        if (slot == nullptr) {
            references_by_name.emplace(new_name, index);
        } else if (*slot == FREE_SLOT) {
            *slot = index;
        }
    }
    std::int32_t* const slot = references_by_name.empty() ? reference_slot(name) : nullptr;
    if (slot != nullptr) return *slot;
    auto const found = references_by_name.find(name);
    return found == references_by_name.end() ? -1 : found->second;
}

std::int32_t* BAMFileHandler::reference_slot(std::string_view name) {
    std::size_t const mask = reference_slots.size() - 1;
    std::size_t const hash = std::hash<std::string_view>{}(name);
    for (std::size_t i = 0; i < MAX_PROBES; ++i) {
        std::int32_t& slot = reference_slots[(hash + i) & mask];
        bool const is_its_own =
            slot == FREE_SLOT || references[static_cast<std::size_t>(slot)].name == name;
        if (is_its_own) return &slot;
    }
    decltype(references_by_name) by_name;  // takes over when it knows them all
    for (std::size_t i = 0; i < n_references_known; ++i) {
        by_name.emplace(references[i].name, static_cast<std::int32_t>(i));
    }
    references_by_name = std::move(by_name);
    return nullptr;
}

void BAMFileHandler::forget_reference_names() {
    reference_slots.clear();
    references_by_name.clear();
    n_references_known = 0;
}

// ===========================================================================
// 2. SAM text codec
//
// SAM line -> record: eleven columns through a TextCursor, optional fields cut
// at tabs; the line itself becomes the record's `sam_line`. Record -> SAM line:
// update_sam_line(), for records that came from BAM. Files are read and written
// in pieces of 1 MiB.
// ===========================================================================

namespace {

constexpr std::size_t FILE_PIECE_BYTES = std::size_t{1} << 20;

// Operations that consume the reference, as bits numbered by operation code.
constexpr unsigned reference_op_bits() {
    unsigned bits = 0;
    for (char const letter : std::string_view("MDN=X")) {
        bits |= 1U << CIGAR_OP_CODES.find(letter);
    }
    return bits;
}
constexpr unsigned REFERENCE_OP_BITS = reference_op_bits();
static_assert(REFERENCE_OP_BITS == 0b1'1000'1101, "M 0, D 2, N 3, = 7, X 8");

bool consumes_reference(std::uint32_t code) {
    return code < CIGAR_OP_CODES.size() && ((REFERENCE_OP_BITS >> code) & 1U) != 0;
}

// Codes that no operation has render as '?'.
char cigar_op_letter(std::uint32_t code) {
    return code < CIGAR_OP_CODES.size() ? CIGAR_OP_CODES[code] : '?';
}

// Number of reference bases that operations cover.
std::uint64_t reference_length(std::vector<std::uint32_t> const& ops) {
    std::uint64_t length = 0;
    for (std::uint32_t const op : ops) {
        if (consumes_reference(op & CIGAR_OP_MASK)) length += op >> CIGAR_OP_SHIFT;
    }
    return length;
}

// Codes of all chars by their unsigned value; -1 for chars that have none.
using CodeTable = std::array<std::int8_t, 256>;

constexpr CodeTable make_code_table(std::string_view letters) {
    CodeTable table{};
    for (std::int8_t& code : table) code = -1;
    for (std::size_t i = 0; i < letters.size(); ++i) {
        table[static_cast<unsigned char>(letters[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

constexpr CodeTable make_seq_table() {
    CodeTable table = make_code_table(SEQ_CODES);
    table['U'] = table['T'];
    return table;
}

constexpr CodeTable SEQ_TABLE = make_seq_table();

// Code of a letter in one of the handler's maps.
std::int32_t code_in(std::map<char, std::int32_t> const& codes, char letter) {
    auto const found = codes.find(letter);
    return found == codes.end() ? -1 : found->second;
}

// Code of a base: from the constant table, which holds what the constructor put
// into the map; a letter unknown to it may have been added to the map.
std::int32_t base_code(char base, std::map<char, std::int32_t> const& codes) {
    std::int8_t const code = SEQ_TABLE[static_cast<unsigned char>(base)];
    return code >= 0 ? code : code_in(codes, base);
}

// Codes of CIGAR letters out of the handler's map, each letter looked up once.
class OpCodes {
public:
    explicit OpCodes(std::map<char, std::int32_t> const& codes) : codes_(codes) {
        valid_.fill(NOT_VALID);
    }

    std::int32_t operator[](char letter) {
        auto const place = static_cast<unsigned char>(letter);
        if (valid_[place] != NOT_VALID) return valid_[place] & CIGAR_OP_MASK;
        std::int32_t const code = code_in(codes_, letter);
        if (code >= 0 && static_cast<std::size_t>(code) < CIGAR_OP_CODES.size()) {
            bool const has_reference = consumes_reference(static_cast<std::uint32_t>(code));
            valid_[place] = static_cast<std::uint8_t>(code | (has_reference ? REFERENCE : 0));
        }
        return code;
    }

    // Of a letter that has been looked up: its code, and REFERENCE where the operation
    // consumes the reference. NOT_VALID for a letter without a code, or one that has
    // not been looked up.
    std::uint8_t valid(char letter) const { return valid_[static_cast<unsigned char>(letter)]; }
    static constexpr std::uint8_t REFERENCE = 0x10;
    static constexpr std::uint8_t NOT_VALID = 0xFF;

private:
    std::map<char, std::int32_t> const& codes_;
    std::array<std::uint8_t, 256> valid_;
};

// Reads the length of a CIGAR operation as strtol reads a number, then takes
// its low 32 bits. Without a number the length is 0 and `next` stays; no number
// follows then anywhere before `blanks_end` either.
std::int32_t read_cigar_length(char const*& next, char const* end, char const*& blanks_end) {
    constexpr std::uint64_t LARGEST = std::numeric_limits<std::int64_t>::max();
    char const* p = next;
    while (p != end && is_space(*p)) ++p;
    blanks_end = p;
    bool const negative = p != end && *p == '-';
    if (p != end && (*p == '-' || *p == '+')) ++p;

    char const* const digits = p;
    std::uint64_t value = 0;
    bool fits = true;
    for (; p != end && is_digit(*p); ++p) {
        auto const digit = static_cast<std::uint64_t>(*p - '0');
        fits = fits && (value < LARGEST / 10 || (value == LARGEST / 10 && digit <= LARGEST % 10));
        if (fits) value = value * 10 + digit;
    }
    if (p == digits) return 0;
    next = p;
    // Saturated to the limits of 64 bits, whose low halves are -1 and 0.
    if (!fits) return negative ? 0 : -1;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(negative ? 0 - value : value));
}

// Upper bound of the operations in a CIGAR text, exact for a well-formed one:
// every operation takes a character that is no digit, or the end of the text.
std::size_t count_cigar_ops(std::string_view text) {
    std::size_t const n_letters = text.size() - count_in(text, Digits());
    return n_letters + (!text.empty() && is_digit(text.back()) ? 1 : 0);
}

#ifdef TESK_BAM_SSE2

// How a vector register takes the first operations of a CIGAR text apart, up to four
// of one to three digits and a letter within twelve characters: by where these have
// letters, as bits. Each operation becomes four bytes: three for digits, zeros before
// the first, and the letter.
constexpr unsigned SHUFFLED_CHARS = 12;
struct CigarShuffle {
    std::uint8_t control[16];  // which character becomes a byte; 128 for a zero
    std::uint8_t n_ops;
    std::uint8_t ops;  // a bit for each
};
struct CigarShuffles {
    // How many characters are taken: by themselves, so that a processor's nearest
    // cache holds them, since where the next operations begin waits for them.
    std::array<std::uint8_t, 1U << SHUFFLED_CHARS> n_chars;
    std::array<CigarShuffle, 1U << SHUFFLED_CHARS> shuffles;
};

constexpr CigarShuffles make_cigar_shuffles() {
    constexpr std::uint8_t ZERO = 128;
    CigarShuffles all{};
    for (unsigned letters = 0; letters < all.shuffles.size(); ++letters) {
        CigarShuffle& shuffle = all.shuffles[letters];
        std::uint8_t& n_chars = all.n_chars[letters];
        for (std::uint8_t& source : shuffle.control) source = ZERO;
        for (std::uint8_t place = 0; place < SHUFFLED_CHARS && shuffle.n_ops < 4; ++place) {
            if ((letters >> place & 1U) == 0) continue;
            int const n_digits = place - n_chars;
            if (n_digits < 1 || n_digits > 3) break;
            for (int i = 0; i <= n_digits; ++i) {
                shuffle.control[4 * shuffle.n_ops + 3 - i] = static_cast<std::uint8_t>(place - i);
            }
            shuffle.ops = static_cast<std::uint8_t>(shuffle.ops | 1U << shuffle.n_ops);
            shuffle.n_ops++;
            n_chars = static_cast<std::uint8_t>(place + 1);
        }
    }
    return all;
}
constexpr CigarShuffles CIGAR_SHUFFLES = make_cigar_shuffles();

// Packs many operations of few digits at a time.
class ManyOpsPacker {
public:
    explicit ManyOpsPacker(OpCodes& codes) {
        for (char const letter : CIGAR_OP_CODES) {
            codes[letter];
            if (codes.valid(letter) == OpCodes::NOT_VALID) continue;
            letters_[place_of(letter)] = letter;
            codes_[place_of(letter)] = static_cast<char>(codes.valid(letter));
        }
    }

    // Packs operations from `next` on, which are written at `out`; adds their bases of
    // the reference to a sum. Stops at an operation of another kind, and before the end
    // of text or room.
    __attribute__((target("ssse3"))) void pack(char const*& next, char const* end,
                                               std::uint32_t*& out, std::uint32_t const* out_end,
                                               std::uint64_t& reference_length) const {
        constexpr unsigned GROUP = 64;
        __m128i const letters_of_codes = load_16(letters_);
        __m128i const codes = load_16(codes_);
        __m128i const low_half = _mm_set1_epi32(0xF);
        __m128i const reference_bit = _mm_set1_epi32(OpCodes::REFERENCE);
        __m128i const weights = _mm_set1_epi32(1 << 16 | 10 << 8 | 100);
        __m128i const ones = _mm_set1_epi16(1);
        bool is_stopped = false;
        while (!is_stopped && end - next >= GROUP) {
            std::uint64_t const letters = ~find_in_64(next, Digits());
            unsigned place = 0;
            __m128i lengths_of_reference = _mm_setzero_si128();
            for (unsigned step = 0; step < GROUP / SHUFFLED_CHARS; ++step) {
                std::size_t const first_letters = letters >> place & ((1U << SHUFFLED_CHARS) - 1);
                CigarShuffle const& shuffle = CIGAR_SHUFFLES.shuffles[first_letters];
                __m128i const ops =
                    _mm_shuffle_epi8(load_16(next + place), load_16(shuffle.control));
                __m128i const digits = _mm_and_si128(ops, _mm_set1_epi32(0x000F0F0F));
                __m128i const lengths = _mm_madd_epi16(_mm_maddubs_epi16(digits, weights), ones);
                __m128i const op_letters = _mm_srli_epi32(ops, 24);
                __m128i const places =
                    _mm_and_si128(_mm_xor_si128(op_letters, _mm_srli_epi32(ops, 25)), low_half);
                __m128i const expected = _mm_shuffle_epi8(letters_of_codes, places);
                int const invalid = ~_mm_movemask_ps(_mm_castsi128_ps(
                    _mm_cmpeq_epi32(_mm_and_si128(expected, _mm_set1_epi32(0xFF)), op_letters)));
                is_stopped =
                    shuffle.n_ops == 0 || (invalid & shuffle.ops) != 0 || out_end - out < 4;
                if (is_stopped) break;
                __m128i const op_codes = _mm_shuffle_epi8(codes, places);
                __m128i const words = _mm_or_si128(_mm_slli_epi32(lengths, CIGAR_OP_SHIFT),
                                                   _mm_and_si128(op_codes, low_half));
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out), words);
                __m128i const has_reference =
                    _mm_cmpeq_epi32(_mm_and_si128(op_codes, reference_bit), reference_bit);
                lengths_of_reference =
                    _mm_add_epi32(lengths_of_reference, _mm_and_si128(lengths, has_reference));
                out += shuffle.n_ops;
                place += CIGAR_SHUFFLES.n_chars[first_letters];
            }
            next += place;
            std::uint32_t sums[4];
            _mm_storeu_si128(reinterpret_cast<__m128i*>(sums), lengths_of_reference);
            reference_length += std::uint64_t{sums[0]} + sums[1] + sums[2] + sums[3];
        }
    }

private:
    // A place of its own for each letter, other than 0, which a NUL has.
    static unsigned place_of(char letter) {
        auto const bits = static_cast<unsigned char>(letter);
        return (bits ^ bits >> 1U) & 0xFU;
    }

    char letters_[16] = {1};  // at place 0, too, no NUL
    char codes_[16] = {};
};

#endif

// Packs CIGAR operations, as many as there is room for at `out`.
class CigarPacker {
public:
    // Of `ops` there are enough.
    CigarPacker(std::string_view text, OpCodes& codes, std::vector<std::uint32_t>& ops)
        : codes_(codes),
          next_(text.data()),
          end_(text.data() + text.size()),
          blanks_end_(text.data()),
          out_(ops.data()),
          out_end_(ops.data() + ops.size()) {}

    // Packs all; false, with the letter at fault, where one has no code.
    bool pack(char& letter) {
#ifdef TESK_BAM_SSE2
        constexpr std::ptrdiff_t LONG_TEXT = 512;
        if (end_ - next_ >= LONG_TEXT && has_vector_shuffles()) {
            ManyOpsPacker const packer(codes_);
            while (end_ - next_ >= LONG_TEXT) {
                packer.pack(next_, end_, out_, out_end_, reference_length_);
                if (!pack_op(letter)) return false;
            }
        }
#endif
        while (next_ < end_) {
            pack_short_ops();
            if (next_ < end_ && !pack_op(letter)) return false;
        }
        return true;
    }

    std::uint32_t const* out() const { return out_; }
    std::uint64_t reference_length() const { return reference_length_; }

private:
    // Packs operations as nearly all are: a number of few digits, and a letter that
    // has a code. Stops at another one, and before the end.
    void pack_short_ops() {
        constexpr std::ptrdiff_t GROUP = 64;
        std::uint32_t* out = out_;
        std::uint64_t length_sum = 0;
        // Of a number at a group's end a few characters behind are read.
        while (end_ - next_ >= GROUP + static_cast<std::ptrdiff_t>(MAX_SHORT_DIGITS)) {
            char const* number = next_;
            std::uint64_t letters = ~find_in_64(next_, Digits());
            for (; letters != 0; letters &= letters - 1) {
                char const* const letter = next_ + lowest_bit(letters);
                auto const n_digits = static_cast<std::size_t>(letter - number);
                std::uint32_t const code = codes_.valid(*letter);
                if (n_digits - 1 >= MAX_SHORT_DIGITS || code == OpCodes::NOT_VALID) break;
                std::uint32_t const length = short_number(number, n_digits);
                *out++ = length << CIGAR_OP_SHIFT | (code & CIGAR_OP_MASK);
                length_sum += length & (0U - (code / OpCodes::REFERENCE));
                number = letter + 1;
            }
            bool const is_stopped = letters != 0 || number == next_;
            next_ = number;
            if (is_stopped) break;
        }
        out_ = out;
        reference_length_ += length_sum;
    }

    // Packs one operation, whatever it is.
    bool pack_op(char& letter) {
        std::int32_t const length =
            next_ < blanks_end_ ? 0 : read_cigar_length(next_, end_, blanks_end_);
        letter = next_ == end_ ? '\0' : *next_;
        std::int32_t const code = codes_[letter];
        // Deliberate: compared as signed, so that an unknown letter, code -1,
        // passes and becomes a word of all ones.
        if (code >= static_cast<std::int32_t>(CIGAR_OP_CODES.size())) return false;
        if (consumes_reference(static_cast<std::uint32_t>(code))) {
            reference_length_ += static_cast<std::uint64_t>(std::int64_t{length});
        }
        *out_++ =
            static_cast<std::uint32_t>(length) << CIGAR_OP_SHIFT | static_cast<std::uint32_t>(code);
        if (next_ != end_) ++next_;
        return true;
    }

    OpCodes& codes_;
    char const* next_;
    char const* end_;
    char const* blanks_end_;  // where no number begins before
    std::uint32_t* out_;
    std::uint32_t const* out_end_;
    std::uint64_t reference_length_ = 0;
};

bool pack_cigar(std::string_view text, BamRecord& record, unsigned long& ref_len,
                unsigned long seq_len, std::map<char, std::int32_t> const& op_codes,
                std::string& error) {
    if (text == "*") {
        ref_len = 1;
        return true;
    }
    record.cigar.clear();
    record.cigar.resize(count_cigar_ops(text));
    OpCodes codes(op_codes);
    CigarPacker packer(text, codes, record.cigar);
    char letter = '\0';
    bool const done = packer.pack(letter);
    record.cigar.resize(static_cast<std::size_t>(packer.out() - record.cigar.data()));
    ref_len = packer.reference_length();
    if (!done) return fail(error, std::string("Invalid cigar op detected: '") + letter + "'");
    if (record.cigar.capacity() != record.cigar.size()) record.cigar.shrink_to_fit();
    if (record.cigar.size() <= MAX_CIGAR_OPS) return true;

    AuxNumericalArray all_ops;
    all_ops.type = 'I';
    all_ops.count = static_cast<std::uint32_t>(record.cigar.size());
    all_ops.data.resize(record.cigar.size() * sizeof record.cigar[0]);
    std::memcpy(all_ops.data.data(), record.cigar.data(), all_ops.data.size());
    record.aux_data.push_back({"CG", 'B', std::move(all_ops)});

    std::string const placeholder = std::to_string(seq_len) + "S" + std::to_string(ref_len) + "N";
    unsigned long placeholder_ref_len = 0;
    return pack_cigar(placeholder, record, placeholder_ref_len, 0, op_codes, error);
}

// Packs pairs of bases; false where one is not in the constant table.
bool pack_known_pairs(char const* bases, std::size_t n_pairs, std::uint8_t* packed) {
    int unknown = 0;
    for (std::size_t k = 0; k < n_pairs; ++k) {
        std::int8_t const high = SEQ_TABLE[static_cast<unsigned char>(bases[2 * k])];
        std::int8_t const low = SEQ_TABLE[static_cast<unsigned char>(bases[2 * k + 1])];
        unknown |= high | low;
        packed[k] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return unknown >= 0;
}

constexpr std::size_t PAIRS_AT_A_TIME = 16;

#ifdef TESK_BAM_SSE2

// Packs pairs of bases, of which there are PAIRS_AT_A_TIME at least; the number done
// before one that is not of A, C, G, T and N, or all.
__attribute__((target("ssse3"))) std::size_t pack_common_pairs(char const* bases,
                                                               std::size_t n_pairs,
                                                               std::uint8_t* packed) {
    // Both at the low half of a letter. At place 0, too, there is no NUL.
    alignas(16) static constexpr char LETTERS[16] = {1, 'A', 0, 'C', 'T', 0, 0,   'G',
                                                     0, 0,   0, 0,   0,   0, 'N', 0};
    alignas(16) static constexpr char CODES[16] = {0, 1, 0, 2, 8, 0, 0, 4, 0, 0, 0, 0, 0, 0, 15, 0};
    __m128i const letters = load_16(LETTERS);
    __m128i const codes = load_16(CODES);
    // Of each pair the first base becomes the high half.
    __m128i const weights = _mm_set1_epi16(1 << 8 | 16);
    for (std::size_t done = 0;;) {
        // The last ones may be done twice.
        std::size_t const k = std::min(done, n_pairs - PAIRS_AT_A_TIME);
        __m128i const first = load_16(bases + 2 * k);
        __m128i const second = load_16(bases + 2 * k + 16);
        __m128i const are_common =
            _mm_and_si128(_mm_cmpeq_epi8(_mm_shuffle_epi8(letters, first), first),
                          _mm_cmpeq_epi8(_mm_shuffle_epi8(letters, second), second));
        if (_mm_movemask_epi8(are_common) != 0xFFFF) return done;
        __m128i const pairs =
            _mm_packus_epi16(_mm_maddubs_epi16(_mm_shuffle_epi8(codes, first), weights),
                             _mm_maddubs_epi16(_mm_shuffle_epi8(codes, second), weights));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(packed + k), pairs);
        done = k + PAIRS_AT_A_TIME;
        if (done == n_pairs) return done;
    }
}

#else
std::size_t pack_common_pairs(char const*, std::size_t, std::uint8_t*) { return 0; }
#endif

// Packs pairs of bases; false where one is not in the constant table.
bool pack_pairs(char const* bases, std::size_t n_pairs, std::uint8_t* packed) {
    bool const has_shuffles = has_vector_shuffles();
    std::size_t k = 0;
    while (n_pairs - k >= PAIRS_AT_A_TIME) {
        if (has_shuffles) k += pack_common_pairs(bases + 2 * k, n_pairs - k, packed + k);
        // Those around another one.
        std::size_t const n = std::min(n_pairs - k, PAIRS_AT_A_TIME);
        if (!pack_known_pairs(bases + 2 * k, n, packed + k)) return false;
        k += n;
    }
    return pack_known_pairs(bases + 2 * k, n_pairs - k, packed + k);
}

bool pack_seq(std::string_view text, BamRecord& record, std::map<char, std::int32_t> const& codes,
              std::string& error) {
    if (text == "*") return true;
    if (text.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        throw std::length_error("Sequence of more than 2147483647 bases");
    }
    record.l_seq = static_cast<std::int32_t>(text.size());
    record.seq.resize((text.size() + 1) / 2);
    std::size_t const n_pairs = text.size() / 2;
    bool const done = pack_pairs(text.data(), n_pairs, record.seq.data());
    for (std::size_t k = 0; k < n_pairs && !done; ++k) {
        // An unknown base, -1, is the largest of numbers without a sign.
        auto const high = static_cast<std::uint32_t>(base_code(text[2 * k], codes));
        auto const low = static_cast<std::uint32_t>(base_code(text[2 * k + 1], codes));
        if ((high | low) >= SEQ_CODES.size()) {
            return fail(error, "Invalid sequence code detected");
        }
        record.seq[k] = static_cast<std::uint8_t>(high << 4 | low);
    }
    if (text.size() % 2 != 0) {
        // Deliberate: the last base of an odd number is not checked; code -1
        // leaves 0xF0, which reads back as N.
        auto const code = static_cast<std::uint32_t>(base_code(text.back(), codes));
        record.seq[n_pairs] = static_cast<std::uint8_t>(code << 4);
    }
    return true;
}

void pack_phred(std::string_view text, BamRecord& record) {
    auto const n_bases = static_cast<std::size_t>(record.l_seq);
    if (text == "*") {
        record.qual.assign(n_bases, MISSING_QUAL);
        return;
    }
    record.qual.assign(n_bases, '\0');
    copy_adding(text.data(), std::min(n_bases, text.size()), -PHRED_OFFSET, record.qual.data());
}

// The number at the beginning of an optional value, as std::stoi reads it;
// std::stoi itself is asked where there may be none, or one that does not fit.
std::int32_t to_int(std::string_view text) {
    std::int32_t value = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() ? value : std::stoi(std::string(text));
}

// The number at the beginning of an optional value, as std::stof reads it;
// std::stof itself is asked about everything but plain decimal numbers of
// ordinary size: it throws for what is too small or too large, and it knows
// hexadecimal numbers.
float to_float(std::string_view text) {
    std::string_view const digits = text.substr(begins_with(text, "-") ? 1 : 0);
    if (!digits.empty() && is_digit(digits.front()) && digits.substr(1, 1) != "x" &&
        digits.substr(1, 1) != "X") {
        float value = 0;
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        float const magnitude = std::fabs(value);
        bool const ordinary = magnitude > FLT_MIN && magnitude < FLT_MAX;
        if (error == std::errc() && ordinary) return value;
    }
    return std::stof(std::string(text));
}

// Writes one element of an array, cut to the width of its type.
void put_array_element(BamBuffer& out, char type, std::string_view text) {
    switch (type) {
        case 'c':
        case 'C': out.put(static_cast<char>(to_int(text))); break;
        case 's':
        case 'S': out.put(static_cast<std::int16_t>(to_int(text))); break;
        case 'i':
        case 'I': out.put(to_int(text)); break;
        case 'f': out.put(to_float(text)); break;
        default: break;
    }
}

// Takes the digits of 64 characters, each of which stands before a comma.
void take_single_digits(char const* text, char* digits) {
#ifdef TESK_BAM_SSE2
    __m128i const digit_bits = _mm_set1_epi16(0xF);
    for (std::size_t i = 0; i < 2; ++i) {
        __m128i const first = _mm_and_si128(load_16(text + 32 * i), digit_bits);
        __m128i const second = _mm_and_si128(load_16(text + 32 * i + 16), digit_bits);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(digits + 16 * i),
                         _mm_packus_epi16(first, second));
    }
#else
    for (unsigned i = 0; i < 32; ++i) digits[i] = static_cast<char>(text[2 * i] - '0');
#endif
}

// Parses elements of an array as nearly all are, numbers of few digits without a
// sign, each with its comma. Stops at another one, and before the end of text or
// room.
template <typename Element>
void parse_short_elements(char const*& next, char const* end, BamBuffer& out) {
    constexpr std::ptrdiff_t GROUP = 64;
    constexpr std::size_t MAX_ELEMENTS = GROUP / 2;
    constexpr std::uint64_t EVERY_SECOND = 0x5555555555555555U;
    // Of a number at a group's end a few characters behind are read.
    while (end - next >= GROUP + static_cast<std::ptrdiff_t>(MAX_SHORT_DIGITS) &&
           out.size - out.pos >= MAX_ELEMENTS * sizeof(Element)) {
        std::uint64_t commas = find_in_64(next, Char{','});
        std::uint64_t const digits = find_in_64(next, Digits());
        if (sizeof(Element) == 1 && digits == EVERY_SECOND && commas == ~EVERY_SECOND) {
            take_single_digits(next, out.data + out.pos);
            out.pos += MAX_ELEMENTS;
            next += GROUP;
            continue;
        }
        // What comes before the first character that is neither.
        std::uint64_t const others = ~(digits | commas);
        commas &= (others & (0 - others)) - 1;
        char const* number = next;
        char* place = out.data + out.pos;
        for (; commas != 0; commas &= commas - 1) {
            char const* const comma = next + lowest_bit(commas);
            auto const n_digits = static_cast<std::size_t>(comma - number);
            if (n_digits - 1 >= MAX_SHORT_DIGITS) break;
            auto const element = static_cast<Element>(short_number(number, n_digits));
            std::memcpy(place, &element, sizeof element);
            place += sizeof element;
            number = comma + 1;
        }
        out.pos = static_cast<std::size_t>(place - out.data);
        bool const is_stopped = others != 0 || commas != 0 || number == next;
        next = number;
        if (is_stopped) return;
    }
}

void parse_short_elements(char type, char const*& next, char const* end, BamBuffer& out) {
    switch (type) {
        case 'c':
        case 'C': parse_short_elements<std::uint8_t>(next, end, out); break;
        case 's':
        case 'S': parse_short_elements<std::uint16_t>(next, end, out); break;
        case 'i':
        case 'I': parse_short_elements<std::uint32_t>(next, end, out); break;
        default: break;
    }
}

// Parses the value of a B field: element type, then the elements, separated by
// commas. False where the type is unknown and there are elements.
bool parse_array(std::string_view text, AuxNumericalArray& array) {
    array.type = text.empty() ? '\0' : text.front();
    std::size_t const n_commas = count_in(text, Char{','});
    array.count = static_cast<std::uint32_t>(n_commas);
    if (n_commas == 0) return true;
    std::uint32_t const width = element_width(array.type);
    if (width == 0) return false;

    array.data.resize(n_commas * width);
    BamBuffer out{array.data.data(), array.data.size()};
    // What stands where the first comma belongs is skipped unchecked.
    char const* const end = text.data() + text.size();
    for (char const* next = text.data() + 2;;) {
        parse_short_elements(array.type, next, end, out);
        auto const* const comma =
            static_cast<char const*>(std::memchr(next, ',', static_cast<std::size_t>(end - next)));
        char const* const element_end = comma == nullptr ? end : comma;
        put_array_element(out, array.type, {next, static_cast<std::size_t>(element_end - next)});
        if (comma == nullptr) return true;
        next = comma + 1;
    }
}

// Parses one optional field and appends it to `aux_data`.
bool parse_optional_field(std::string_view field, std::vector<AuxData>& aux_data,
                          std::string const& file_name, std::string& error) {
    auto const invalid = [&] {
        return fail(error, "Invalid aux data detected: " + std::string(field));
    };
    if (field.size() <= 4 || field[2] != ':' || field[4] != ':') return invalid();
    char const type = field[3];
    std::string_view const text = field.substr(5);
    boost::any value;
    switch (type) {
        case 'A': value = text.empty() ? '\0' : text.front(); break;
        case 'i': value = to_int(text); break;
        case 'f': value = to_float(text); break;
        case 'Z':
        case 'H': value = std::string(text); break;
        case 'B': {
            AuxNumericalArray array;
            if (!parse_array(text, array)) return invalid();
            value = std::move(array);
            break;
        }
        default:
            return fail(error, std::string("Invalid auxiliary data type) '") + type +
                                   "' found in alignment record in " + file_name);
    }
    AuxData& parsed = aux_data.emplace_back();
    parsed.tag.assign(field.data(), 2);
    parsed.type = type;
    parsed.value.swap(value);
    return true;
}

// Parses optional fields, separated by tabs, and appends them to `aux_data`.
bool parse_optional_fields(std::string_view fields, std::vector<AuxData>& aux_data,
                           std::string const& file_name, std::string& error) {
    // Found before they are parsed, so that room is made once.
    constexpr std::size_t MAX_AT_ONCE = 32;
    std::array<std::string_view, MAX_AT_ONCE> found;
    for (bool has_more = true; has_more;) {
        std::size_t n_found = 0;
        while (has_more && n_found < MAX_AT_ONCE) {
            std::size_t const tab = fields.find('\t');
            found[n_found++] = fields.substr(0, tab);
            // After a tab there is always one more field, if an empty one.
            has_more = tab != std::string_view::npos;
            if (has_more) fields.remove_prefix(tab + 1);
        }
        // A field and its tab have six characters at least; other tabs are a fault.
        std::size_t const n_more =
            has_more ? std::min(count_in(fields, Char{'\t'}), fields.size() / 6) + 1 : 0;
        if (aux_data.capacity() - aux_data.size() < n_found + n_more) {
            aux_data.reserve(aux_data.size() + n_found + n_more);
        }
        for (std::size_t i = 0; i < n_found; ++i) {
            if (!parse_optional_field(found[i], aux_data, file_name, error)) return false;
        }
    }
    return true;
}

// Both letters of a byte of packed bases.
constexpr auto BASE_PAIRS = [] {
    std::array<std::array<char, 2>, 256> pairs{};
    for (std::size_t byte = 0; byte < pairs.size(); ++byte) {
        pairs[byte] = {SEQ_CODES[byte >> 4U], SEQ_CODES[byte & 0xFU]};
    }
    return pairs;
}();

// Number of bases of a record, all of which it holds.
std::size_t n_bases_of(BamRecord const& record) {
    auto const n_bases = static_cast<std::size_t>(record.l_seq);
    if (n_bases / 2 + n_bases % 2 > record.seq.size()) {
        throw std::out_of_range("Record holds fewer bases than its l_seq");
    }
    return n_bases;
}

// Number of qualities of a record, all of which it holds; 0 for QUAL "*", which
// the first score alone decides.
std::size_t n_qualities_of(BamRecord const& record) {
    if (record.l_seq == 0 || record.qual.at(0) == MISSING_QUAL) return 0;
    auto const n_bases = static_cast<std::size_t>(record.l_seq);
    if (n_bases > record.qual.size()) {
        throw std::out_of_range("Record holds fewer qualities than its l_seq");
    }
    return n_bases;
}

// Writes the letters of n bases.
void write_bases(char* letters, BamRecord const& record, std::size_t n_bases) {
    std::uint8_t const* const packed = record.seq.data();
    for (std::size_t k = 0; k < n_bases / 2; ++k) {
        std::memcpy(letters + 2 * k, BASE_PAIRS[packed[k]].data(), 2);
    }
    if (n_bases % 2 != 0) letters[n_bases - 1] = BASE_PAIRS[packed[n_bases / 2]][0];
}

void add_number(CharBuffer& out, std::int32_t number) {
    out.end_at(write_integer(out.room_for(NUMBER_ROOM), number));
}

// Numbers that are written between two looks at the room left.
constexpr std::size_t NUMBERS_AT_A_TIME = 256;

// Adds packed operations as text.
void add_cigar(CharBuffer& out, std::uint32_t const* ops, std::size_t n_ops) {
    for (std::size_t done = 0; done < n_ops;) {
        std::size_t const end = done + std::min(NUMBERS_AT_A_TIME, n_ops - done);
        char* text = out.room_for((end - done) * (NUMBER_ROOM + 1));
        for (; done < end; ++done) {
            text = write_integer(text, ops[done] >> CIGAR_OP_SHIFT);
            *text++ = cigar_op_letter(ops[done] & CIGAR_OP_MASK);
        }
        out.end_at(text);
    }
}

// Whether the first operation is a soft clip of the whole read, as it is where the
// real ones stand in a field.
bool is_placeholder(std::uint32_t const* ops, std::size_t n_ops, std::uint64_t seq_len) {
    return n_ops != 0 && (ops[0] >> CIGAR_OP_SHIFT) >= seq_len &&
           cigar_op_letter(ops[0] & CIGAR_OP_MASK) == 'S';
}

// A float as SAM text has it: printf's "%f" without its trailing zeros.
// Deliberate: the point stays where nothing follows it ("2.").
std::string float_to_stripped_string(float value) {
    char text[58];
    auto const [end, error] =
        std::to_chars(std::begin(text), std::end(text), value, std::chars_format::fixed, 6);
    static_cast<void>(error);  // at most 39 digits, sign, point and six decimals
    std::string_view stripped(text, static_cast<std::size_t>(end - text));
    while (stripped.back() == '0') stripped.remove_suffix(1);
    return std::string(stripped);
}

// Adds n elements of an array, each after a comma.
template <typename Element>
void add_elements(CharBuffer& out, char const* elements, std::size_t n) {
    for (std::size_t done = 0; done < n;) {
        std::size_t const end = done + std::min(NUMBERS_AT_A_TIME, n - done);
        char* text = out.room_for((end - done) * (NUMBER_ROOM + 1));
        for (; done < end; ++done) {
            Element element;
            std::memcpy(&element, elements + done * sizeof element, sizeof element);
            *text++ = ',';
            text = write_integer(text, element);
        }
        out.end_at(text);
    }
}

// The same for elements of a byte. Many arrays hold little but numbers of one digit.
template <typename Element>
void add_byte_elements(CharBuffer& out, char const* elements, std::size_t n) {
    std::size_t k = 0;
    for (; n - k >= DIGITS_AT_A_TIME; k += DIGITS_AT_A_TIME) {
        char* const end = write_single_digits(out.room_for(2 * DIGITS_AT_A_TIME), elements + k);
        if (end != nullptr) {
            out.end_at(end);
        } else {
            add_elements<Element>(out, elements + k, DIGITS_AT_A_TIME);
        }
    }
    add_elements<Element>(out, elements + k, n - k);
}

// Adds the elements of an array, each after a comma.
void add_array_elements(CharBuffer& out, AuxData const& field, AuxNumericalArray const& array) {
    if (array.count == 0) return;
    // Deliberate: the field is asked for a float, which it does not hold, so that
    // an array of floats is never rendered.
    if (array.type == 'f') {
        out.add(',');
        static_cast<void>(boost::any_cast<float>(field.value));
    }
    std::uint32_t const width = element_width(array.type);
    if (width == 0) {
        for (std::uint32_t i = 0; i < array.count; ++i) out.add(',');
        return;
    }
    std::size_t const n = std::min(std::size_t{array.count}, array.data.size() / width);
    char const* const elements = array.data.data();
    switch (array.type) {
        case 'c': add_byte_elements<std::int8_t>(out, elements, n); break;
        case 'C': add_byte_elements<std::uint8_t>(out, elements, n); break;
        case 's': add_elements<std::int16_t>(out, elements, n); break;
        case 'S': add_elements<std::uint16_t>(out, elements, n); break;
        case 'i': add_elements<std::int32_t>(out, elements, n); break;
        case 'I': add_elements<std::uint32_t>(out, elements, n); break;
        default: break;
    }
    if (n < array.count) {
        out.add(',');
        throw_extracting_overrun();
    }
}

// Adds type letter and value of an optional field; false where the letter is
// unknown. Nothing is added for a value that turns out not to have its type.
bool add_aux_value(CharBuffer& out, AuxData const& field) {
    auto const add_integer = [&out](auto value) {
        out.add("i:");
        out.end_at(write_integer(out.room_for(NUMBER_ROOM), value));
    };
    switch (field.type) {
        case 'A': {
            char const value = boost::any_cast<char>(field.value);
            out.add("A:");
            out.add(value);
            return true;
        }
        case 'c': add_integer(boost::any_cast<std::int8_t>(field.value)); return true;
        case 'C': add_integer(boost::any_cast<std::uint8_t>(field.value)); return true;
        case 's': add_integer(boost::any_cast<std::int16_t>(field.value)); return true;
        case 'S': add_integer(boost::any_cast<std::uint16_t>(field.value)); return true;
        case 'i': add_integer(boost::any_cast<std::int32_t>(field.value)); return true;
        case 'I': add_integer(boost::any_cast<std::uint32_t>(field.value)); return true;
        case 'f': {
            std::string const value = float_to_stripped_string(boost::any_cast<float>(field.value));
            out.add("f:");
            out.add(value);
            return true;
        }
        case 'Z':
        case 'H': {
            auto const& value = boost::any_cast<std::string const&>(field.value);
            out.add(field.type);
            out.add(':');
            out.add(value);
            return true;
        }
        case 'B': {
            auto const& array = boost::any_cast<AuxNumericalArray const&>(field.value);
            out.add("B:");
            out.add(array.type);
            add_array_elements(out, field, array);
            return true;
        }
        default: return false;
    }
}

// Whether a field holds the operations that a placeholder CIGAR stands for.
bool holds_long_cigar(AuxData const& field) { return field.tag == "CG" && field.type == 'B'; }

// The operations of the first field that holds a long CIGAR; false without one.
bool find_long_cigar(BamRecord const& record, std::vector<std::uint32_t>& ops) {
    auto const field =
        std::find_if(record.aux_data.begin(), record.aux_data.end(), holds_long_cigar);
    if (field == record.aux_data.end()) return false;
    auto const& array = boost::any_cast<AuxNumericalArray const&>(field->value);
    std::uint64_t const n_bytes = std::uint64_t{array.count} * sizeof ops[0];
    if (n_bytes > array.data.size()) throw_extracting_overrun();
    ops.resize(array.count);
    if (n_bytes != 0) std::memcpy(ops.data(), array.data.data(), n_bytes);
    return true;
}

// Name of the reference that a refID stands for; false for an invalid one.
bool find_reference_name(std::int32_t refID, std::vector<RefSeq> const& references,
                         std::string_view& name) {
    if (refID == -1) {
        name = "*";
        return true;
    }
    if (refID < 0 || static_cast<std::size_t>(refID) >= references.size()) return false;
    name = references[static_cast<std::size_t>(refID)].name;
    return true;
}

// Adds the optional fields of a line, each with a tab behind it; false where one has
// an unknown type.
bool add_optional_fields(CharBuffer& line, BamRecord const& record, bool placeholder,
                         std::string& error) {
    for (AuxData const& field : record.aux_data) {
        if (placeholder && holds_long_cigar(field)) continue;
        line.add(field.tag);
        line.add(':');
        if (!add_aux_value(line, field)) {
            return fail(error,
                        std::string("Invalid auxiliary data type encountered: ") + field.type);
        }
        line.add('\t');
    }
    return true;
}

// Renders a record's SAM line into its `sam_line`. The text is put together in
// `line`, whose memory may serve for many records, and copied at its exact size, also
// where a field cannot be rendered: the line then ends with the field's tag.
bool render_sam_line(BamRecord& record, std::vector<RefSeq> const& references, CharBuffer& line,
                     std::string& error) {
    std::uint32_t const* ops = record.cigar.data();
    std::size_t n_ops = record.cigar.size();
    bool const placeholder =
        is_placeholder(ops, n_ops, static_cast<std::uint64_t>(std::int64_t{record.l_seq}));
    std::vector<std::uint32_t> long_cigar;
    if (placeholder && find_long_cigar(record, long_cigar)) {
        ops = long_cigar.data();
        n_ops = long_cigar.size();
    }

    std::string_view rname;
    std::string_view rnext;
    // Deliberate: the message names the next segment for both.
    if (!find_reference_name(record.next_refID, references, rnext) ||
        !find_reference_name(record.refID, references, rname)) {
        return fail(error, "Invalid next segment ref ID detected");
    }
    // Deliberate: names are compared, not IDs.
    if (rnext != "*" && rnext == rname) rnext = "=";

    std::size_t const n_bases = n_bases_of(record);
    std::size_t const n_qualities = n_qualities_of(record);

    line.clear();
    auto const add_text = [&line](std::string_view text) {
        line.add(text);
        line.add('\t');
    };
    auto const add_integer = [&line](std::int32_t number) {
        add_number(line, number);
        line.add('\t');
    };
    add_text(record.read_name);
    add_integer(record.flag);
    add_text(rname);
    add_integer(wrapping_add(record.pos, 1));
    add_integer(record.mapq);
    add_cigar(line, ops, n_ops);
    add_text(n_ops == 0 ? "*" : "");
    add_text(rnext);
    add_integer(wrapping_add(record.next_pos, 1));
    add_integer(record.tlen);
    write_bases(line.room_for(n_bases), record, n_bases);
    line.advance(n_bases);
    add_text(n_bases == 0 ? "*" : "");
    copy_adding(record.qual.data(), n_qualities, PHRED_OFFSET, line.room_for(n_qualities));
    line.advance(n_qualities);
    add_text(n_qualities == 0 ? "*" : "");
    bool is_complete = false;
    try {
        is_complete = add_optional_fields(line, record, placeholder, error);
    } catch (...) {
        record.sam_line = line.view();
        throw;
    }
    if (is_complete) line.remove_last();  // a tab
    record.sam_line = std::string(line.view());
    return is_complete;
}

// Hands out the lines of a file, which it reads in large pieces.
class LineReader {
public:
    explicit LineReader(std::istream& in) : in_(in), buffer_(FILE_PIECE_BYTES) {}

    // The next line without its newline, valid until the next call. False at the
    // end of the file, or where reading failed.
    bool next(std::string_view& line) {
        for (std::size_t searched = begin_;;) {
            void const* const newline =
                std::memchr(buffer_.data() + searched, '\n', end_ - searched);
            if (newline != nullptr) {
                auto const line_end =
                    static_cast<std::size_t>(static_cast<char const*>(newline) - buffer_.data());
                line = {buffer_.data() + begin_, line_end - begin_};
                begin_ = line_end + 1;
                return true;
            }
            searched = end_ - begin_;
            if (!read_more()) break;
        }
        // The last line may lack its newline.
        line = {buffer_.data() + begin_, end_ - begin_};
        begin_ = end_;
        return !line.empty() && !in_.bad();
    }

    // Bytes of the file that have been handed out.
    std::uint64_t bytes_done() const { return bytes_read_ - (end_ - begin_); }

private:
    // Moves what is left to the front and reads on behind it.
    bool read_more() {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
        if (end_ == buffer_.size()) buffer_.resize(2 * buffer_.size());
        in_.read(buffer_.data() + end_, static_cast<std::streamsize>(buffer_.size() - end_));
        auto const n_read = static_cast<std::size_t>(in_.gcount());
        end_ += n_read;
        bytes_read_ += n_read;
        return n_read != 0;
    }

    std::istream& in_;
    std::uint64_t bytes_read_ = 0;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;  // what has been read and not handed out
    std::size_t end_ = 0;
};

// Makes room for one more record of a file: for as many as the rest of it seems to
// have, since a vector that grows on its own is half empty at worst. The file's size is
// 0 where it is not known.
void make_room_for_record(std::vector<BamRecord>& records, std::uint64_t bytes_done,
                          std::uint64_t file_bytes) {
    constexpr std::size_t MIN_SAMPLE = 64;
    std::size_t const n = records.size();
    if (n < records.capacity() || n < MIN_SAMPLE || file_bytes == 0) return;
    double const part_done = static_cast<double>(bytes_done) / static_cast<double>(file_bytes);
    double const n_expected = 1.01 * static_cast<double>(n) / part_done;
    double const most = 2.0 * static_cast<double>(n);
    records.reserve(std::max(n + n / 8, static_cast<std::size_t>(std::min(n_expected, most))));
}

}  // namespace

bool BAMFileHandler::parse_sam_fields(std::string_view line, BamRecord& record) {
    std::string_view rname;
    std::string_view cigar;
    std::string_view rnext;
    std::string_view seq;
    std::string_view qual;
    std::int32_t pos_1based = 0;
    std::int32_t mapq = -1;
    std::int32_t next_pos_1based = 0;
    TextCursor cursor(line);
    bool const complete =
        cursor.read_word(record.read_name) && cursor.read_number(record.flag) &&
        cursor.read_word(rname) && cursor.read_number(pos_1based) && cursor.read_number(mapq) &&
        cursor.read_word(cigar) && cursor.read_word(rnext) && cursor.read_number(next_pos_1based) &&
        cursor.read_number(record.tlen) && cursor.read_word(seq) && cursor.read_word(qual);
    if (!complete) return fail(error_message, "Malformed SAM line detected");

    record.pos = wrapping_add(pos_1based, -1);
    record.next_pos = wrapping_add(next_pos_1based, -1);
    record.mapq = static_cast<std::uint8_t>(mapq);
    if (!pack_cigar(cigar, record, record.ref_length, seq.size(), cigar_op_codes, error_message)) {
        return false;
    }
    record.bin = reg_to_bin(record.pos,
                            wrapping_add(record.pos, static_cast<std::int32_t>(record.ref_length)));
    record.refID = find_reference(rname);
    record.next_refID = rnext == "=" ? record.refID : find_reference(rnext);
    if (!pack_seq(seq, record, seq_codes, error_message)) return false;
    if (record.l_seq != 0) pack_phred(qual, record);

    // A carriage return at the end of the line is no optional field.
    std::string_view rest = cursor.rest();
    if (rest.empty() || rest == "\r") return true;
    if (rest.front() == '\t') rest.remove_prefix(1);
    return parse_optional_fields(rest, record.aux_data, file_name, error_message);
}

bool BAMFileHandler::parse_sam_line_to_bam_record(std::string const& line, BamRecord& record) {
    if (!parse_sam_fields(line, record)) return false;
    record.sam_line = line;
    return true;
}

bool BAMFileHandler::add_alignment_sam(std::string line) {
    BamRecord& record = records.emplace_back();
    if (!parse_sam_fields(line, record)) {
        records.pop_back();
        return fail(error_message, "Sam to Bam parsing failed: " + error_message);
    }
    record.sam_line = std::move(line);
    // A line that was read into a string that grew has much room to spare.
    std::string const& kept = record.sam_line;
    if (kept.capacity() - kept.size() > kept.size() / 8) record.sam_line.shrink_to_fit();
    has_sort_order = false;
    return true;
}

bool BAMFileHandler::pack_cigar_string(std::string const& text, BamRecord& record,
                                       unsigned long& ref_len, unsigned long seq_len) {
    return pack_cigar(text, record, ref_len, seq_len, cigar_op_codes, error_message);
}

bool BAMFileHandler::unpack_cigar_string(unsigned int const* ops, unsigned long n_ops,
                                         std::string& out, unsigned long seq_len,
                                         bool& placeholder) {
    placeholder = is_placeholder(ops, n_ops, seq_len);
    CharBuffer text;
    add_cigar(text, ops, n_ops);
    out = n_ops == 0 ? "*" : text.view();
    return true;
}

unsigned long BAMFileHandler::get_cigar_ref_length(std::vector<unsigned int>& cigar) {
    return reference_length(cigar);
}

bool BAMFileHandler::pack_seq_string(std::string const& text, BamRecord& record) {
    return pack_seq(text, record, seq_codes, error_message);
}

bool BAMFileHandler::unpack_seq_string(BamRecord const& record, std::string& out) {
    if (record.l_seq == 0) {
        out = "*";
        return true;
    }
    std::size_t const n_bases = n_bases_of(record);
    std::size_t const old_size = out.size();
    out.resize(old_size + n_bases);
    write_bases(out.data() + old_size, record, n_bases);
    return true;
}

bool BAMFileHandler::pack_phred_string(std::string const& text, BamRecord& record) {
    pack_phred(text, record);
    return true;
}

bool BAMFileHandler::unpack_phred_string(BamRecord const& record, std::string& out) {
    std::size_t const n_qualities = n_qualities_of(record);
    if (n_qualities == 0) {
        out = "*";
        return true;
    }
    out.resize(n_qualities);
    copy_adding(record.qual.data(), n_qualities, PHRED_OFFSET, out.data());
    return true;
}

bool BAMFileHandler::update_sam_line(BamRecord& record) {
    CharBuffer line;
    return render_sam_line(record, references, line, error_message);
}

bool BAMFileHandler::read_from_sam_file(std::string const& path) {
    file_name = path;
    auto const clear_file_name = gsl::finally([this] { file_name.clear(); });
    reset();
    std::ifstream in;
    if (!open_for_reading(in, path, std::ios::in)) {
        return fail(error_message, "Cannot open file " + path);
    }
    std::error_code unknown_size;
    std::uintmax_t const file_size = std::filesystem::file_size(path, unknown_size);
    std::uint64_t const file_bytes = unknown_size ? 0 : file_size;
    LineReader lines(in);
    for (std::string_view line; lines.next(line);) {
        if (line.empty()) continue;
        make_room_for_record(records, lines.bytes_done(), file_bytes);
        if (line.front() == '@') {
            if (!add_header_lines(std::string(line))) {
                return fail(error_message,
                            "Could not parse header from SAM file " + path + " : " + error_message);
            }
        } else if (!add_alignment_sam(std::string(line))) {
            return fail(error_message,
                        "Could not parse alignment from SAM file " + path + " : " + error_message);
        }
    }
    if (in.bad()) return fail(error_message, "SAM file reported error on close " + path);
    return true;
}

bool BAMFileHandler::write_to_sam_file(std::string const& path) const {
    file_name = path;
    auto const clear_file_name = gsl::finally([this] { file_name.clear(); });
    std::ofstream out(path, std::ios::trunc);
    if (!out) return fail(error_message, "Cannot open SAM file : " + path);

    // Pieces are of one size, which the system takes fastest.
    CharBuffer piece(FILE_PIECE_BYTES);
    auto const write_piece = [&] {
        out.write(piece.data(), static_cast<std::streamsize>(piece.size()));
        piece.clear();
    };
    auto const add = [&](std::string_view text) {
        while (piece.size() + text.size() >= FILE_PIECE_BYTES) {
            std::size_t const n = FILE_PIECE_BYTES - piece.size();
            piece.add(text.substr(0, n));
            text.remove_prefix(n);
            write_piece();
        }
        piece.add(text);
    };
    add(header);
    // Lines lie anywhere, so they are asked for a while before they are copied; of each
    // the first bytes, whose neighbours the processor then brings by itself.
    constexpr std::size_t N_AHEAD = 8;
    constexpr std::size_t LINE_OF_CACHE = 64;
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (records.size() - i > N_AHEAD) {
            char const* const ahead = records[i + N_AHEAD].sam_line.data();
            __builtin_prefetch(ahead);
            __builtin_prefetch(ahead + LINE_OF_CACHE);
        }
        add(records[i].sam_line);
        piece.add('\n');  // add() leaves room for it
        if (piece.size() == FILE_PIECE_BYTES) write_piece();
    }
    write_piece();
    out.close();
    if (!out) return fail(error_message, "SAM file reported error on close " + path);
    return true;
}

// ===========================================================================
// 3. Header
//
// add_header_lines() checks header text line by line and files it twice: whole
// in `header`, which SAM output repeats, and taken apart in `references`,
// `sort_order` and `header_lines`, from which get_updated_header() builds the
// header of BAM output.
// ===========================================================================

namespace {

// SAM version of an @HD line, and of text without one.
struct SamVersion {
    int major = 1;
    int minor = 6;
};

// Minor versions from which on a header may have GO, SS, or @RG and @PG lines.
constexpr int GO_MINOR_VERSION = 5;
constexpr int SS_MINOR_VERSION = 6;
constexpr int RG_PG_MINOR_VERSION = 6;

// Field values of an @HD line; empty for a field that is not there.
struct HdFields {
    std::string vn;
    std::string so;
    std::string go;
    std::string ss;
};

// What of an @HD line outlives it.
struct SortOrder {
    std::string fragment;      // for the @HD line of the output; may be empty
    bool is_definite = false;  // whether it names an order of the records
};

template <typename... Values>
bool is_one_of(std::string_view text, Values... values) {
    return ((text == values) || ...);
}

bool fail_at_line(std::string& error, std::string const& reason, std::string_view line) {
    return fail(error, reason + ": " + std::string(line));
}

bool fail_at_hd_value(std::string& error, char const* field, std::string const& value,
                      std::string_view line) {
    return fail_at_line(
        error,
        std::string("Invalid '") + field + "' field '" + value + "' encountered in @HD header line",
        line);
}

// Reads the fields of an @HD line behind its record type.
bool read_hd_fields(TextCursor& words, std::string_view line, HdFields& fields,
                    std::string& error) {
    // A line that ends in white space has its last word read once more, or
    // where there is none the record type.
    std::string_view word = "@HD";
    while (!words.saw_end()) {
        words.read_word(word);
        std::string_view const key = word.substr(0, 3);
        std::string* const value = key == "VN:"   ? &fields.vn
                                   : key == "SO:" ? &fields.so
                                   : key == "GO:" ? &fields.go
                                   : key == "SS:" ? &fields.ss
                                                  : nullptr;
        if (value == nullptr) {
            return fail_at_line(
                error, "Invalid field '" + std::string(word) + "' encountered in @HD header line",
                line);
        }
        *value = word.substr(3);
    }
    return true;
}

bool parse_version(std::string const& vn, SamVersion& version) {
    char after = '\0';
    // NOLINTNEXTLINE(cert-err34-c): numbers that are not there keep their values
    int const n_read = std::sscanf(vn.c_str(), "%d.%d%c", &version.major, &version.minor, &after);
    // Deliberate: nearly everything passes.
    return n_read == 2 || version.major == 1 || version.minor >= 0;
}

// Checks an @HD line whose record type has been read.
bool parse_hd_line(TextCursor& words, std::string_view line, SamVersion& version, SortOrder& order,
                   std::string& error) {
    HdFields fields;
    if (!read_hd_fields(words, line, fields, error)) return false;
    bool const has_so = !fields.so.empty();
    bool const has_go = !fields.go.empty();
    bool const has_ss = !fields.ss.empty();
    if (fields.vn.empty()) {
        return fail_at_line(error, "Mandatory 'VN' field not found in @HD header line", line);
    }
    if (!parse_version(fields.vn, version)) return fail_at_hd_value(error, "VN", fields.vn, line);
    if (has_go && version.minor < GO_MINOR_VERSION) {
        return fail_at_line(
            error, "Unsupported 'GO' field encountered in @HD header line with VN < 1.5", line);
    }
    if (has_ss && version.minor < SS_MINOR_VERSION) {
        return fail_at_line(
            error, "Unsupported 'SS' field encountered in @HD header line with VN < 1.6", line);
    }
    if (has_so && has_go) {
        return fail_at_line(
            error, "Mutually exclusive 'SO' and 'GO' fields encountered in @HD header line", line);
    }
    if (has_so && !is_one_of(fields.so, "unknown", "unsorted", "queryname", "coordinate")) {
        return fail_at_hd_value(error, "SO", fields.so, line);
    }
    if (has_go && !is_one_of(fields.go, "none", "query", "reference")) {
        return fail_at_hd_value(error, "GO", fields.go, line);
    }

    bool const keep_ss = has_so && has_ss && begins_with(fields.ss, fields.so + ":");
    if (has_so) order.fragment = "\tSO:" + fields.so;
    if (has_go) order.fragment = "\tGO:" + fields.go;
    // Deliberate: the sub-sort takes the place of the order it refines.
    if (keep_ss) order.fragment = "\tSS:" + fields.ss;
    order.is_definite = keep_ss || is_one_of(fields.so, "queryname", "coordinate") ||
                        is_one_of(fields.go, "query", "reference");
    return true;
}

// Checks an @SQ line whose record type has been read. An LN value that is no
// number leaves as std::stoi's exception.
bool parse_sq_line(TextCursor& words, std::string_view line, RefSeq& reference,
                   std::string& error) {
    std::string_view word;
    while (!words.saw_end()) {
        words.read_word(word);
        if (begins_with(word, "SN:")) reference.name = word.substr(3);
        if (begins_with(word, "LN:")) reference.length = to_int(word.substr(3));
    }
    if (reference.name.empty() || reference.length == 0) {
        return fail_at_line(error, "Malformed @SQ line encountered in header lines", line);
    }
    return true;
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): a text that may be `header` itself
bool BAMFileHandler::add_header_lines(std::string text) {
    SamVersion version;
    std::vector<RefSeq> new_references;
    std::string_view rest = text;
    while (!rest.empty()) {
        std::size_t const line_end = std::min(rest.find('\n'), rest.size());
        std::string_view const line = rest.substr(0, line_end);
        rest.remove_prefix(std::min(line_end + 1, rest.size()));

        TextCursor words(line);
        std::string_view type;
        words.read_word(type);
        if (type == "@HD") {
            if (!sort_order.empty()) {
                return fail_at_line(error_message, "Multiple @HD lines encountered in header line",
                                    line);
            }
            if (!header_lines.empty()) {
                return fail_at_line(error_message, "@HD lines encountered after first header line",
                                    line);
            }
            SortOrder order;
            if (!parse_hd_line(words, line, version, order, error_message)) return false;
            sort_order = std::move(order.fragment);
            has_sort_order = has_sort_order || order.is_definite;
            continue;
        }
        if (type == "@SQ") {
            RefSeq reference;
            if (!parse_sq_line(words, line, reference, error_message)) return false;
            new_references.push_back(std::move(reference));
        } else if (type == "@RG" || type == "@PG") {
            // Deliberate: refused below 1.6, although the message says 1.3.
            if (version.minor < RG_PG_MINOR_VERSION) {
                return fail_at_line(error_message,
                                    "Unsupported '" + std::string(type) +
                                        "' line encountered in @HD header line with VN < 1.3",
                                    line);
            }
        } else if (type != "@CO") {
            return fail_at_line(error_message, "Invalid line encountered in header lines", line);
        }
        (header_lines += line) += '\n';
    }

    header.reserve(header.size() + text.size() + 1);  // now, so that both change or none
    references.insert(references.end(), std::make_move_iterator(new_references.begin()),
                      std::make_move_iterator(new_references.end()));
    header += text;
    if (!header.empty() && header.back() != '\n') header += '\n';
    return true;
}

bool BAMFileHandler::get_updated_header(std::string& out) const {
    out = "@HD\tVN:1.6";
    out += has_sort_order ? std::string_view(sort_order) : "\tSO:unknown";
    out += '\n';
    out += header_lines;
    return true;
}

// ===========================================================================
// 4. BAM container
//
// A BAM file is a series of BGZF blocks, each a gzip member that says its own
// size. Its payload is the header (magic, text, reference list) followed by the
// records. The writer gives the header, and every record, blocks of their own,
// so that virtual offsets (block's offset in the file << 16 | offset inside its
// payload) always have a zero in-block part. The reader inflates the whole file
// into one buffer and walks it with a BamBuffer.
// ===========================================================================

namespace {

constexpr char BAM_MAGIC_WORD[4] = {'B', 'A', 'M', '\1'};

// BGZF block: header (the 16 bytes HEADER_BYTES, then BSIZE), CDATA, CRC32, ISIZE.
constexpr std::array<unsigned char, 16> HEADER_BYTES = {
    0x1f, 0x8b, 0x08, 0x04,  // ID1, ID2, CM 8 (deflate), FLG 4 (extra field)
    0x00, 0x00, 0x00, 0x00,  // MTIME
    0x00, 0xff,              // XFL, OS
    0x06, 0x00,              // XLEN: one subfield
    0x42, 0x43, 0x02, 0x00,  // SI1 'B', SI2 'C', SLEN
};
constexpr std::array<unsigned char, 12> END_OF_FILE_TAIL = {
    0x1b, 0x00,                                      // BSIZE
    0x03, 0x00,                                      // CDATA: an empty final block
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // CRC32, ISIZE
};

// The block that ends a BAM file.
constexpr auto END_OF_FILE_SEQ = [] {
    std::array<unsigned char, HEADER_BYTES.size() + END_OF_FILE_TAIL.size()> bytes{};
    std::size_t n = 0;
    for (unsigned char const byte : HEADER_BYTES) bytes[n++] = byte;
    for (unsigned char const byte : END_OF_FILE_TAIL) bytes[n++] = byte;
    return bytes;
}();
static_assert(END_OF_FILE_SEQ.size() == 28);

// Fields of a block's header: offsets in bytes from its start.
constexpr std::size_t BGZF_MAGIC_BYTES = 4;    // ID1, ID2, CM and FLG
constexpr std::size_t BGZF_XLEN_OFFSET = 10;   // u16, 6: one subfield
constexpr std::size_t BGZF_SI1_OFFSET = 12;    // 'B'
constexpr std::size_t BGZF_SI2_OFFSET = 13;    // 'C'
constexpr std::size_t BGZF_SLEN_OFFSET = 14;   // u16, 2
constexpr std::size_t BGZF_BSIZE_OFFSET = 16;  // u16, block size - 1
constexpr std::size_t BGZF_HEADER_BYTES = 18;
constexpr std::size_t BGZF_TRAILER_BYTES = 8;  // u32 CRC32, u32 ISIZE
constexpr std::size_t BGZF_FRAME_BYTES = BGZF_HEADER_BYTES + BGZF_TRAILER_BYTES;

constexpr std::size_t MAX_BLOCK_BYTES = 65536;  // of a block, and of its payload
constexpr std::size_t MAX_CDATA_BYTES = MAX_BLOCK_BYTES - BGZF_FRAME_BYTES;
static_assert(MAX_CDATA_BYTES == 65510);

// Raw deflate and inflate: no zlib or gzip wrapper, a window of 32 KiB.
constexpr int RAW_WINDOW_BITS = -15;
constexpr int DEFLATE_MEM_LEVEL = 8;
constexpr char const* ZLIB_VERSION_TEXT = "1.2.12";

std::uint64_t virtual_offset(std::uint64_t file_offset) { return file_offset << 16U; }

Bytef const* as_bytes(char const* data) { return reinterpret_cast<Bytef const*>(data); }
Bytef* as_bytes(char* data) { return reinterpret_cast<Bytef*>(data); }

std::uint32_t crc32_of(char const* data, std::size_t size) {
    return static_cast<std::uint32_t>(::crc32(0, as_bytes(data), static_cast<uInt>(size)));
}

// One zlib stream that deflates block after block, set up for the first and
// reset for each later one: the bytes are those of a fresh stream.
class Deflater {
public:
    Deflater() = default;
    Deflater(Deflater const&) = delete;
    Deflater& operator=(Deflater const&) = delete;
    ~Deflater() {
        if (is_set_up_) deflateEnd(&stream_);
    }

    // Deflates `size` bytes into the MAX_BLOCK_BYTES bytes at `out`. `produced` is
    // the number of bytes put there, also where the result is false.
    bool deflate_block(char const* data, std::size_t size, char* out, std::size_t& produced,
                       std::string& error) {
        produced = 0;
        if (!set_up()) return fail(error, "Could not initialize stream deflate");
        stream_.next_in = as_bytes(data);
        stream_.avail_in = static_cast<uInt>(size);
        stream_.next_out = as_bytes(out);
        stream_.avail_out = static_cast<uInt>(MAX_BLOCK_BYTES);
        int const code = deflate(&stream_, Z_FINISH);
        produced = stream_.total_out;
        if (code == Z_STREAM_END) return true;
        error = "Deflate failed with error code " + std::to_string(code);
        // Only ending the stream tells what it makes of being left unfinished.
        finish(error);
        return false;
    }

    // Ends the stream; the next block sets it up anew.
    bool finish(std::string& error) {
        is_set_up_ = false;
        int const code = deflateEnd(&stream_);
        if (code == Z_OK) return true;
        return fail(error, "Deflate end failed with error code " + std::to_string(code));
    }

    bool could_not_be_set_up() const { return set_up_failed_; }

private:
    bool set_up() {
        if (is_set_up_) return deflateReset(&stream_) == Z_OK;
        stream_ = z_stream{};
        is_set_up_ = deflateInit2_(&stream_, Z_DEFAULT_COMPRESSION, Z_DEFLATED, RAW_WINDOW_BITS,
                                   DEFLATE_MEM_LEVEL, Z_DEFAULT_STRATEGY, ZLIB_VERSION_TEXT,
                                   static_cast<int>(sizeof stream_)) == Z_OK;
        set_up_failed_ = set_up_failed_ || !is_set_up_;
        return is_set_up_;
    }

    z_stream stream_{};
    bool is_set_up_ = false;
    bool set_up_failed_ = false;
};

// One zlib stream that inflates block after block.
class Inflater {
public:
    Inflater() = default;
    Inflater(Inflater const&) = delete;
    Inflater& operator=(Inflater const&) = delete;
    ~Inflater() {
        if (is_set_up_) inflateEnd(&stream_);
    }

    // Inflates a stream that must yield exactly `size` bytes, at most
    // MAX_BLOCK_BYTES, to `out`.
    bool inflate_block(char const* data, std::size_t compressed_size, char* out, std::size_t size,
                       std::string& error) {
        if (!set_up()) return fail(error, "Could not initialize stream inflate");
        stream_.next_in = as_bytes(data);
        stream_.avail_in = static_cast<uInt>(compressed_size);
        stream_.next_out = as_bytes(out);
        stream_.avail_out = static_cast<uInt>(size);
        int const code = inflate(&stream_, Z_FINISH);
        // An empty payload is what it is, whatever zlib makes of it.
        if (size == 0) return true;
        if (stream_.avail_out != 0) {
            return fail(error, "Inflate did not produce expected amount of data");
        }
        if (code == Z_STREAM_END) return true;
        return fail(error, "Inflate failed with error code " + std::to_string(code));
    }

private:
    bool set_up() {
        if (is_set_up_) return inflateReset(&stream_) == Z_OK;
        is_set_up_ = inflateInit2_(&stream_, RAW_WINDOW_BITS, ZLIB_VERSION_TEXT,
                                   static_cast<int>(sizeof stream_)) == Z_OK;
        return is_set_up_;
    }

    z_stream stream_{};
    bool is_set_up_ = false;
};

// Checks what a caller hands to be inflated, and inflates it.
bool inflate_checked(Inflater& inflater, char const* data, std::size_t compressed_size, char* out,
                     std::size_t size, std::string& error) {
    if (compressed_size > MAX_BLOCK_BYTES || size > MAX_BLOCK_BYTES || data == nullptr) {
        return fail(error, "Arguments to decompress_data incorrect");
    }
    return inflater.inflate_block(data, compressed_size, out, size, error);
}

// Appends bytes to a BAM file as BGZF blocks. Blocks are gathered into larger pieces;
// the last one is written by flush(), or when the writer goes.
class BlockWriter {
public:
    BlockWriter(std::ofstream& out, std::size_t& bytes_written, std::string& error)
        : out_(out), bytes_written_(bytes_written), error_(error) {}
    BlockWriter(BlockWriter const&) = delete;
    BlockWriter& operator=(BlockWriter const&) = delete;
    ~BlockWriter() { flush(); }

    // Writes all of `data`. `block_offset` becomes the virtual offset of the last
    // block written, `end_offset` that of the file's end. False, with blocks that
    // cannot be read again, where zlib could not be set up.
    bool write(std::vector<char> const& data, unsigned long& block_offset,
               unsigned long& end_offset) {
        block_offset = virtual_offset(bytes_written_);
        for (std::size_t done = 0; done < data.size();) {
            block_offset = virtual_offset(bytes_written_);
            done += write_block(data.data() + done, data.size() - done);
        }
        end_offset = virtual_offset(bytes_written_);
        return !deflater_.could_not_be_set_up();
    }

    void flush() {
        std::string_view const piece = piece_.view();
        if (piece.empty()) return;
        piece_.clear();
        out_.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    }

private:
    static constexpr std::size_t PIECE_BYTES = std::size_t{1} << 16;

    // Writes one block with as much of the data as fits; returns how much that is.
    std::size_t write_block(char const* data, std::size_t size) {
        // Deflating may fill MAX_BLOCK_BYTES before it is found to be too much.
        char* const begin = piece_.room_for(MAX_BLOCK_BYTES + BGZF_FRAME_BYTES);
        char* const cdata = begin + BGZF_HEADER_BYTES;
        std::size_t chunk = std::min(MAX_BLOCK_BYTES, size);
        std::size_t cdata_bytes = 0;
        deflater_.deflate_block(data, chunk, cdata, cdata_bytes, error_);
        while (cdata_bytes > MAX_CDATA_BYTES) {
            chunk /= 2;
            deflater_.deflate_block(data, chunk, cdata, cdata_bytes, error_);
        }

        std::size_t const block_bytes = cdata_bytes + BGZF_FRAME_BYTES;
        BamBuffer block{begin, block_bytes};
        block.put_bytes(reinterpret_cast<char const*>(HEADER_BYTES.data()), HEADER_BYTES.size());
        block.put(static_cast<std::uint16_t>(block_bytes - 1));  // BSIZE
        block.pos += cdata_bytes;                                // CDATA
        block.put(crc32_of(data, chunk));                        // CRC32
        block.put(static_cast<std::uint32_t>(chunk));            // ISIZE
        piece_.advance(block_bytes);
        if (piece_.size() >= PIECE_BYTES) flush();
        bytes_written_ += block_bytes;
        return chunk;
    }

    std::ofstream& out_;
    std::size_t& bytes_written_;
    std::string& error_;
    Deflater deflater_;
    CharBuffer piece_;
};

// Hands out the bytes of a file. The stream's state is not looked at: missing bytes
// are zero.
class ByteReader {
public:
    // Reads `ahead` bytes at a time; no byte too many if that is 0.
    ByteReader(std::istream& in, std::size_t ahead)
        : in_(in),
          bytes_(std::max(ahead, MAX_BLOCK_BYTES)),
          room_(std::max(ahead, MAX_BLOCK_BYTES)),
          ahead_(ahead),
          is_short_(!in) {}

    // The next n bytes, at most MAX_BLOCK_BYTES, valid until the next call.
    char const* take(std::size_t n) {
        if (n > end_ - begin_) read_more(n);
        char const* const bytes = bytes_.data() + begin_;
        std::size_t const n_there = std::min(n, end_ - begin_);
        bytes_taken_ += static_cast<std::streamoff>(n_there);
        is_short_ = is_short_ || n_there < n;
        begin_ += n_there;
        return bytes;
    }

    // Bytes of the file that have been handed out.
    std::streamoff bytes_taken() const { return bytes_taken_; }

    // Whether bytes were missing, or the stream had failed beforehand.
    bool is_short() const { return is_short_; }

private:
    // Moves what is left to the front and reads on behind it.
    void read_more(std::size_t n) {
        char* const bytes = bytes_.data();
        end_ -= begin_;
        std::memmove(bytes, bytes + begin_, end_);
        begin_ = 0;
        std::size_t const n_wanted = ahead_ == 0 ? n : room_;
        in_.read(bytes + end_, static_cast<std::streamsize>(n_wanted - end_));
        end_ += static_cast<std::size_t>(in_.gcount());
        if (end_ < n) std::memset(bytes + end_, 0, n - end_);
    }

    std::istream& in_;
    CharBuffer bytes_;
    std::size_t room_;
    std::size_t ahead_;
    std::size_t begin_ = 0;  // what has been read and not handed out
    std::size_t end_ = 0;
    std::streamoff bytes_taken_ = 0;
    bool is_short_;
};

// A BGZF block as a file holds it.
struct BgzfBlock {
    char const* cdata = nullptr;
    std::size_t cdata_bytes = 0;
    std::uint32_t crc32 = 0;
    std::uint32_t isize = 0;  // what the file says

    // Room for the payload, as far as there may be one.
    std::size_t payload_room() const { return std::min(std::size_t{isize}, MAX_BLOCK_BYTES); }
};

// Reads BGZF blocks from a BAM file.
class BlockReader {
public:
    BlockReader(ByteReader& in, std::string const& file_name, std::string& error)
        : in_(in), file_name_(file_name), error_(error) {}

    // The next block, valid until the next call. Missing bytes fail a check, here or
    // when the block is inflated.
    bool read(BgzfBlock& block) {
        char const* const header = in_.take(BGZF_HEADER_BYTES);
        if (std::memcmp(header, HEADER_BYTES.data(), BGZF_MAGIC_BYTES) != 0) {
            return fail(error_, "Encountered malformed BGZF header in file " + file_name_);
        }
        if (u16_at(header, BGZF_XLEN_OFFSET) != 6) {
            return fail(error_,
                        "Encountered unknown sub fields in BGZF header in file " + file_name_);
        }
        if (header[BGZF_SI1_OFFSET] != 'B' || header[BGZF_SI2_OFFSET] != 'C' ||
            u16_at(header, BGZF_SLEN_OFFSET) != 2) {
            return fail(error_, "Encountered malformed BGZF subfield in file " + file_name_);
        }
        std::size_t const block_bytes = std::size_t{u16_at(header, BGZF_BSIZE_OFFSET)} + 1;
        if (block_bytes < BGZF_FRAME_BYTES) {
            return fail(error_, "Encountered over-sized BGZF block in file " + file_name_);
        }
        block.cdata_bytes = block_bytes - BGZF_FRAME_BYTES;
        block.cdata = in_.take(block.cdata_bytes + BGZF_TRAILER_BYTES);
        char const* const trailer = block.cdata + block.cdata_bytes;
        std::memcpy(&block.crc32, trailer, sizeof block.crc32);
        std::memcpy(&block.isize, trailer + sizeof block.crc32, sizeof block.isize);
        return true;
    }

    // Inflates a block into its payload_room().
    bool inflate(BgzfBlock const& block, char* payload) {
        std::string reason;
        if (!inflate_checked(inflater_, block.cdata, block.cdata_bytes, payload, block.isize,
                             reason)) {
            return fail(error_, "BGZF block did not unzip correctly in file " + file_name_ + " : " +
                                    reason);
        }
        if (crc32_of(payload, block.isize) == block.crc32) return true;
        return fail(error_, "CRC mismatch after decompressing BGZF block!");
    }

private:
    static std::uint16_t u16_at(char const* bytes, std::size_t offset) {
        std::uint16_t value = 0;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    }

    ByteReader& in_;
    std::string const& file_name_;
    std::string& error_;
    Inflater inflater_;
};

// What the file is read in pieces of.
constexpr std::size_t BAM_PIECE_BYTES = std::size_t{1} << 18;

// Room for the payload of a BAM file, as its blocks state it up to the first that is
// none; exact for a file that can be read. The stream is then at its beginning.
std::size_t payload_room_of(std::istream& in, std::streamoff file_size) {
    // Deflate makes no more than this of a byte.
    constexpr std::size_t MAX_RATIO = 1032;
    std::string const no_name;
    std::string ignored;
    ByteReader bytes(in, BAM_PIECE_BYTES);
    BlockReader blocks(bytes, no_name, ignored);
    std::size_t room = 0;
    BgzfBlock block;
    while (bytes.bytes_taken() < file_size && blocks.read(block)) {
        room += std::min(block.payload_room(), MAX_RATIO * block.cdata_bytes);
    }
    in.clear();
    in.seekg(0);
    return room;
}

// Bytes of a record's fixed fields, block_size included, and of the NUL behind
// its name.
constexpr std::size_t FIXED_RECORD_BYTES = 37;

// Room that the serialiser allows for one optional field.
std::size_t aux_bytes(AuxData const& field) {
    switch (field.type) {
        // Deliberate: of s and S one byte is forgotten, so that a record with such
        // a field cannot be written.
        case 's':
        case 'S':
        case 'A':
        case 'c':
        case 'C': return 4;
        case 'i':
        case 'I':
        case 'f': return 7;
        case 'Z':
        case 'H': return boost::any_cast<std::string const&>(field.value).size() + 4;
        case 'B': return boost::any_cast<AuxNumericalArray const&>(field.value).data.size() + 8;
        default: return 0;
    }
}

std::size_t serialised_bytes(BamRecord const& record) {
    std::size_t size = FIXED_RECORD_BYTES + record.read_name.size() +
                       record.cigar.size() * sizeof record.cigar[0] + record.seq.size() +
                       record.qual.size();
    for (AuxData const& field : record.aux_data) size += aux_bytes(field);
    return size;
}

template <typename Element>
void put_elements(BamBuffer& buffer, std::vector<Element> const& elements) {
    buffer.put_bytes(reinterpret_cast<char const*>(elements.data()),
                     elements.size() * sizeof(Element));
}

// Writes the value of an optional field; nothing for an unknown type.
void put_aux_value(BamBuffer& buffer, AuxData const& field) {
    switch (field.type) {
        case 'A': buffer.put(boost::any_cast<char>(field.value)); break;
        case 'c': buffer.put(boost::any_cast<std::int8_t>(field.value)); break;
        case 'C': buffer.put(boost::any_cast<std::uint8_t>(field.value)); break;
        case 's': buffer.put(boost::any_cast<std::int16_t>(field.value)); break;
        case 'S': buffer.put(boost::any_cast<std::uint16_t>(field.value)); break;
        case 'i': buffer.put(boost::any_cast<std::int32_t>(field.value)); break;
        case 'I': buffer.put(boost::any_cast<std::uint32_t>(field.value)); break;
        case 'f': buffer.put(boost::any_cast<float>(field.value)); break;
        case 'Z':
        case 'H': {
            auto const& text = boost::any_cast<std::string const&>(field.value);
            buffer.put_bytes(text.c_str(), text.size() + 1);
            break;
        }
        case 'B': {
            auto const& array = boost::any_cast<AuxNumericalArray const&>(field.value);
            buffer.put(array.type);
            buffer.put(static_cast<std::int32_t>(array.count));
            put_elements(buffer, array.data);
            break;
        }
        default: break;
    }
}

// The next n bytes, n as a record states it: a negative number is more than any
// buffer holds.
char const* take_bytes(BamBuffer& buffer, std::int64_t n) {
    return buffer.get_bytes(static_cast<std::size_t>(n));
}

// A text of at most n bytes, which ends before its first NUL.
std::string take_text(BamBuffer& buffer, std::size_t n) {
    std::string_view const text(buffer.get_bytes(n), n);
    return std::string(text.substr(0, text.find('\0')));
}

// A text that ends at a NUL, which is stepped over.
std::string take_nul_terminated_text(BamBuffer& buffer) {
    char const* const begin = buffer.get_bytes(0);
    std::string_view const rest(begin, buffer.size - buffer.pos);
    std::size_t const length = rest.find('\0');
    if (length == std::string_view::npos) throw_extracting_overrun();
    buffer.get_bytes(length + 1);
    return std::string(rest.substr(0, length));
}

AuxNumericalArray take_array(BamBuffer& buffer) {
    AuxNumericalArray array;
    array.type = buffer.get<char>();
    auto const count = buffer.get<std::int32_t>();
    std::uint32_t const width = element_width(array.type);
    if (count < 0 || (width == 0 && count != 0)) throw_extracting_overrun();
    array.count = static_cast<std::uint32_t>(count);
    std::int64_t const n_bytes = std::int64_t{count} * width;
    char const* const elements = take_bytes(buffer, n_bytes);
    array.data.assign(elements, elements + n_bytes);
    return array;
}

// Reads the value of an optional field by its type letter; false for an unknown
// letter.
bool take_aux_value(BamBuffer& buffer, char type, boost::any& value) {
    switch (type) {
        case 'A': value = buffer.get<char>(); return true;
        case 'c': value = buffer.get<std::int8_t>(); return true;
        case 'C': value = buffer.get<std::uint8_t>(); return true;
        case 's': value = buffer.get<std::int16_t>(); return true;
        case 'S': value = buffer.get<std::uint16_t>(); return true;
        case 'i': value = buffer.get<std::int32_t>(); return true;
        case 'I': value = buffer.get<std::uint32_t>(); return true;
        case 'f': value = buffer.get<float>(); return true;
        case 'Z':
        case 'H': value = take_nul_terminated_text(buffer); return true;
        case 'B': value = take_array(buffer); return true;
        default: return false;
    }
}

// Number of optional fields from the cursor to a record's end, up to the first that
// is damaged.
std::size_t count_aux_fields(BamBuffer const& buffer, std::int64_t record_end) {
    constexpr std::size_t TAG_AND_TYPE_BYTES = 3;
    constexpr std::size_t TYPE_AND_COUNT_BYTES = 5;
    auto const left = static_cast<std::int64_t>(buffer.size - buffer.pos);
    std::int64_t const n_bytes = std::min(record_end - static_cast<std::int64_t>(buffer.pos), left);
    if (n_bytes <= 0) return 0;
    std::string_view rest(buffer.data + buffer.pos, static_cast<std::size_t>(n_bytes));
    std::size_t n_fields = 0;
    while (rest.size() > TAG_AND_TYPE_BYTES) {
        char const type = rest[TAG_AND_TYPE_BYTES - 1];
        rest.remove_prefix(TAG_AND_TYPE_BYTES);
        std::uint64_t value_bytes = type == 'A' ? 1 : element_width(type);
        if (type == 'Z' || type == 'H') {
            value_bytes = std::uint64_t{rest.find('\0')} + 1;
            if (value_bytes == 0) break;  // no NUL
        } else if (type == 'B') {
            if (rest.size() < TYPE_AND_COUNT_BYTES) break;
            std::uint32_t count = 0;
            std::memcpy(&count, rest.data() + 1, sizeof count);
            value_bytes = TYPE_AND_COUNT_BYTES + std::uint64_t{count} * element_width(rest[0]);
        }
        if (value_bytes == 0 || value_bytes > rest.size()) break;
        rest.remove_prefix(static_cast<std::size_t>(value_bytes));
        ++n_fields;
    }
    return n_fields;
}

// Reads a record, except its SAM line.
bool take_record(BamRecord& record, BamBuffer& buffer, std::string const& file_name,
                 std::string& error) {
    auto const block_size = buffer.get<std::int32_t>();
    std::int64_t const record_end = static_cast<std::int64_t>(buffer.pos) + block_size;
    auto const is_before_end = [&] { return static_cast<std::int64_t>(buffer.pos) < record_end; };

    record.refID = buffer.get<std::int32_t>();
    record.pos = buffer.get<std::int32_t>();
    auto const l_read_name = buffer.get<std::uint8_t>();
    record.mapq = buffer.get<std::uint8_t>();
    record.bin = buffer.get<std::uint16_t>();
    auto const n_cigar_op = buffer.get<std::uint16_t>();
    record.flag = buffer.get<std::uint16_t>();
    record.l_seq = buffer.get<std::int32_t>();
    record.next_refID = buffer.get<std::int32_t>();
    record.next_pos = buffer.get<std::int32_t>();
    record.tlen = buffer.get<std::int32_t>();
    record.read_name = take_text(buffer, l_read_name);

    std::size_t const cigar_bytes = n_cigar_op * sizeof record.cigar[0];
    char const* const cigar = buffer.get_bytes(cigar_bytes);
    record.cigar.resize(n_cigar_op);
    if (cigar_bytes != 0) std::memcpy(record.cigar.data(), cigar, cigar_bytes);
    record.ref_length = reference_length(record.cigar);

    // Signed, so that the rounding of a wrapped length is that of 32-bit division.
    std::int32_t const seq_bytes = wrapping_add(record.l_seq, 1) / 2;
    auto const* const seq = reinterpret_cast<std::uint8_t const*>(take_bytes(buffer, seq_bytes));
    record.seq.assign(seq, seq + seq_bytes);
    char const* const qual = take_bytes(buffer, record.l_seq);
    record.qual.assign(qual, qual + record.l_seq);

    if (is_before_end()) record.aux_data.reserve(count_aux_fields(buffer, record_end));
    while (is_before_end()) {
        AuxData& field = record.aux_data.emplace_back();
        field.tag = std::string(buffer.get_bytes(2), 2);
        field.type = buffer.get<char>();
        if (!take_aux_value(buffer, field.type, field.value)) {
            return fail(error,
                        "Invalid auxiliary data type found in alignment record in " + file_name);
        }
    }
    if (static_cast<std::int64_t>(buffer.pos) != record_end) {
        return fail(error, "BAM file block length mismatch in file " + file_name);
    }
    return true;
}

// Reads the record at the cursor to the end of `records`, which is as before where
// that fails.
bool append_record(std::vector<BamRecord>& records, BamBuffer& buffer,
                   std::vector<RefSeq> const& references, CharBuffer& line,
                   std::string const& file_name, std::string& error) {
    bool is_complete = false;
    BamRecord& record = records.emplace_back();
    auto const drop_incomplete = gsl::finally([&] {
        if (!is_complete) records.pop_back();
    });
    if (!take_record(record, buffer, file_name, error)) return false;
    if (!render_sam_line(record, references, line, error)) {
        return fail(error, "SAM line generation failed: " + error);
    }
    is_complete = true;
    return true;
}

// Number of records from the cursor on, as far as their sizes are possible.
std::size_t count_records(BamBuffer const& buffer) {
    constexpr std::size_t MIN_BLOCK_SIZE = 32;  // the fixed fields
    std::size_t n_records = 0;
    std::size_t left = buffer.size - buffer.pos;
    for (char const* next = buffer.data + buffer.pos; left >= sizeof(std::uint32_t);) {
        std::uint32_t block_size = 0;
        std::memcpy(&block_size, next, sizeof block_size);
        left -= sizeof block_size;
        if (block_size < MIN_BLOCK_SIZE || block_size > left) break;
        next += sizeof block_size + block_size;
        left -= block_size;
        ++n_records;
    }
    return n_records;
}

// Gathers the index of a BAM file from its records, in the order in which they
// are written. Consecutive records of one reference and bin form a chunk; the
// current one is filed under its bin when the next begins.
class IndexGatherer {
public:
    // `no_placed_read_chunks` is true until the first placed record.
    IndexGatherer(FileIndex& index, bool& no_placed_read_chunks)
        : index_(index), no_placed_read_chunks_(no_placed_read_chunks) {}

    // Adds a record that lies between two virtual offsets.
    void add(BamRecord const& record, std::uint64_t beg, std::uint64_t end) {
        if (record.refID == -1) {
            ++index_.n_no_coor;
            return;
        }
        ReferenceIndex& reference = index_.ref_indices[record.refID];
        add_to_linear_index(reference, record, beg);
        bool const extends_chunk = !no_placed_read_chunks_ && record.refID == previous_refID_ &&
                                   record.bin == previous_bin_;
        if (extends_chunk) {
            chunk_.chunk_end = end;
        } else {
            if (!no_placed_read_chunks_) file_chunk();
            no_placed_read_chunks_ = false;
            chunk_ = {beg, end};
            previous_refID_ = record.refID;
            previous_bin_ = record.bin;
        }
        bool const is_unmapped = (record.flag & UNMAPPED_FLAG) != 0;
        ++(is_unmapped ? reference.n_unmapped : reference.n_mapped);
    }

    // Files the last chunk.
    void finish() {
        if (!no_placed_read_chunks_) file_chunk();
    }

private:
    static constexpr unsigned UNMAPPED_FLAG = 4;

    static constexpr std::int64_t MAX_WINDOWS = std::int64_t{1} << 20;

    void file_chunk() {
        ReferenceIndex& reference = index_.ref_indices[previous_refID_];
        if (reference.ref_beg == ReferenceIndex{}.ref_beg) reference.ref_beg = chunk_.chunk_beg;
        reference.ref_end = std::max(reference.ref_end, chunk_.chunk_end);
        reference.bins[previous_bin_].chunks.push_back(chunk_);
    }

    // Enters a record that begins at a virtual offset into its windows.
    static void add_to_linear_index(ReferenceIndex& reference, BamRecord const& record,
                                    std::uint64_t beg) {
        std::int64_t const first = record.pos >> WINDOW_SHIFT;
        // Deliberate: the base after the last counts, so that a record that ends
        // on a boundary between windows covers the next window, too.
        auto const end = static_cast<std::int64_t>(
            static_cast<std::uint64_t>(std::int64_t{record.pos}) + record.ref_length);
        std::int64_t const last = end >> WINDOW_SHIFT;
        std::vector<std::uint64_t>& ioffsets = reference.ioffsets;
        auto const size = static_cast<std::int64_t>(ioffsets.size());
        if (last < std::numeric_limits<std::int32_t>::min() ||
            (last >= size && 2 * last > MAX_WINDOWS)) {
            throw std::length_error("Alignment ends beyond the range of a BAM index: position " +
                                    std::to_string(end));
        }
        if (size == 0) {
            ioffsets.resize(static_cast<std::size_t>(std::max<std::int64_t>(1, 2 * last)));
        } else if (last >= size) {
            ioffsets.resize(static_cast<std::size_t>(2 * last));
        }

        // Windows between the last one set and this record take the value of the
        // former; the record's own windows take its offset, those set before keep
        // theirs, which is smaller.
        std::int64_t const n = reference.n_intv;
        std::uint64_t const before = n > 0 ? ioffsets[static_cast<std::size_t>(n - 1)] : beg;
        if (size != 0) fill_windows(ioffsets, n, first, before);
        fill_windows(ioffsets, size == 0 ? 0 : std::max(first, n), last + 1, beg);
        // Deliberate: no maximum. A record that ends before its predecessors
        // shortens what the index file holds.
        reference.n_intv = static_cast<std::int32_t>(last + 1);
    }

    // Sets the windows from `begin` up to `end` (half-open), as far as they exist.
    static void fill_windows(std::vector<std::uint64_t>& ioffsets, std::int64_t begin,
                             std::int64_t end, std::uint64_t offset) {
        begin = std::max<std::int64_t>(begin, 0);
        end = std::min(end, static_cast<std::int64_t>(ioffsets.size()));
        if (begin < end) {
            std::fill(ioffsets.begin() + begin, ioffsets.begin() + end, offset);
        }
    }

    FileIndex& index_;
    bool& no_placed_read_chunks_;
    ChunkIndex chunk_;
    std::int32_t previous_refID_ = 0;
    std::uint16_t previous_bin_ = 0;
};

// Header of a BAM file: magic, text and reference list.
std::vector<char> serialise_bam_header(std::string const& text,
                                       std::vector<RefSeq> const& references, bool& is_filled) {
    constexpr std::size_t FIXED_BYTES = 12;     // magic, l_text, n_ref
    constexpr std::size_t FIXED_REF_BYTES = 9;  // l_name, the name's NUL, l_ref
    std::size_t size = FIXED_BYTES + text.size();
    for (RefSeq const& reference : references) size += reference.name.size() + FIXED_REF_BYTES;

    std::vector<char> bytes(size);
    BamBuffer buffer{bytes.data(), bytes.size()};
    buffer.put_bytes(BAM_MAGIC_WORD, sizeof BAM_MAGIC_WORD);
    buffer.put(static_cast<std::int32_t>(text.size()));  // l_text
    buffer.put_bytes(text.data(), text.size());
    buffer.put(static_cast<std::int32_t>(references.size()));  // n_ref
    for (RefSeq const& reference : references) {
        buffer.put(static_cast<std::int32_t>(reference.name.size() + 1));  // l_name
        buffer.put_bytes(reference.name.c_str(), reference.name.size() + 1);
        buffer.put(reference.length);  // l_ref
    }
    is_filled = buffer.pos == buffer.size;
    return bytes;
}

}  // namespace

std::vector<char> BAMFileHandler::compress_data(char const* data, unsigned int size) const {
    if (data == nullptr || size > MAX_BLOCK_BYTES) {
        fail(error_message, "Arguments to compress_data incorrect");
        return {};
    }
    std::vector<char> compressed(MAX_BLOCK_BYTES);
    std::size_t produced = 0;
    Deflater deflater;
    bool const done =
        deflater.deflate_block(data, size, compressed.data(), produced, error_message) &&
        deflater.finish(error_message);
    // Deliberate: after a failure as many zero bytes as were produced. Their
    // number tells a caller that the data are too many for one block.
    if (!done) compressed.clear();
    compressed.resize(produced);
    return compressed;
}

std::vector<char> BAMFileHandler::decompress_data(char const* data, unsigned int compressed_size,
                                                  unsigned int uncompressed_size) {
    std::vector<char> result(std::min(std::size_t{uncompressed_size}, MAX_BLOCK_BYTES));
    Inflater inflater;
    if (!inflate_checked(inflater, data, compressed_size, result.data(), uncompressed_size,
                         error_message)) {
        return {};
    }
    return result;
}

bool BAMFileHandler::write_BGZF_blocks_to_BAM(std::ofstream& out, std::vector<char> const& data,
                                              unsigned long& block_offset,
                                              unsigned long& end_offset) const {
    BlockWriter blocks(out, bytes_written, error_message);
    blocks.write(data, block_offset, end_offset);
    blocks.flush();
    return true;
}

bool BAMFileHandler::read_BGZF_block_from_BAM(std::ifstream& in, std::vector<char>& out) {
    ByteReader bytes(in, 0);
    BlockReader blocks(bytes, file_name, error_message);
    BgzfBlock block;
    if (!blocks.read(block)) return false;
    std::size_t const old_size = out.size();
    bool is_read = false;
    auto const drop_payload = gsl::finally([&] {
        if (!is_read) out.resize(old_size);
    });
    out.resize(old_size + block.payload_room());
    is_read = blocks.inflate(block, out.data() + old_size);
    return is_read;
}

bool BAMFileHandler::serialise_bam_record_to_buffer(BamRecord const& record,
                                                    std::vector<char>& buffer) const {
    buffer.resize(serialised_bytes(record));
    BamBuffer out{buffer.data(), buffer.size()};
    auto const l_read_name = static_cast<std::uint8_t>(record.read_name.size() + 1);
    auto const n_cigar_op = static_cast<std::uint16_t>(record.cigar.size());
    out.put(static_cast<std::int32_t>(buffer.size() - sizeof(std::int32_t)));  // block_size
    out.put(record.refID);
    out.put(record.pos);
    out.put(l_read_name);
    out.put(record.mapq);
    out.put(record.bin);
    out.put(n_cigar_op);
    out.put(record.flag);
    out.put(record.l_seq);
    out.put(record.next_refID);
    out.put(record.next_pos);
    out.put(record.tlen);
    out.put_bytes(record.read_name.c_str(), record.read_name.size() + 1);
    put_elements(out, record.cigar);
    put_elements(out, record.seq);
    put_elements(out, record.qual);
    for (AuxData const& field : record.aux_data) {
        char tag[2] = {'\0', '\0'};
        field.tag.copy(tag, sizeof tag);
        out.put_bytes(tag, sizeof tag);
        out.put(field.type);
        put_aux_value(out, field);
    }
    if (out.pos != out.size) {
        return fail(error_message, "Write buffer was not fully used when serialising SAM line");
    }
    return true;
}

bool BAMFileHandler::extract_alignment_from_buffer(BamBuffer& buffer) {
    CharBuffer line;
    return append_record(records, buffer, references, line, file_name, error_message);
}

bool BAMFileHandler::read_from_bam_file(std::string const& path) {
    file_name = path;
    auto const clear_file_name = gsl::finally([this] { file_name.clear(); });
    reset();
    std::ifstream in;
    if (!open_for_reading(in, path, std::ios::in | std::ios::binary | std::ios::ate)) {
        return fail(error_message, "Cannot open file " + file_name);
    }
    // Deliberate: 32 bits, so that files of 2 GiB or more are not read correctly.
    std::streamoff const file_size = static_cast<std::int32_t>(in.tellg());
    in.seekg(0);

    // A file that changes meanwhile may need more.
    CharBuffer payload(in ? payload_room_of(in, file_size) : 0);
    bool saw_empty_block = false;
    ByteReader bytes(in, BAM_PIECE_BYTES);
    BlockReader blocks(bytes, file_name, error_message);
    BgzfBlock block;
    while (!bytes.is_short() && bytes.bytes_taken() != file_size) {
        if (!blocks.read(block)) return false;
        std::size_t const n_bytes = block.payload_room();
        if (!blocks.inflate(block, payload.room_for(n_bytes))) return false;
        payload.advance(n_bytes);
        // Deliberate: an empty block anywhere will do.
        if (n_bytes == 0) saw_empty_block = true;
    }
    if (!saw_empty_block) {
        return fail(error_message,
                    "Final BGZF block was not the EOF sequence as expected in file " + file_name +
                        ". Perhaps the file is corrupt?");
    }
    in.clear();  // of what reading ahead met
    in.close();
    if (!in || bytes.is_short()) {
        return fail(error_message, "BAM file reported error on close " + file_name);
    }

    try {
        return parse_bam_payload({payload.data(), payload.size()});
    } catch (std::runtime_error const& overrun) {
        return fail(error_message,
                    std::string("Reached end of uncompressed BAM buffer unexpectedly while "
                                "extracting data: ") +
                        overrun.what());
    }
}

bool BAMFileHandler::parse_bam_payload(BamBuffer buffer) {
    if (std::memcmp(buffer.get_bytes(sizeof BAM_MAGIC_WORD), BAM_MAGIC_WORD,
                    sizeof BAM_MAGIC_WORD) != 0) {
        return fail(error_message, "BAM file did not contain well formed header: " + file_name);
    }
    auto const l_text = buffer.get<std::uint32_t>();
    char const* const text = buffer.get_bytes(l_text);
    if (!add_header_lines(std::string(text, l_text))) return false;

    // Deliberate: behind the references of the header text, whatever these are.
    auto const n_ref = buffer.get<std::uint32_t>();
    for (std::uint32_t i = 0; i < n_ref; ++i) {
        auto const l_name = buffer.get<std::uint32_t>();
        std::string name = take_text(buffer, l_name);
        auto const l_ref = buffer.get<std::int32_t>();
        references.push_back({std::move(name), l_ref});
    }
    records.reserve(count_records(buffer));
    CharBuffer line;
    while (buffer.pos != buffer.size) {
        if (!append_record(records, buffer, references, line, file_name, error_message)) {
            return false;
        }
    }
    return true;
}

bool BAMFileHandler::write_to_bam_file(std::string const& path, bool write_index) const {
    // Deliberate: kept for the life of the process. Every index after the first
    // begins with the empty chunk (0, 0), in bin 0 of reference 0.
    static bool no_placed_read_chunks = true;

    file_name = path;
    bytes_written = 0;
    auto const clear_file_name = gsl::finally([this] { file_name.clear(); });
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return fail(error_message, "Cannot open file " + file_name);
    if (write_index && !begins_with(sort_order, COORDINATE_ORDER)) {
        return fail(error_message, "Index can be written only for sorted files");
    }

    BlockWriter blocks(out, bytes_written, error_message);
    unsigned long record_beg = 0;
    unsigned long record_end = 0;
    std::string header_text;
    get_updated_header(header_text);
    bool is_filled = false;
    std::vector<char> buffer = serialise_bam_header(header_text, references, is_filled);
    if (!is_filled)
        return fail(error_message, "Header buffer was not correctly filled during write");
    if (!blocks.write(buffer, record_beg, record_end)) {
        return fail(error_message, "BGZF writing failed: " + error_message);
    }

    FileIndex index;
    index.n_ref = static_cast<std::int32_t>(references.size());
    IndexGatherer gatherer(index, no_placed_read_chunks);
    for (BamRecord const& record : records) {
        if (!serialise_bam_record_to_buffer(record, buffer)) {
            return fail(error_message, "Bam record serialization failed: " + error_message);
        }
        if (!blocks.write(buffer, record_beg, record_end)) {
            return fail(error_message, "BGZF writing failed: " + error_message);
        }
        if (write_index) gatherer.add(record, record_beg, record_end);
    }
    if (write_index) gatherer.finish();

    blocks.flush();
    out.write(reinterpret_cast<char const*>(END_OF_FILE_SEQ.data()), END_OF_FILE_SEQ.size());
    out.close();
    if (!out) return fail(error_message, "BAM file reported error on close " + file_name);
    if (write_index && !write_index_to_file(file_name + ".bai", index)) {
        return fail(error_message, "Could not write BAM index : " + error_message);
    }
    return true;
}

bool BAMFileHandler::write_to_bam_file(std::string const& path, bool write_index) {
    if (write_index && !begins_with(sort_order, COORDINATE_ORDER)) sort();
    return std::as_const(*this).write_to_bam_file(path, write_index);
}

// ===========================================================================
// 5. Coordinate sort and BAI index
//
// sort() orders `records`. While writing, the BAM writer gathers a FileIndex,
// which write_index_to_file() stores. A virtual offset is
// (offset of a block in the file << 16) | offset inside the block's data.
// ===========================================================================

namespace {

constexpr char BAI_MAGIC_WORD[4] = {'B', 'A', 'I', '\1'};

// The bin that holds a reference's extent and counts instead of chunks.
constexpr std::uint32_t PSEUDO_BIN = 37450;
constexpr std::int32_t PSEUDO_BIN_CHUNKS = 2;

constexpr std::uint32_t WINDOW_BASES = 1U << WINDOW_SHIFT;

// The levels of the binning scheme below bin 0, finest first: bins of 2^shift
// bases, numbered from `first_bin` on.
struct BinLevel {
    int shift;
    int first_bin;
};
constexpr BinLevel BIN_LEVELS[] = {{14, 4681}, {17, 585}, {20, 73}, {23, 9}, {26, 1}};

// A record's place in coordinate order: refID read as unsigned, so that -1, no
// reference, comes last; then pos, its sign bit flipped, so that it compares as
// a signed number; then the place that the record had.
struct SortKey {
    std::uint64_t coordinate;
    std::uint64_t index;

    bool operator<(SortKey const& other) const {
        return coordinate != other.coordinate ? coordinate < other.coordinate : index < other.index;
    }
};

std::uint64_t coordinate_of(BamRecord const& record) {
    constexpr std::uint32_t SIGN_BIT = 0x80000000U;
    return std::uint64_t{static_cast<std::uint32_t>(record.refID)} << 32U |
           (static_cast<std::uint32_t>(record.pos) ^ SIGN_BIT);
}

// Moves the record that stands at sources[i] to place i, for all i. `sources` is narrow
// where it can be: it is read at random, and each time the next step waits for it.
template <typename Index>
void move_into_order(std::vector<BamRecord>& records, std::vector<Index> sources) {
    // Records that are needed soon are asked for: they lie anywhere.
    constexpr int N_AHEAD = 8;
    auto const step_ahead = [&](std::size_t place) {
        std::size_t const source = sources[place];
        char const* const record = reinterpret_cast<char const*>(&records[source]);
        for (std::size_t i = 0; i < sizeof records[0]; i += 64) __builtin_prefetch(record + i, 1);
        return source;
    };
    for (std::size_t start = 0; start < sources.size(); ++start) {
        if (sources[start] == start) continue;
        // Follow the cycle of places from one whose record is set aside.
        BamRecord set_aside = std::move(records[start]);
        std::size_t place = start;
        std::size_t ahead = start;
        for (int i = 0; i < N_AHEAD; ++i) ahead = step_ahead(ahead);
        while (sources[place] != start) {
            std::size_t const source = sources[place];
            ahead = step_ahead(ahead);
            records[place] = std::move(records[source]);
            sources[place] = static_cast<Index>(place);
            place = source;
        }
        records[place] = std::move(set_aside);
        sources[place] = static_cast<Index>(place);
    }
}

// The indices of sorted keys, which go.
template <typename Index>
std::vector<Index> take_indices(std::vector<SortKey>& keys) {
    std::vector<Index> indices;
    indices.reserve(keys.size());
    for (SortKey const& key : keys) indices.push_back(static_cast<Index>(key.index));
    std::vector<SortKey>().swap(keys);
    return indices;
}

template <typename Number>
void write_number(std::ostream& out, Number value) {
    out.write(reinterpret_cast<char const*>(&value), sizeof value);
}

template <typename Number>
Number read_number(std::istream& in) {
    Number value = 0;
    in.read(reinterpret_cast<char*>(&value), sizeof value);
    return value;
}

void write_chunk(std::ostream& out, std::uint64_t beg, std::uint64_t end) {
    write_number(out, beg);
    write_number(out, end);
}

void write_reference_index(std::ostream& out, ReferenceIndex const& reference) {
    if (reference.bins.empty()) {
        write_number(out, std::int32_t{0});  // n_bin
    } else {
        write_number(out, static_cast<std::int32_t>(reference.bins.size() + 1));  // n_bin
        write_number(out, PSEUDO_BIN);
        write_number(out, PSEUDO_BIN_CHUNKS);
        write_chunk(out, reference.ref_beg, reference.ref_end);
        write_chunk(out, reference.n_mapped, reference.n_unmapped);
    }
    for (auto const& [bin, bin_index] : reference.bins) {
        write_number(out, bin);
        write_number(out, static_cast<std::int32_t>(bin_index.chunks.size()));  // n_chunk
        for (ChunkIndex const& chunk : bin_index.chunks) {
            write_chunk(out, chunk.chunk_beg, chunk.chunk_end);
        }
    }
    write_number(out, reference.n_intv);
    for (std::int32_t i = 0; i < reference.n_intv; ++i) {
        // An entry that is missing from a hand-made index: from the file's start.
        auto const window = static_cast<std::size_t>(i);
        write_number(out, window < reference.ioffsets.size() ? reference.ioffsets[window] : 0);
    }
}

// Prints the reference sections of a BAI file. A read that hits the end of the
// file ends everything; whoever reads on finds the stream failed.
class IndexPrinter {
public:
    IndexPrinter(std::istream& in, std::ostream& out) : in_(in), out_(out) {}

    void print_line(std::string const& line) const { out_ << line << std::endl; }

    // False where the pseudo-bin is malformed.
    bool print_reference(std::int32_t ref) {
        auto const n_bin = read_number<std::int32_t>(in_);
        if (!in_) return true;
        std::string const ref_text = "Ref " + std::to_string(ref);
        print_line("\n" + ref_text + " has " + std::to_string(n_bin) + " bins");

        std::int32_t n_real_chunks = 0;
        for (std::int32_t j = 0; j < n_bin; ++j) {
            auto const bin = read_number<std::int32_t>(in_);
            auto const n_chunk = read_number<std::int32_t>(in_);
            if (!in_) return true;
            print_line(ref_text + " bin " + std::to_string(bin) + " has " +
                       std::to_string(n_chunk) + " chunks");
            if (static_cast<std::uint32_t>(bin) == PSEUDO_BIN) {
                if (n_chunk != PSEUDO_BIN_CHUNKS) return false;
                print_pseudo_bin();
            } else {
                n_real_chunks = wrapping_add(n_real_chunks, n_chunk);
                print_chunks(n_chunk);
            }
            if (!in_) return true;
        }
        print_line(ref_text + " has " + std::to_string(n_real_chunks) + " total real chunks");

        auto const n_intv = read_number<std::int32_t>(in_);
        if (!in_) return true;
        print_line(ref_text + " has " + std::to_string(n_intv) + " linear intervals");
        print_windows(n_intv);
        return true;
    }

private:
    // The two parts of a virtual offset, with a text between them.
    static std::string offset_text(std::uint64_t offset, char const* between) {
        return std::to_string(offset >> 16U) + between + std::to_string(offset & 0xFFFFU);
    }

    void print_chunks(std::int32_t n_chunk) {
        for (std::int32_t k = 0; k < n_chunk; ++k) {
            auto const beg = read_number<std::uint64_t>(in_);
            auto const end = read_number<std::uint64_t>(in_);
            if (!in_) return;
            print_line("Start is file offset " + offset_text(beg, " block offset "));
            print_line("End is file offset " + offset_text(end, " block offset "));
        }
    }

    void print_pseudo_bin() {
        auto const ref_beg = read_number<std::uint64_t>(in_);
        auto const ref_end = read_number<std::uint64_t>(in_);
        auto const n_mapped = read_number<std::uint64_t>(in_);
        auto const n_unmapped = read_number<std::uint64_t>(in_);
        if (!in_) return;
        print_line("Magic bin says placed unmapped begin " + offset_text(ref_beg, ",") + " end " +
                   offset_text(ref_end, ",") + ", num mapped " + std::to_string(n_mapped) +
                   ", unmapped " + std::to_string(n_unmapped));
    }

    void print_windows(std::int32_t n_intv) {
        for (std::int32_t i = 0; i < n_intv; ++i) {
            auto const offset = read_number<std::uint64_t>(in_);
            if (!in_) return;
            std::uint32_t const start = static_cast<std::uint32_t>(i) * WINDOW_BASES;
            print_line("Linear file offset " + offset_text(offset, " block offset ") + " (" +
                       std::to_string(start) + " - " + std::to_string(start + WINDOW_BASES - 1) +
                       ")");
        }
    }

    std::istream& in_;
    std::ostream& out_;
};

}  // namespace

bool BAMFileHandler::sort() {
    std::vector<SortKey> keys;
    keys.reserve(records.size());
    for (BamRecord const& record : records) keys.push_back({coordinate_of(record), keys.size()});
    if (!std::is_sorted(keys.begin(), keys.end())) {
        std::sort(keys.begin(), keys.end());
        if (keys.size() <= std::numeric_limits<std::uint32_t>::max()) {
            move_into_order(records, take_indices<std::uint32_t>(keys));
        } else {
            move_into_order(records, take_indices<std::uint64_t>(keys));
        }
    }
    has_sort_order = true;
    sort_order = COORDINATE_ORDER;
    return true;
}

unsigned short BAMFileHandler::reg_to_bin(int beg, int end) {
    int const last = wrapping_add(end, -1);
    for (BinLevel const& level : BIN_LEVELS) {
        if (beg >> level.shift == last >> level.shift) {
            return static_cast<unsigned short>(level.first_bin + (beg >> level.shift));
        }
    }
    return 0;
}

void BAMFileHandler::reg_to_bins(int beg, int end, std::vector<unsigned short>& bins) {
    int const last = wrapping_add(end, -1);
    bins.push_back(0);
    std::for_each(std::rbegin(BIN_LEVELS), std::rend(BIN_LEVELS), [&](BinLevel const& level) {
        int const last_bin = level.first_bin + (last >> level.shift);
        for (int bin = level.first_bin + (beg >> level.shift); bin <= last_bin; ++bin) {
            bins.push_back(static_cast<unsigned short>(bin));
        }
    });
}

bool BAMFileHandler::write_index_to_file(std::string index_file, FileIndex& index) const {
    file_name = std::move(index_file);
    std::ofstream out(file_name, std::ios::binary | std::ios::trunc);
    if (!out) {
        return fail(error_message, "Cannot open index file " + file_name + " for writing");
    }
    out.write(BAI_MAGIC_WORD, sizeof BAI_MAGIC_WORD);
    write_number(out, index.n_ref);
    for (std::int32_t ref = 0; ref < index.n_ref; ++ref) {
        write_reference_index(out, index.ref_indices[ref]);
    }
    write_number(out, index.n_no_coor);
    return true;
}

bool BAMFileHandler::print_index_from_file(std::string index_file) const {
    file_name = std::move(index_file);
    auto const clear_file_name = gsl::finally([this] { file_name.clear(); });
    std::ifstream in;
    if (!open_for_reading(in, file_name, std::ios::in | std::ios::binary)) {
        return fail(error_message, "Cannot open index file " + file_name);
    }
    char magic[sizeof BAI_MAGIC_WORD] = {};
    in.read(magic, sizeof magic);
    if (std::memcmp(magic, BAI_MAGIC_WORD, sizeof magic) != 0) {
        return fail(error_message, "Encountered malformed BAI header in file " + file_name);
    }
    auto const n_ref = read_number<std::int32_t>(in);
    IndexPrinter printer(in, std::cout);
    printer.print_line("n_ref is " + std::to_string(n_ref));
    for (std::int32_t ref = 0; ref < n_ref && in; ++ref) {
        if (!printer.print_reference(ref)) {
            return fail(error_message,
                        "Encountered malformed magic bin in index file " + file_name);
        }
    }

    auto const n_no_coor = read_number<std::uint64_t>(in);
    if (in) printer.print_line("Got n_no_coor " + std::to_string(n_no_coor));
    char extra = '\0';
    if (in.read(&extra, 1)) {
        printer.print_line("Error: more bytes available in the index file!");
    }
    return true;
}

// ===========================================================================
// 6. Basecaller read annotations
//
// Static functions that turn a basecaller's output into SAM text: the columns of
// an unmapped read, its move table, its modified-base calls. Which positions
// are called is kept as bits, 64 positions to a block, beside the bits of where
// each base stands: motifs and, for bases without one, probabilities set them.
// ===========================================================================

namespace {

using ByteView = tesk::data_wrappers::VecView<unsigned char>;

using namespace std::string_view_literals;

constexpr std::string_view CANONICAL_BASES = "ACGT";

// What stands in the place of an index where a letter is no base.
constexpr std::size_t NO_BASE = CANONICAL_BASES.size();

constexpr std::array<std::uint8_t, 256> BASE_INDICES = [] {
    std::array<std::uint8_t, 256> indices{};
    for (std::uint8_t& index : indices) index = NO_BASE;
    for (std::uint8_t i = 0; i < NO_BASE; ++i) {
        indices[static_cast<unsigned char>(CANONICAL_BASES[i])] = i;
    }
    return indices;
}();

// Index of a base in CANONICAL_BASES; NO_BASE for another letter.
std::size_t find_base(char letter) { return BASE_INDICES[static_cast<unsigned char>(letter)]; }

// As a lookup in BaseModContext does.
[[noreturn]] void throw_no_base() { throw std::out_of_range("map::at"); }

// Whether an output string is one of the inputs, which must then be read first.
template <typename... Inputs>
bool is_one_of_inputs(std::string const& out, Inputs const&... inputs) {
    return ((&out == &inputs) || ...);
}

// Appends many short texts to a string, gathered into larger pieces.
class PieceWriter {
public:
    explicit PieceWriter(std::string& out) : out_(out) {}
    PieceWriter(PieceWriter const&) = delete;
    PieceWriter& operator=(PieceWriter const&) = delete;

    // Takes texts of up to n bytes together: the function writes them where it is
    // told to, and returns their end. It should hold that pointer in a local
    // variable: to the compiler, chars written might change any member.
    template <typename Write>
    void add(std::size_t n, Write write) {
        if (n > static_cast<std::size_t>(std::end(piece_) - next_)) flush();
        next_ = write(next_);
    }

    // Adds texts of any length.
    template <typename... Texts>
    void add_texts(Texts... texts) {
        std::size_t const n = (texts.size() + ...);
        if (n > sizeof piece_) {
            flush();
            (out_.append(texts), ...);
            return;
        }
        add(n, [&](char* next) {
            ((next = std::copy(texts.begin(), texts.end(), next)), ...);
            return next;
        });
    }

    // Hands over what has been gathered; to be called at the end.
    void flush() {
        out_.append(piece_, next_);
        next_ = piece_;
    }

private:
    std::string& out_;
    char piece_[4096];
    char* next_ = piece_;
};

// Copies elements of a view, from the k-th on.
template <std::size_t N>
void copy_from(ByteView const& view, std::size_t k, std::array<char, N>& elements) {
    if (view.stride == 1) {
        std::memcpy(elements.data(), view.data + k, N);
    } else {
        for (std::size_t i = 0; i < N; ++i) elements[i] = static_cast<char>(view[k + i]);
    }
}

// Room for a comma and a number.
constexpr std::size_t ELEMENT_ROOM = 1 + NUMBER_ROOM;

// Writes ",n"; returns its end.
template <typename Integer>
char* write_element(char* out, Integer number) {
    *out = ',';
    return write_integer(out + 1, number);
}

// Writes an entry of a move table as numbers of seven bits, of which it takes three at
// most: runs of 127, then the rest, which is there even when it is 0.
char* write_move(char* out, unsigned char move) {
    constexpr unsigned char RUN = 127;
    for (; move >= RUN; move = static_cast<unsigned char>(move - RUN)) {
        out = write_element(out, RUN);
    }
    return write_element(out, move);
}
constexpr std::size_t MOVE_ROOM = 3 * ELEMENT_ROOM;

// Finds the code of a modification by its name; it may point into the name.
bool find_mod_code(std::string_view name, std::string_view& code) {
    // Deliberate: 5fc, unlike its neighbours, ends in lower case.
    constexpr std::pair<std::string_view, std::string_view> CODES[] = {
        {"6mA", "a"},   {"5mC", "m"},  {"5hmC", "h"}, {"5fc", "f"},  {"5caC", "c"},
        {"8oxoG", "o"}, {"5hmU", "g"}, {"5fU", "e"},  {"5caU", "b"},
    };
    auto const* const known = std::find_if(std::begin(CODES), std::end(CODES),
                                           [&](auto const& entry) { return entry.first == name; });
    bool const is_known = known != std::end(CODES);
    if (!is_known && !std::all_of(name.begin(), name.end(), is_digit)) return false;
    code = is_known ? known->second : name;
    return true;
}

bool fail_with_unknown_name(std::string& error, std::string_view name) {
    return fail(error, "Unknown modified base abbreviation: " + std::string(name));
}

// A channel of a modification, and the index of the base that it modifies.
struct ModChannel {
    std::size_t column;
    std::size_t base;
};

// Throws "map::at" for an alphabet that begins with a modification.
std::vector<ModChannel> find_mod_channels(std::string_view alphabet) {
    std::vector<ModChannel> channels;
    channels.reserve(alphabet.size());
    std::size_t base = NO_BASE;
    for (std::size_t c = 0; c < alphabet.size(); ++c) {
        std::size_t const letter = find_base(alphabet[c]);
        if (letter != NO_BASE) {
            base = letter;
        } else if (base != NO_BASE) {
            channels.push_back({c, base});
        } else {
            throw_no_base();
        }
    }
    return channels;
}

// The context of a base: letters that stand around it, none for no context. The
// letter at the offset stands for the base, whatever it is.
struct Motif {
    std::string_view letters;
    std::size_t offset = 0;
};
using Motifs = std::array<Motif, CANONICAL_BASES.size()>;  // by base index

Motifs motifs_of(BaseModContext const& context) {
    Motifs motifs;
    for (std::size_t i = 0; i < motifs.size(); ++i) {
        motifs[i] = {context.motif(CANONICAL_BASES[i]), context.motif_offset(CANONICAL_BASES[i])};
    }
    return motifs;
}

// Takes contexts over from their text form, which they then point into. False as
// BaseModContext::decode(), with the same effect on the motifs.
bool parse_motifs(std::string_view text, Motifs& motifs) {
    std::vector<boost::iterator_range<std::string_view::iterator>> fields;
    boost::split(fields, text, boost::is_any_of(":"));
    if (fields.size() != motifs.size()) return false;
    for (std::size_t i = 0; i < motifs.size(); ++i) {
        std::string_view const field(fields[i].begin(), fields[i].size());
        if (field == "_") {
            motifs[i] = Motif();
            continue;
        }
        std::size_t const offset = field.find('X');
        if (offset == std::string_view::npos) return false;
        motifs[i] = {field, offset};
    }
    return true;
}

// Some positions of a read, each a bit of a number, the first the lowest.
using PositionBits = std::uint64_t;
constexpr std::size_t BLOCK_BASES = 64;

// 64 positions of a read: by base index, where the bases stand and which of them
// are called.
struct Block {
    std::array<PositionBits, CANONICAL_BASES.size()> is_base;
    std::array<PositionBits, CANONICAL_BASES.size()> is_called;
};

// The lowest n bits, all of them for 64 or more.
PositionBits lowest_bits(std::size_t n) {
    return n < BLOCK_BASES ? (PositionBits{1} << n) - 1 : ~PositionBits{0};
}

// Number of bits set: sums of pairs of bits, of four, of bytes, of all.
unsigned count_bits(PositionBits bits) {
    bits -= bits >> 1U & 0x5555555555555555U;
    bits = (bits & 0x3333333333333333U) + (bits >> 2U & 0x3333333333333333U);
    bits = (bits + (bits >> 4U)) & 0x0F0F0F0F0F0F0F0FU;
    return static_cast<unsigned>(bits * 0x0101010101010101U >> 56U);
}

// Calls a function with the place of each bit set, and with all bits below it.
template <typename Function>
void for_each_bit(PositionBits bits, Function function) {
    while (bits != 0) {
        PositionBits const others_and_below = bits - 1;
        function(lowest_bit(bits), others_and_below & ~bits);
        bits &= others_and_below;
    }
}

// A read as blocks without calls. A block without bases follows the last ones, so
// that every block with bases has a successor.
std::vector<Block> make_blocks(std::string_view sequence) {
    std::vector<Block> blocks(sequence.size() / BLOCK_BASES + 2);
    auto const find_bases = [](Block& block, char const* letters) {
        for (std::size_t i = 0; i < CANONICAL_BASES.size(); ++i) {
            block.is_base[i] = find_in_64(letters, Char{CANONICAL_BASES[i]});
        }
    };
    std::size_t const n_whole = sequence.size() / BLOCK_BASES;
    for (std::size_t b = 0; b < n_whole; ++b) {
        find_bases(blocks[b], sequence.data() + b * BLOCK_BASES);
    }
    std::array<char, BLOCK_BASES> rest{};
    sequence.copy(rest.data(), rest.size(), n_whole * BLOCK_BASES);
    find_bases(blocks[n_whole], rest.data());
    return blocks;
}

// Whether a read has letters that are no bases.
bool has_other_letters(std::size_t n_bases, std::vector<Block> const& blocks) {
    auto const known_in = [](Block const& block) {
        PositionBits known = 0;
        for (PositionBits const is_base : block.is_base) known |= is_base;
        return known;
    };
    std::size_t const n_whole = n_bases / BLOCK_BASES;
    PositionBits unknown = known_in(blocks[n_whole]) ^ lowest_bits(n_bases % BLOCK_BASES);
    for (std::size_t b = 0; b < n_whole; ++b) unknown |= ~known_in(blocks[b]);
    return unknown != 0;
}

// Where a base stands among the 64 positions that begin anywhere in a block.
PositionBits bits_from(Block const* block, std::size_t place, std::size_t base) {
    PositionBits const next = block[1].is_base[base] << 1U << (BLOCK_BASES - 1 - place);
    return block[0].is_base[base] >> place | next;
}

// Marks a base as called wherever its motif stands in a read. Deliberate: a motif
// that ends with the read is not seen.
void mark_motif(Motif const& motif, std::size_t base, std::size_t n_bases,
                std::vector<Block>& blocks) {
    std::size_t const n_letters = motif.letters.size();
    std::size_t const n_starts = n_bases > n_letters ? n_bases - n_letters : 0;
    // By letters, each for some blocks: long motifs are given up where nothing
    // begins like them.
    std::array<PositionBits, 16> found;
    for (std::size_t begin = 0; begin < n_starts; begin += found.size() * BLOCK_BASES) {
        std::size_t const n = std::min(found.size(), (n_starts - begin - 1) / BLOCK_BASES + 1);
        for (std::size_t k = 0; k < n; ++k) {
            found[k] = lowest_bits(n_starts - begin - k * BLOCK_BASES);
        }
        PositionBits any = 1;
        for (std::size_t j = 0; j < n_letters && any != 0; ++j) {
            std::size_t const letter = j == motif.offset ? base : find_base(motif.letters[j]);
            if (letter == NO_BASE) return;
            Block const* const block = &blocks[(begin + j) / BLOCK_BASES];
            any = 0;
            for (std::size_t k = 0; k < n; ++k) {
                found[k] &= bits_from(block + k, j % BLOCK_BASES, letter);
                any |= found[k];
            }
        }
        Block* const block = &blocks[(begin + motif.offset) / BLOCK_BASES];
        std::size_t const place = motif.offset % BLOCK_BASES;
        for (std::size_t k = 0; k < n; ++k) {
            block[k].is_called[base] |= found[k] << place;
            block[k + 1].is_called[base] |= found[k] >> 1U >> (BLOCK_BASES - 1 - place);
        }
    }
}

// Marks the bases that stand in their context. Throws "map::at" where a letter
// of the read is no base, also where no motif could match.
void mark_contexts(Motifs const& motifs, std::string_view sequence, std::vector<Block>& blocks) {
    if (has_other_letters(sequence.size(), blocks)) throw_no_base();
    for (std::size_t base = 0; base < motifs.size(); ++base) {
        if (!motifs[base].letters.empty()) {
            mark_motif(motifs[base], base, sequence.size(), blocks);
        }
    }
}

// A column of the probabilities: that of one channel, by position in the read.
ByteView column_of(ByteView const& probs, std::size_t column, std::size_t n_channels) {
    std::size_t const n_rows = n_channels == 0 ? 0 : probs.size / n_channels;
    return {n_rows == 0 ? probs.data : &probs[column], n_rows, probs.stride * n_channels};
}

// Marks the bases without a context that have a channel which reaches the
// threshold.
void mark_probable(Motifs const& motifs, std::vector<ModChannel> const& channels,
                   std::size_t n_channels, ByteView const& probs, unsigned char threshold,
                   std::vector<Block>& blocks) {
    for (ModChannel const& channel : channels) {
        // Bases with a context are reported by their context alone.
        if (!motifs[channel.base].letters.empty()) continue;
        ByteView const column = column_of(probs, channel.column, n_channels);
        std::size_t begin = 0;
        for (Block& block : blocks) {
            PositionBits called = block.is_called[channel.base];
            for_each_bit(block.is_base[channel.base] & ~called, [&](std::size_t i, PositionBits) {
                PositionBits const is_reached = column[begin + i] >= threshold ? 1 : 0;
                called |= is_reached << i;  // a branch would go either way
            });
            block.is_called[channel.base] = called;
            begin += BLOCK_BASES;
        }
    }
}

// Sets the mask to 1 where bases are called.
void mark_calls(std::vector<Block> const& blocks, std::vector<int>& mask) {
    std::size_t begin = 0;
    for (Block const& block : blocks) {
        for (PositionBits const called : block.is_called) {
            for_each_bit(called, [&](std::size_t i, PositionBits) { mask[begin + i] = 1; });
        }
        begin += BLOCK_BASES;
    }
}

// The part of the Mm field that says where calls are: ",n" for each, n the bases
// of its kind skipped before it.
std::string skips_text(std::size_t base, std::vector<Block> const& blocks) {
    std::string text;
    PieceWriter writer(text);
    std::uint64_t n_bases = 0;       // of this kind, before the block
    std::uint64_t n_bases_done = 0;  // up to and with the last call
    for (Block const& block : blocks) {
        PositionBits const is_base = block.is_base[base];
        writer.add(BLOCK_BASES * ELEMENT_ROOM, [&](char* next) {
            for_each_bit(block.is_called[base], [&](std::size_t, PositionBits below) {
                std::uint64_t const n_before = n_bases + count_bits(is_base & below);
                next = write_element(next, n_before - n_bases_done);
                n_bases_done = n_before + 1;
            });
            return next;
        });
        n_bases += count_bits(is_base);
    }
    writer.flush();
    return text;
}

// Adds ",n" for the probability of each call.
void add_probabilities(PieceWriter& writer, std::size_t base, ByteView const& column,
                       std::vector<Block> const& blocks) {
    std::size_t begin = 0;
    for (Block const& block : blocks) {
        writer.add(BLOCK_BASES * ELEMENT_ROOM, [&](char* next) {
            for_each_bit(block.is_called[base], [&](std::size_t i, PositionBits) {
                next = write_element(next, column[begin + i]);
            });
            return next;
        });
        begin += BLOCK_BASES;
    }
}

}  // namespace

bool BAMFileHandler::make_unmapped_sam_line(std::string& out, std::string const& read_name,
                                            std::string const& sequence, std::string const& qstring,
                                            std::string& error) {
    if (sequence.size() != qstring.size()) {
        return fail(error, "sequence and qscore do not match size!");
    }
    if (read_name.empty()) return fail(error, "Empty read_name string provided!");
    if (sequence.empty()) return fail(error, "Empty sequence and qstring provided!");
    if (is_one_of_inputs(out, read_name, sequence, qstring)) {
        std::string line;
        make_unmapped_sam_line(line, read_name, sequence, qstring, error);
        out = std::move(line);
        return true;
    }

    // FLAG 4, no RNAME, POS 0, MAPQ 0, no CIGAR, no RNEXT, PNEXT 0.
    constexpr std::string_view UNMAPPED_COLUMNS = "\t4\t*\t0\t0\t*\t*\t0\t";
    constexpr std::size_t MAX_TLEN_BYTES = 20;
    char columns[UNMAPPED_COLUMNS.size() + MAX_TLEN_BYTES + 1];
    char* end = std::copy(UNMAPPED_COLUMNS.begin(), UNMAPPED_COLUMNS.end(), columns);
    // Deliberate: TLEN is not 0.
    end = std::to_chars(end, end + MAX_TLEN_BYTES, sequence.size()).ptr;
    *end++ = '\t';
    out.clear();
    out.reserve(read_name.size() + sizeof columns + 2 * sequence.size() + 1);
    out += read_name;
    out.append(columns, end);
    out += sequence;
    out += '\t';
    out += qstring;
    return true;
}

bool BAMFileHandler::generate_move_table_string(std::string& out, ByteView const& moves,
                                                signed char stride, std::string& error) {
    if (moves.size == 0) {
        return fail(error, "Zero length move table provided to generate_move_table_string");
    }
    char stride_text[NUMBER_ROOM];
    out = "mv:B:c,";
    out.append(stride_text, write_integer(stride_text, stride));
    PieceWriter writer(out);
    std::size_t k = 0;
    for (std::array<char, DIGITS_AT_A_TIME> block; moves.size - k >= block.size();
         k += block.size()) {
        copy_from(moves, k, block);
        writer.add(block.size() * MOVE_ROOM, [&](char* next) {
            // Nearly all entries are 0 or 1.
            char* const end = write_single_digits(next, block.data());
            if (end != nullptr) return end;
            for (char const move : block) next = write_move(next, static_cast<unsigned char>(move));
            return next;
        });
    }
    for (; k < moves.size; ++k) {
        writer.add(MOVE_ROOM, [&](char* next) { return write_move(next, moves[k]); });
    }
    writer.flush();
    return true;
}

bool BAMFileHandler::generate_modbase_string(
    std::string& modbase_string, std::string const& sequence, std::string const& modbase_alphabet,
    std::string const& modbase_long_names, std::string const& context,
    ByteView const& modbase_probs, unsigned char threshold, std::string& error_message) {
    std::size_t const n_channels = modbase_alphabet.size();
    bool const sizes_match = n_channels == 0
                                 ? modbase_probs.size == 0
                                 : modbase_probs.size % n_channels == 0 &&
                                       modbase_probs.size / n_channels == sequence.size();
    if (!sizes_match) {
        return fail(error_message,
                    "Mismatch between modbase_probs size and sequence length * num channels in "
                    "modbase_alphabet!");
    }
    if (is_one_of_inputs(modbase_string, sequence, modbase_alphabet, modbase_long_names, context)) {
        std::string fields;
        bool const done =
            generate_modbase_string(fields, sequence, modbase_alphabet, modbase_long_names, context,
                                    modbase_probs, threshold, error_message);
        modbase_string = std::move(fields);
        return done;
    }

    modbase_string = "Mm:Z:";
    Motifs motifs;
    if (!context.empty() && !parse_motifs(context, motifs)) {
        throw std::runtime_error("Invalid base modification context string.");
    }
    std::vector<Block> blocks = make_blocks(sequence);
    mark_contexts(motifs, sequence, blocks);
    std::vector<ModChannel> const channels = find_mod_channels(modbase_alphabet);
    mark_probable(motifs, channels, n_channels, modbase_probs, threshold, blocks);

    TextCursor names(modbase_long_names);
    PieceWriter writer(modbase_string);
    // All channels of a base have the same calls.
    std::size_t skips_base = NO_BASE;
    std::string skips;
    for (ModChannel const& channel : channels) {
        std::string_view name;
        names.read_word(name);
        std::string_view code;
        if (!find_mod_code(name, code)) {
            writer.flush();
            return fail_with_unknown_name(error_message, name);
        }
        if (skips_base != channel.base) {
            skips_base = channel.base;
            skips = skips_text(channel.base, blocks);
        }
        // A one-letter motif is no context, but every base of its kind.
        std::string_view const mark = motifs[channel.base].letters.size() > 1 ? "?"sv : ""sv;
        writer.add_texts(CANONICAL_BASES.substr(channel.base, 1), "+"sv, code, mark,
                         std::string_view(skips), ";"sv);
    }
    writer.add_texts("\tMl:B:C"sv);
    for (ModChannel const& channel : channels) {
        add_probabilities(writer, channel.base,
                          column_of(modbase_probs, channel.column, n_channels), blocks);
    }
    writer.flush();
    return true;
}

bool BAMFileHandler::generate_modbase_string(std::string& modbase_string,
                                             std::string const& sequence,
                                             std::string const& modbase_alphabet,
                                             std::string const& modbase_long_names,
                                             ByteView const& modbase_probs, unsigned char threshold,
                                             std::string& error_message) {
    return generate_modbase_string(modbase_string, sequence, modbase_alphabet, modbase_long_names,
                                   std::string(), modbase_probs, threshold, error_message);
}

bool BAMFileHandler::get_modbase_channel_name(std::string& channel_code,
                                              std::string const& long_name,
                                              std::string& error_message) {
    std::string_view code;
    if (!find_mod_code(long_name, code)) return fail_with_unknown_name(error_message, long_name);
    channel_code = code;
    return true;
}

BaseModContext::BaseModContext() {
    for (std::size_t i = 0; i < CANONICAL_BASES.size(); ++i) base_to_index[CANONICAL_BASES[i]] = i;
}

void BaseModContext::set_context(std::string motif, std::size_t offset) {
    auto const index = base_to_index.find(motif.at(offset));
    if (index == base_to_index.end()) {
        throw std::runtime_error("Invalid motif string '" + motif + "'.");
    }
    motifs[index->second] = std::move(motif);
    offsets[index->second] = offset;
}

std::string const& BaseModContext::motif(char base) const { return motifs[base_to_index.at(base)]; }

std::size_t BaseModContext::motif_offset(char base) const {
    return offsets[base_to_index.at(base)];
}

std::vector<int> BaseModContext::get_sequence_mask(std::string const& sequence) const {
    std::vector<Block> blocks = make_blocks(sequence);
    mark_contexts(motifs_of(*this), sequence, blocks);
    std::vector<int> mask(sequence.size(), 0);
    mark_calls(blocks, mask);
    return mask;
}

void BaseModContext::update_mask(std::vector<int>& mask, std::string const& sequence,
                                 std::string const& modbase_alphabet, ByteView const& modbase_probs,
                                 unsigned char threshold) const {
    std::size_t const n_channels = modbase_alphabet.size();
    if (n_channels == 0) return;
    if (mask.size() < sequence.size() || modbase_probs.size / n_channels < sequence.size()) {
        throw std::out_of_range("Mask or probabilities shorter than the sequence");
    }
    std::vector<Block> blocks = make_blocks(sequence);
    mark_probable(motifs_of(*this), find_mod_channels(modbase_alphabet), n_channels, modbase_probs,
                  threshold, blocks);
    mark_calls(blocks, mask);
}

std::string BaseModContext::encode() const {
    std::string text;
    for (std::size_t i = 0; i < motifs.size(); ++i) {
        if (i != 0) text += ':';
        if (motifs[i].empty()) {
            text += '_';
            continue;
        }
        std::string field = motifs[i];
        field[offsets[i]] = 'X';
        text += field;
    }
    return text;
}

bool BaseModContext::decode(std::string const& text) {
    Motifs parsed = motifs_of(*this);
    bool const done = parse_motifs(text, parsed);
    // Aside, since what has been parsed may point into the motifs.
    std::array<std::string, CANONICAL_BASES.size()> letters;
    for (std::size_t i = 0; i < parsed.size(); ++i) {
        letters[i] = parsed[i].letters;
        offsets[i] = parsed[i].offset;
        if (!letters[i].empty()) letters[i][offsets[i]] = CANONICAL_BASES[i];
    }
    motifs = std::move(letters);
    return done;
}

}  // namespace tesk::util::bam
