#include "tools/summary.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/flag.h"
#include "tools/load.h"
#include "tools/message.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

namespace {

// --- JSON --------------------------------------------------------------------

using Json = nlohmann::ordered_json;

Json json_of(ReadLengthSummary const& lengths) {
    return {{"records_with_sequence", lengths.records},
            {"min", lengths.min},
            {"max", lengths.max},
            {"n50", lengths.n50}};
}

Json json_of(ReferenceSummary const& reference) {
    return {{"name", reference.name},
            {"length", reference.length},
            {"records", reference.counts.records},
            {"mapped", reference.counts.mapped},
            {"unmapped", reference.counts.unmapped}};
}

// --- Text --------------------------------------------------------------------

// Up to here the table has every reference; longer ones only those with records.
constexpr std::size_t MAX_FULL_TABLE = 50;

using Row = std::vector<std::string>;

// Columns two spaces apart, the first flush left, the others flush right.
std::string table_text(std::vector<Row> const& rows) {
    std::vector<std::size_t> widths(rows.front().size());
    for (Row const& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    std::string text;
    for (Row const& row : rows) {
        text += row[0] + std::string(widths[0] - row[0].size(), ' ');
        for (std::size_t i = 1; i < row.size(); ++i) {
            text += std::string(2 + widths[i] - row[i].size(), ' ') + row[i];
        }
        text += '\n';
    }
    return text;
}

std::string references_text(std::vector<ReferenceSummary> const& references) {
    bool const full = references.size() <= MAX_FULL_TABLE;
    std::vector<Row> rows = {{"reference", "length", "records", "mapped", "unmapped"}};
    std::size_t n_empty = 0;
    for (ReferenceSummary const& reference : references) {
        Counts const& counts = reference.counts;
        if (counts.records == 0) ++n_empty;
        if (counts.records == 0 && !full) continue;
        rows.push_back({one_line(reference.name), std::to_string(reference.length),
                        std::to_string(counts.records), std::to_string(counts.mapped),
                        std::to_string(counts.unmapped)});
    }
    std::string text = rows.size() > 1 ? "\n" + table_text(rows) : "";
    if (n_empty != 0 && !full) {
        text += "\n" + std::to_string(n_empty) + " of " + std::to_string(references.size()) +
                " references have no records and are not listed; --json lists all\n";
    }
    return text;
}

std::string read_lengths_text(std::optional<ReadLengthSummary> const& lengths) {
    if (!lengths) return "none: no record holds a sequence";
    return std::to_string(lengths->min) + " to " + std::to_string(lengths->max) + " bases, N50 " +
           std::to_string(lengths->n50) + " (" + std::to_string(lengths->records) +
           " records with a sequence)";
}

}  // namespace

void Counts::add(unsigned flag) {
    ++records;
    ++((flag & FLAG_UNMAPPED) != 0 ? unmapped : mapped);
}

void ReadLengths::add(std::int32_t length) {
    if (length > 0) ++counts_[length];
}

// From the longest down to where half of all bases are reached.
std::optional<ReadLengthSummary> ReadLengths::summary() const {
    if (counts_.empty()) return std::nullopt;
    ReadLengthSummary result;
    result.min = counts_.rbegin()->first;
    result.max = counts_.begin()->first;
    for (auto const& [length, count] : counts_) {
        result.records += count;
        result.bases += static_cast<std::uint64_t>(length) * count;
    }
    std::uint64_t covered = 0;
    for (auto const& [length, count] : counts_) {
        covered += static_cast<std::uint64_t>(length) * count;
        result.n50 = length;
        if (covered >= result.bases - covered) break;
    }
    std::uint64_t const n = result.records;
    result.median = (static_cast<double>(at((n - 1) / 2)) + at(n / 2)) / 2;
    return result;
}

std::int32_t ReadLengths::at(std::uint64_t place) const {
    auto entry = counts_.begin();
    for (; place >= entry->second; ++entry) place -= entry->second;
    return entry->first;
}

void Summary::add(std::int32_t refID, unsigned flag, std::int32_t l_seq) {
    counts.add(flag);
    if (refID < 0) {
        ++without_reference;
    } else {
        references.at(static_cast<std::size_t>(refID)).counts.add(flag);
    }
    read_lengths.add(l_seq);
}

Summary summary_of_header(interop::AlignmentReader const& reader) {
    // The library knows how an @HD line states an order.
    util::bam::BAMFileHandler handler;
    call_library(handler, reader.name(),
                 [&] { return handler.add_header_lines(reader.header().text()); });
    Summary summary;
    summary.sort_order = sort_order_of(handler);
    for (interop::RefSeq const& reference : reader.header().references()) {
        summary.references.push_back({reference.name, reference.length, {}});
    }
    return summary;
}

std::string json_text(Summary const& summary, std::string const& file, FileKind kind) {
    Json json = {{"file", file},
                 {"format", kind_name(kind)},
                 {"sort_order", summary.sort_order},
                 {"records", summary.counts.records},
                 {"mapped", summary.counts.mapped},
                 {"unmapped", summary.counts.unmapped},
                 {"without_reference", summary.without_reference},
                 {"read_length", nullptr},
                 {"references", Json::array()}};
    if (auto const lengths = summary.read_lengths.summary())
        json["read_length"] = json_of(*lengths);
    for (ReferenceSummary const& reference : summary.references) {
        json["references"].push_back(json_of(reference));
    }
    // Names that are no UTF-8 would make it no JSON.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string summary_text(Summary const& summary, std::string const& file, FileKind kind) {
    Counts const& counts = summary.counts;
    return "file               " + one_line(file) + " (" + kind_name(kind) + ")\n" +
           "sort order         " + summary.sort_order + "\n" + "read lengths       " +
           read_lengths_text(summary.read_lengths.summary()) + "\n" + "references         " +
           std::to_string(summary.references.size()) + "\n" + "records            " +
           std::to_string(counts.records) + "\n" + "mapped             " +
           std::to_string(counts.mapped) + "\n" + "unmapped           " +
           std::to_string(counts.unmapped) + "\n" + "without reference  " +
           std::to_string(summary.without_reference) + "\n" + references_text(summary.references);
}

}  // namespace tesk::tool
