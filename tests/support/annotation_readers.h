// Readers of the optional fields that carry a basecaller's move table and its
// modified-base calls. They share nothing with the library, so that what it
// writes can be checked against what went in.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tesk::test {

/// One base that was called as modified.
struct ModCall {
    std::uint64_t position = 0;  // in the sequence, from 0
    unsigned probability = 0;    // 0 to 255
};

/// The calls of one modification channel, by position.
struct ModGroup {
    char base = '\0';              // canonical base as read
    std::string code;              // letter, number, or nothing
    bool by_context_only = false;  // a '?' stands after the code
    std::vector<ModCall> calls;
};

bool operator==(ModCall const& a, ModCall const& b);
bool operator==(ModGroup const& a, ModGroup const& b);

/// Groups as text, such as "C+m? 4:200 9:17" (position:probability), a line each.
std::string groups_text(std::vector<ModGroup> const& groups);

/// Reads the calls out of SAM text, a whole line or optional fields alone, that
/// has one Mm:Z: and one Ml:B:C: field.
///
/// @throws std::runtime_error  a field is missing or twice there, a number is
///         not in plain decimal or too large, a call lies beyond the last base
///         of its kind, or calls and probabilities differ in number
std::vector<ModGroup> read_modified_bases(std::string_view sam_text, std::string_view sequence);

/// A move table as the basecaller had it.
struct MoveTable {
    int stride = 0;
    std::vector<unsigned> moves;
};

bool operator==(MoveTable const& a, MoveTable const& b);

/// Reads the move table out of SAM text that has one mv:B:c field, and joins the
/// runs of 127 with the number after them.
///
/// @throws std::runtime_error  the field is missing or twice there, a number is
///         not in plain decimal or does not fit a signed byte, an entry is
///         negative, or the last run has no number after it
MoveTable read_move_table(std::string_view sam_text);

}  // namespace tesk::test
