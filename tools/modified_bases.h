// The calls of modified bases in a file.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "interop/record_codec.h"

namespace tesk::tool {

/// Calls of one modification of one base.
struct Modification {
    char base = 'N';            // in the read as it came from the instrument
    char strand = '+';          // '-': the strand opposite to the read
    std::string code;           // a letter or a number of the ChEBI database; may be empty
    std::uint64_t n_reads = 0;  // that have a group of it, maybe without calls
    std::uint64_t n_calls = 0;
    std::array<std::uint64_t, 256> by_probability{};  // calls that have a value of Ml
};

/// Why the fields of a read are not counted.
enum class ModificationFault {
    SYNTAX,         // Mm is missing, no text, or none of its form
    PROBABILITIES,  // Ml is no array of type C, or has another number of values than Mm calls
    POSITIONS,      // Mm names more bases than the read has
};
constexpr std::size_t N_MODIFICATION_FAULTS = 3;

/// What is wrong with such fields, in words for people.
char const* text_of(ModificationFault fault);

/// Counts calls from the fields Mm and Ml, or MM and ML: a group
/// "C+mh?,skipped,skipped;" for each base and strand, its codes being letters or one
/// number, and a probability for each call and code.
class ModifiedBases {
public:
    /// Of more kinds, the calls of the later ones are only summed up.
    static constexpr std::size_t MAX_KINDS = 64;

    void add(interop::RecordView record);

    /// In the order of base, strand and code.
    std::vector<Modification> sorted_kinds() const;

    /// Reads with such fields, those with faults included.
    std::uint64_t n_reads() const { return n_reads_; }
    std::uint64_t n_faulty(ModificationFault fault) const {
        return faults_[static_cast<std::size_t>(fault)];
    }
    std::uint64_t n_calls_of_other_kinds() const { return n_calls_of_other_kinds_; }

private:
    // Positions of one base and strand, called for some modifications.
    struct Group {
        char base = 'N';
        char strand = '+';
        std::string_view codes;
        bool is_number = false;     // the codes are one number
        std::uint64_t n_calls = 0;  // positions
        std::uint64_t n_bases = 0;  // skipped and called

        std::size_t n_codes() const { return is_number || codes.empty() ? 1 : codes.size(); }
    };

    // Takes a text apart into groups_; false where it is not of its form.
    bool parse(std::string_view text);
    static bool parse_group(std::string_view& text, Group& group);
    // Whether a read has as many bases as the groups skip and call.
    bool has_positions(interop::RecordView record) const;
    void refuse(ModificationFault fault) { ++faults_[static_cast<std::size_t>(fault)]; }
    // @param values  of Ml, the group's own first; null where there are none
    void count(Group const& group, unsigned char const* values);
    Modification* kind_of(Group const& group, std::string_view code);

    std::vector<Modification> kinds_;  // in the order in which they came
    std::vector<Group> groups_;        // of the read in work
    std::uint64_t n_reads_ = 0;
    std::uint64_t n_calls_of_other_kinds_ = 0;
    std::array<std::uint64_t, N_MODIFICATION_FAULTS> faults_{};
};

}  // namespace tesk::tool
