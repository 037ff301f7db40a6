// The summary of an alignment file, and how it is printed.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "interop/alignment_reader.h"
#include "tools/file_kind.h"

namespace tesk::tool {

/// Records by bit 4 of their flag.
struct Counts {
    std::uint64_t records = 0;
    std::uint64_t mapped = 0;
    std::uint64_t unmapped = 0;

    void add(unsigned flag);
};

struct ReferenceSummary {
    std::string name;
    std::int32_t length = 0;
    Counts counts;
};

/// Over the records that hold a sequence.
struct ReadLengthSummary {
    std::uint64_t records = 0;
    std::int32_t min = 0;
    std::int32_t max = 0;
    std::int32_t n50 = 0;  // reads of at least this length hold half of all bases
    std::uint64_t bases = 0;
    double median = 0;  // of two in the middle their mean
};

/// Lengths of reads, each kept once with its count: of a file of any size there
/// are few.
class ReadLengths {
public:
    /// @param length  0 is no sequence
    void add(std::int32_t length);

    /// Empty where no record has a sequence.
    std::optional<ReadLengthSummary> summary() const;

    /// Number of reads of each length that occurs, the longest first.
    std::map<std::int32_t, std::uint64_t, std::greater<>> const& counts() const { return counts_; }

private:
    // Length of the read at a place of their order.
    std::int32_t at(std::uint64_t place) const;

    std::map<std::int32_t, std::uint64_t, std::greater<>> counts_;
};

struct Summary {
    std::string sort_order;  // "SO:coordinate" and the like, or "unknown"
    Counts counts;
    std::uint64_t without_reference = 0;
    std::vector<ReferenceSummary> references;
    ReadLengths read_lengths;

    /// Adds a record.
    /// @param refID  negative: none; else of `references`
    /// @param l_seq  number of bases
    void add(std::int32_t refID, unsigned flag, std::int32_t l_seq);
};

/// What the header of a file says, without records as yet.
/// @throws ToolError  the library refuses the header
Summary summary_of_header(interop::AlignmentReader const& reader);

/// One JSON object.
std::string json_text(Summary const& summary, std::string const& file, FileKind kind);

/// Text for people.
std::string summary_text(Summary const& summary, std::string const& file, FileKind kind);

}  // namespace tesk::tool
