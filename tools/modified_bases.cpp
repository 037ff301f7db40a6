#include "tools/modified_bases.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <system_error>
#include <tuple>
#include <utility>

#include "tools/flag.h"

namespace tesk::tool {

namespace {

constexpr std::size_t ARRAY_PREFIX_BYTES = 5;  // element type and count

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_letter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Takes the characters off the front of a text that satisfy a condition.
template <typename Condition>
std::string_view take_while(std::string_view& text, Condition condition) {
    auto const end = std::find_if_not(text.begin(), text.end(), condition);
    std::string_view const front = text.substr(0, static_cast<std::size_t>(end - text.begin()));
    text.remove_prefix(front.size());
    return front;
}

bool take(std::string_view& text, char c) {
    if (text.empty() || text.front() != c) return false;
    text.remove_prefix(1);
    return true;
}

// How many bases there are of each code in a read.
std::array<std::uint64_t, 16> count_bases(interop::RecordView record) {
    std::array<std::uint64_t, 16> counts{};
    auto const n_bases = static_cast<std::size_t>(record.l_seq());
    for (std::size_t i = 0; i < n_bases; ++i) {
        auto const pair = static_cast<unsigned char>(record.seq()[i / 2]);
        ++counts[i % 2 == 0 ? pair >> 4U : pair & 15U];
    }
    return counts;
}

std::size_t code_of(char base) { return interop::SEQ_BASES.find(base == 'U' ? 'T' : base); }

// A number of any size; beyond 32 bits, which is beyond every read, the largest one.
std::uint64_t number_of(std::string_view digits) {
    std::uint32_t number = 0;
    auto const result = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return result.ec == std::errc() ? number : std::numeric_limits<std::uint32_t>::max();
}

// A code has a bit for each of A, C, G and T, from the lowest.
std::size_t complement(std::size_t code) {
    return (code & 1U) << 3U | (code & 2U) << 1U | (code & 4U) >> 1U | (code & 8U) >> 3U;
}

// The fields of a record, as far as it has them.
struct Fields {
    std::optional<interop::OptionalField> calls;
    std::optional<interop::OptionalField> probabilities;
};

Fields fields_of(interop::RecordView record) {
    Fields fields;
    for (char const* at = record.aux(); at != record.end();) {
        interop::OptionalField const field = interop::optional_field_at(at);
        at = field.end;
        if (field.tag[0] != 'M') continue;
        if (field.tag[1] == 'm' || field.tag[1] == 'M') fields.calls = field;
        if (field.tag[1] == 'l' || field.tag[1] == 'L') fields.probabilities = field;
    }
    return fields;
}

// Whether a field is an array of so many bytes.
bool is_byte_array(interop::OptionalField const& field, std::uint64_t n_bytes) {
    if (field.type != 'B' || field.value[0] != 'C') return false;
    return static_cast<std::uint64_t>(field.end - field.value) - ARRAY_PREFIX_BYTES == n_bytes;
}

}  // namespace

char const* text_of(ModificationFault fault) {
    switch (fault) {
        case ModificationFault::SYNTAX: return "Mm is missing or not of its form";
        case ModificationFault::PROBABILITIES: return "Ml has not one value for each call";
        case ModificationFault::POSITIONS: return "Mm names more bases than the read has";
    }
    return "";
}

void ModifiedBases::add(interop::RecordView record) {
    Fields const fields = fields_of(record);
    if (!fields.calls && !fields.probabilities) return;
    ++n_reads_;
    if (!fields.calls || fields.calls->type != 'Z' || !parse(fields.calls->value)) {
        return refuse(ModificationFault::SYNTAX);
    }
    std::uint64_t n_values = 0;
    for (Group const& group : groups_) n_values += group.n_calls * group.n_codes();
    if (fields.probabilities && !is_byte_array(*fields.probabilities, n_values)) {
        return refuse(ModificationFault::PROBABILITIES);
    }
    if (!has_positions(record)) return refuse(ModificationFault::POSITIONS);
    auto const* values = fields.probabilities
                             ? reinterpret_cast<unsigned char const*>(fields.probabilities->value) +
                                   ARRAY_PREFIX_BYTES
                             : nullptr;
    for (Group const& group : groups_) {
        count(group, values);
        if (values != nullptr) values += group.n_calls * group.n_codes();
    }
}

bool ModifiedBases::parse(std::string_view text) {
    groups_.clear();
    while (!text.empty()) {
        if (!parse_group(text, groups_.emplace_back())) return false;
    }
    return true;
}

bool ModifiedBases::parse_group(std::string_view& text, Group& group) {
    constexpr std::string_view BASES = "ACGTUN";
    if (text.size() < 2 || BASES.find(text[0]) == std::string_view::npos) return false;
    if (text[1] != '+' && text[1] != '-') return false;
    group.base = text[0];
    group.strand = text[1];
    text.remove_prefix(2);
    group.codes = take_while(text, is_letter);
    if (group.codes.empty()) {
        group.codes = take_while(text, is_digit);
        group.is_number = true;
    }
    if (!take(text, '?')) take(text, '.');  // what the skipped bases are
    while (take(text, ',')) {
        std::string_view const digits = take_while(text, is_digit);
        if (digits.empty()) return false;
        ++group.n_calls;
        group.n_bases += number_of(digits) + 1;
    }
    return take(text, ';');
}

// Mm counts along the read as it came from the instrument.
bool ModifiedBases::has_positions(interop::RecordView record) const {
    if (record.l_seq() == 0) return true;  // nobody knows
    auto const counts = count_bases(record);
    bool const is_reverse = (record.flag() & FLAG_REVERSE) != 0;
    return std::all_of(groups_.begin(), groups_.end(), [&](Group const& group) {
        if (group.base == 'N') return group.n_bases <= static_cast<std::uint64_t>(record.l_seq());
        std::size_t const code = code_of(group.base);
        return group.n_bases <= counts[is_reverse ? complement(code) : code];
    });
}

void ModifiedBases::count(Group const& group, unsigned char const* values) {
    std::size_t const n_codes = group.n_codes();
    for (std::size_t i = 0; i < n_codes; ++i) {
        Modification* const kind =
            kind_of(group, group.is_number ? group.codes : group.codes.substr(i, 1));
        if (kind == nullptr) {
            n_calls_of_other_kinds_ += group.n_calls;
            continue;
        }
        ++kind->n_reads;
        kind->n_calls += group.n_calls;
        for (std::uint64_t call = 0; values != nullptr && call < group.n_calls; ++call) {
            ++kind->by_probability[values[call * n_codes + i]];
        }
    }
}

// The kind of a code, made anew where it is met first; null where there are too many.
Modification* ModifiedBases::kind_of(Group const& group, std::string_view code) {
    for (Modification& kind : kinds_) {
        if (kind.code == code && kind.base == group.base && kind.strand == group.strand) {
            return &kind;
        }
    }
    if (kinds_.size() == MAX_KINDS) return nullptr;
    Modification kind;
    kind.base = group.base;
    kind.strand = group.strand;
    kind.code = code;
    return &kinds_.emplace_back(std::move(kind));
}

std::vector<Modification> ModifiedBases::sorted_kinds() const {
    std::vector<Modification> kinds = kinds_;
    std::sort(kinds.begin(), kinds.end(), [](Modification const& a, Modification const& b) {
        return std::tie(a.base, a.strand, a.code) < std::tie(b.base, b.strand, b.code);
    });
    return kinds;
}

}  // namespace tesk::tool
