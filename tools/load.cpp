#include "tools/load.h"

#include <cstdint>

namespace tesk::tool {

using util::bam::BAMFileHandler;

namespace {

// Number of references that a header text lists.
std::size_t count_references(std::string const& path, std::string const& header) {
    BAMFileHandler handler;
    call_library(handler, path, [&] { return handler.add_header_lines(header); });
    return handler.references.size();
}

// One entry as messages name it; the list may end before it.
std::string describe(BAMFileHandler const& alignments, std::size_t index, std::size_t end) {
    if (index >= end) return "nothing";
    BAMFileHandler::RefSeq const& reference = alignments.references[index];
    return reference.name + " of " + std::to_string(reference.length) + " bases";
}

[[noreturn]] void fail_at(std::string const& path, std::size_t index, std::string const& first,
                          std::string const& second) {
    throw ToolError(path + ": the header text and the reference list differ at reference " +
                    std::to_string(index + 1) + ": " + first + " and " + second);
}

// The library lets a record's refID reach into the second listing; the file
// itself has only the first.
void check_record_references(std::string const& path, BAMFileHandler const& alignments,
                             std::size_t n_references) {
    auto const known = [&](std::int32_t id) {
        return id < static_cast<std::int64_t>(n_references);
    };
    for (std::size_t i = 0; i < alignments.records.size(); ++i) {
        BAMFileHandler::BamRecord const& record = alignments.records[i];
        if (known(record.refID) && known(record.next_refID)) continue;
        std::int32_t const id = known(record.refID) ? record.next_refID : record.refID;
        throw ToolError(path + ": record " + std::to_string(i + 1) + " names reference number " +
                        std::to_string(id) + " of a list of " + std::to_string(n_references));
    }
}

std::size_t read_bam(std::string const& path, BAMFileHandler& alignments) {
    call_library(alignments, path, [&] { return alignments.read_from_bam_file(path); });
    std::size_t const n_text = count_references(path, alignments.header);
    if (n_text == 0) return alignments.references.size();
    check_same_references(path, alignments, n_text);
    check_record_references(path, alignments, n_text);
    return n_text;
}

}  // namespace

void check_same_references(std::string const& path, BAMFileHandler const& alignments,
                           std::size_t n_first) {
    std::size_t const end = alignments.references.size();
    for (std::size_t i = 0; i < n_first || n_first + i < end; ++i) {
        std::string const first = describe(alignments, i, n_first);
        std::string const second = describe(alignments, n_first + i, end);
        if (first != second) fail_at(path, i, first, second);
    }
}

std::size_t read_alignments(std::string const& path, FileKind kind, BAMFileHandler& alignments) {
    if (kind == FileKind::BAM) return read_bam(path, alignments);
    call_library(alignments, path, [&] { return alignments.read_from_sam_file(path); });
    return alignments.references.size();
}

// The handler has a tab before it, as in an @HD line.
std::string sort_order_of(BAMFileHandler const& alignments) {
    std::string const& order = alignments.sort_order;
    return order.empty() ? "unknown" : order.substr(1);
}

}  // namespace tesk::tool
