// What reading a file changed in it, and what it found wrong with it.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "util/bam/export.h"

namespace tesk::interop {

/// Something that was read otherwise than it stands in the file.
enum class Repair {
    HEADER_VERSION,            ///< VN of @HD is missing, malformed (as is a major version
                               ///< other than 1) or below 1.6: now 1.6
    HEADER_UNKNOWN_FIELD,      ///< a field of @HD other than VN, SO, GO and SS, all but the
                               ///< last one of a kind, an empty field, or a blank in the
                               ///< place of a tab: dropped
    HEADER_GROUP_BESIDE_SORT,  ///< GO beside SO: dropped
    HEADER_ORDER_VALUE,        ///< a value of SO, GO or SS that is not allowed: dropped
    HEADER_PADDING,            ///< NUL bytes after the header text: dropped
    HEADER_BLANK_LINE,         ///< dropped
    HEADER_UNKNOWN_TYPE,       ///< a line of an unknown record type: kept as @CO
    REFERENCES_FROM_LIST,      ///< no @SQ lines: made from the binary reference list
    CARRIAGE_RETURN,           ///< before a line's end: dropped
    TRAILING_TAB,              ///< after the last field: dropped
    BLANK_FOR_TAB,             ///< between two optional fields: taken as a tab
    LOWER_CASE_BASE,           ///< a record with such bases: upper case
    DOT_BASE,                  ///< a record with bases ".": N
    URACIL_BASE,               ///< a record with bases "U": T, in BAM only
    WIDE_INTEGER,              ///< an i field above 2^31 - 1 in text: type I
    INTEGER_TYPE_LETTER,       ///< a field of type c, C, s, S or I in text: type i
    WIDE_ARRAY_ELEMENT,        ///< an I array in text with elements above 2^31 - 1
    FLOAT_UNDERFLOW,           ///< a number closer to 0 than floats get: the nearest float
    FLOAT_ARRAY,               ///< an f array in BAM: rendered with its shortest text
    PARTIAL_QUALITY,           ///< QUAL of a BAM record begins with 255 and goes on otherwise: "*"
    SHORT_INTEGER,             ///< an s or S field in BAM: widened to i or I
};
constexpr std::size_t N_REPAIRS = 21;

/// Something that is kept as it is but deserves a look.
enum class Warning {
    UNKNOWN_REFERENCE,     ///< RNAME or RNEXT is not in the header: read as "*"
    BEYOND_REFERENCE_END,  ///< a record ends behind the end of its reference
    MISSING_EOF_BLOCK,     ///< and this was allowed
};
constexpr std::size_t N_WARNINGS = 3;

/// Where in a file something stands.
struct TESK_BAM_EXPORT Place {
    /// What is counted.
    enum class Unit {
        FILE,         ///< the file as a whole; `number` means nothing
        LINE,         ///< of text, counted from 1 over header and alignments
        HEADER_LINE,  ///< of the header text of a BAM file, from 1
        RECORD        ///< of a BAM file, from 1
    };
    Unit unit = Unit::FILE;    ///< what `number` counts
    std::uint64_t number = 0;  ///< from 1

    /// "line 12", "header line 3", "record 7"; empty for the whole file.
    std::string text() const;
};

/// How often something was met, and where first.
struct Finding {
    std::uint64_t count = 0;  ///< how often
    Place first;              ///< where first, if at all
};

/// A word for programs, such as "header_version": the enumerator in lower case.
TESK_BAM_EXPORT char const* name_of(Repair repair);
TESK_BAM_EXPORT char const* name_of(Warning warning);

/// What happened, in words for people, such as
/// "VN of @HD is missing, malformed or below 1.6: set to 1.6".
TESK_BAM_EXPORT char const* text_of(Repair repair);
TESK_BAM_EXPORT char const* text_of(Warning warning);

/// Everything that reading one file found.
class TESK_BAM_EXPORT Report {
public:
    /// At most so many errors are kept as text; more are only counted.
    static constexpr std::size_t MAX_ERRORS = 100;

    /// Counts repairs of one kind, the first of which was made at a place.
    void add(Repair repair, Place place, std::uint64_t count = 1) {
        add_to(repairs_[static_cast<std::size_t>(repair)], place, count);
    }
    /// The same of warnings.
    void add(Warning warning, Place place, std::uint64_t count = 1) {
        add_to(warnings_[static_cast<std::size_t>(warning)], place, count);
    }
    /// @param message  as the reader's `error_message` has it
    void add_error(std::string message);

    /// What there is of one kind of repair.
    Finding const& of(Repair repair) const { return repairs_[static_cast<std::size_t>(repair)]; }
    /// The same of warnings.
    Finding const& of(Warning warning) const {
        return warnings_[static_cast<std::size_t>(warning)];
    }
    /// The errors that were kept, in their order.
    std::vector<std::string> const& errors() const { return errors_; }
    /// How many there were.
    std::uint64_t n_errors() const { return n_errors_; }

    /// One line for each kind of repair, then of warning, that was met, in the
    /// order of the enumerators, without line ends:
    /// "repaired: " + text_of() + " (12 times, first in line 3)" and
    /// "warning: " + text_of() + " (once, in record 7)"; of the file as a whole
    /// without brackets.
    std::vector<std::string> lines() const;

private:
    static void add_to(Finding& finding, Place place, std::uint64_t count) {
        if (finding.count == 0) finding.first = place;
        finding.count += count;
    }

    std::array<Finding, N_REPAIRS> repairs_{};
    std::array<Finding, N_WARNINGS> warnings_{};
    std::vector<std::string> errors_;
    std::uint64_t n_errors_ = 0;
};

}  // namespace tesk::interop
