// The header of a file of alignments, repaired so that everybody takes it.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "interop/report.h"
#include "util/bam/bam_file.h"
#include "util/bam/export.h"

namespace tesk::interop {

using RefSeq = util::bam::BAMFileHandler::RefSeq;

/// Header text and references. Empty when default-constructed.
///
/// Whatever an assign member accepts, BAMFileHandler::add_header_lines() accepts
/// too, and gets the same references from it. Lines that need no repair stay byte
/// for byte; an @HD line that does gets its fields in the order VN, SO or GO, SS,
/// and where it has a field more than once, the last one holds.
class TESK_BAM_EXPORT Header {
public:
    Header() = default;
    /// Takes over text and references, which stay where they are in memory.
    Header(Header&&) = default;
    /// The same, in the place of what was there.
    Header& operator=(Header&&) = default;
    Header(Header const&) = delete;
    Header& operator=(Header const&) = delete;

    /// Takes over the header lines of a SAM file.
    ///
    /// @param text    lines that begin with '@' (or are blank), each with its
    ///                '\n'; the last one may lack it
    /// @param report  receives the repairs; places are lines, the first one 1
    /// @param error   on false, the reason, beginning with the line:
    ///                "line 3: " + ...
    /// On false the header is empty.
    bool assign_sam(std::string_view text, Report& report, std::string& error);

    /// Takes over the header of a BAM file.
    ///
    /// @param text    its header text, padding included
    /// @param list    its binary reference list; where the text has @SQ lines,
    ///                both must agree, else they are made from it
    /// @param report  receives the repairs; places are header lines, from 1
    /// @param error   on false, the reason, such as "header line 3: " + ...;
    ///                for lists that differ it names the first difference:
    ///                "the header text and the reference list differ at
    ///                reference 2: chr2 of 100 bases and chr2 of 90 bases"
    ///                (one line; "nothing" where one of them has ended);
    ///                for entries of the list that can have no @SQ line
    ///                "reference 2 of the list: " + ...
    /// On false the header is empty.
    bool assign_bam(std::string_view text, std::vector<RefSeq> list, Report& report,
                    std::string& error);

    /// The repaired text: complete lines, with an @SQ line for each reference.
    std::string const& text() const { return text_; }

    /// The same with an @HD line that says SO:coordinate, in the place of any
    /// other order; its version is kept, or 1.6 where there was no @HD line.
    std::string text_sorted_by_coordinate() const;

    /// In @SQ order, each once; names are unique.
    std::vector<RefSeq> const& references() const { return references_; }

    /// Position of a name in references(), or -1.
    std::int32_t find(std::string_view name) const {
        auto const entry = numbers_.find(name);
        return entry == numbers_.end() ? -1 : entry->second;
    }

private:
    // Takes over what was read, unless a name appears twice.
    // @param place_of  gives the text of the place of reference i
    template <typename PlaceOf>
    bool adopt(std::string text, std::vector<RefSeq> references, PlaceOf const& place_of,
               std::string& error);

    std::string text_;
    std::vector<RefSeq> references_;
    // By name; the keys look into `references_`, whose elements stay in place when
    // a header is moved.
    std::unordered_map<std::string_view, std::int32_t> numbers_;
};

}  // namespace tesk::interop
