#include "tests/support/annotation_readers.h"

#include <stdexcept>

#include "tests/support/text.h"

namespace tesk::test {

namespace {

[[noreturn]] void refuse(std::string const& what, std::string_view text) {
    throw std::runtime_error(what + ": " + std::string(text));
}

// What follows the prefix in the one column that begins with it.
std::string_view value_of_field(std::string_view sam_text, std::string_view prefix) {
    std::vector<std::string_view> found;
    for (std::string_view const column : split(sam_text, '\t')) {
        if (column.substr(0, prefix.size()) == prefix) {
            found.push_back(column.substr(prefix.size()));
        }
    }
    if (found.size() != 1) refuse("not one field " + std::string(prefix), sam_text);
    return found[0];
}

// A number without sign and leading zeros, up to a largest one.
std::uint64_t plain_number(std::string_view text, std::uint64_t largest) {
    if (text.empty() || text.size() > 19 || (text.size() > 1 && text[0] == '0')) {
        refuse("not a plain number", text);
    }
    std::uint64_t number = 0;
    for (char const c : text) {
        if (c < '0' || c > '9') refuse("not a plain number", text);
        number = 10 * number + static_cast<std::uint64_t>(c - '0');
    }
    if (number > largest) refuse("number too large", text);
    return number;
}

int signed_byte(std::string_view text) {
    if (text.substr(0, 1) != "-") return static_cast<int>(plain_number(text, 127));
    int const number = static_cast<int>(plain_number(text.substr(1), 128));
    if (number == 0) refuse("not a plain number", text);
    return -number;
}

// Elements of an array field: nothing, or each after a comma.
std::vector<std::string_view> elements_of(std::string_view value) {
    if (value.empty()) return {};
    if (value[0] != ',') refuse("no comma after the element type", value);
    return split(value.substr(1), ',');
}

// "C+m?" without its calls.
ModGroup parse_group_head(std::string_view head) {
    if (head.size() < 2 || head[1] != '+') refuse("not a base and '+'", head);
    ModGroup group;
    group.base = head[0];
    head.remove_prefix(2);
    if (!head.empty() && head.back() == '?') {
        group.by_context_only = true;
        head.remove_suffix(1);
    }
    group.code = head;
    return group;
}

std::vector<std::uint64_t> positions_of(char base, std::string_view sequence) {
    std::vector<std::uint64_t> positions;
    for (std::size_t i = 0; i < sequence.size(); ++i) {
        if (sequence[i] == base) positions.push_back(i);
    }
    return positions;
}

ModGroup parse_group(std::string_view text, std::string_view sequence) {
    std::vector<std::string_view> const parts = split(text, ',');
    ModGroup group = parse_group_head(parts[0]);
    std::vector<std::uint64_t> const candidates = positions_of(group.base, sequence);
    std::uint64_t next = 0;
    for (std::size_t k = 1; k < parts.size(); ++k) {
        next += plain_number(parts[k], sequence.size());
        if (next >= candidates.size()) refuse("call beyond the last base of its kind", text);
        group.calls.push_back({candidates[next], 0});
        ++next;
    }
    return group;
}

}  // namespace

bool operator==(ModCall const& a, ModCall const& b) {
    return a.position == b.position && a.probability == b.probability;
}

bool operator==(ModGroup const& a, ModGroup const& b) {
    return a.base == b.base && a.code == b.code && a.by_context_only == b.by_context_only &&
           a.calls == b.calls;
}

std::string groups_text(std::vector<ModGroup> const& groups) {
    std::string text;
    for (ModGroup const& group : groups) {
        text += group.base;
        text += '+' + group.code + (group.by_context_only ? "?" : "");
        for (ModCall const& call : group.calls) {
            text += ' ' + std::to_string(call.position) + ':' + std::to_string(call.probability);
        }
        text += '\n';
    }
    return text;
}

std::vector<ModGroup> read_modified_bases(std::string_view sam_text, std::string_view sequence) {
    std::vector<ModGroup> groups;
    std::string_view const mm = value_of_field(sam_text, "Mm:Z:");
    std::vector<std::string_view> group_texts = split(mm, ';');
    if (!group_texts.back().empty()) refuse("no ';' after the last group", mm);
    group_texts.pop_back();
    for (std::string_view const text : group_texts) groups.push_back(parse_group(text, sequence));

    std::vector<std::string_view> const bytes = elements_of(value_of_field(sam_text, "Ml:B:C"));
    std::size_t n_read = 0;
    for (ModGroup& group : groups) {
        for (ModCall& call : group.calls) {
            if (n_read == bytes.size()) refuse("fewer probabilities than calls", sam_text);
            call.probability = static_cast<unsigned>(plain_number(bytes[n_read++], 255));
        }
    }
    if (n_read != bytes.size()) refuse("more probabilities than calls", sam_text);
    return groups;
}

bool operator==(MoveTable const& a, MoveTable const& b) {
    return a.stride == b.stride && a.moves == b.moves;
}

MoveTable read_move_table(std::string_view sam_text) {
    std::string_view const value = value_of_field(sam_text, "mv:B:c");
    std::vector<std::string_view> const elements = elements_of(value);
    if (elements.empty()) refuse("no stride", value);
    MoveTable table;
    table.stride = signed_byte(elements[0]);
    unsigned sum = 0;
    bool inside_run = false;
    for (std::size_t k = 1; k < elements.size(); ++k) {
        int const number = signed_byte(elements[k]);
        if (number < 0) refuse("negative entry", value);
        sum += static_cast<unsigned>(number);
        inside_run = number == 127;
        if (inside_run) continue;
        table.moves.push_back(sum);
        sum = 0;
    }
    if (inside_run) refuse("no number after a run of 127", value);
    return table;
}

}  // namespace tesk::test
