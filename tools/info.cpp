#include "tools/info.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "tools/file_kind.h"
#include "tools/load.h"
#include "tools/message.h"
#include "tools/progress.h"
#include "tools/text_sink.h"
#include "tools/tool_error.h"
#include "util/bam/bam_file.h"

namespace tesk::tool {

using util::bam::BAMFileHandler;

namespace {

constexpr unsigned FLAG_UNMAPPED = 4;

struct Counts {
    std::size_t records = 0;
    std::size_t mapped = 0;
    std::size_t unmapped = 0;

    void add(BAMFileHandler::BamRecord const& record) {
        ++records;
        ++((record.flag & FLAG_UNMAPPED) != 0 ? unmapped : mapped);
    }
};

struct ReferenceSummary {
    std::string name;
    std::int32_t length = 0;
    Counts counts;
};

// Over the records that hold a sequence.
struct ReadLengths {
    std::size_t records = 0;
    std::int32_t min = 0;
    std::int32_t max = 0;
    std::int32_t n50 = 0;  // reads of at least this length hold half of all bases
};

struct Summary {
    std::string sort_order;
    Counts counts;
    std::size_t without_reference = 0;
    std::vector<ReferenceSummary> references;
    std::optional<ReadLengths> read_lengths;  // empty where no record has a sequence
};

std::optional<ReadLengths> summarise_lengths(std::vector<std::int32_t> lengths) {
    if (lengths.empty()) return std::nullopt;
    std::sort(lengths.begin(), lengths.end(), std::greater<>());
    std::uint64_t n_bases = 0;
    for (std::int32_t const length : lengths) n_bases += static_cast<std::uint64_t>(length);

    ReadLengths result{lengths.size(), lengths.back(), lengths.front(), 0};
    std::uint64_t covered = 0;
    for (std::int32_t const length : lengths) {
        covered += static_cast<std::uint64_t>(length);
        result.n50 = length;
        if (covered >= n_bases - covered) break;
    }
    return result;
}

// The order without the tab that it has in an @HD line.
std::string sort_order_of(BAMFileHandler const& alignments) {
    std::string const& order = alignments.sort_order;
    return order.empty() ? "unknown" : order.substr(1);
}

Summary summarise(BAMFileHandler const& alignments, std::size_t n_references) {
    Summary summary;
    summary.sort_order = sort_order_of(alignments);
    for (std::size_t i = 0; i < n_references; ++i) {
        BAMFileHandler::RefSeq const& reference = alignments.references[i];
        summary.references.push_back({reference.name, reference.length, {}});
    }
    std::vector<std::int32_t> lengths;
    for (BAMFileHandler::BamRecord const& record : alignments.records) {
        summary.counts.add(record);
        if (record.refID < 0) {
            ++summary.without_reference;
        } else {
            summary.references.at(static_cast<std::size_t>(record.refID)).counts.add(record);
        }
        if (record.l_seq > 0) lengths.push_back(record.l_seq);
    }
    summary.read_lengths = summarise_lengths(std::move(lengths));
    return summary;
}

// --- JSON --------------------------------------------------------------------

using Json = nlohmann::ordered_json;

Json json_of(ReadLengths const& lengths) {
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
    if (summary.read_lengths) json["read_length"] = json_of(*summary.read_lengths);
    for (ReferenceSummary const& reference : summary.references) {
        json["references"].push_back(json_of(reference));
    }
    // Names that are no UTF-8 would make it no JSON.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
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

std::string read_lengths_text(std::optional<ReadLengths> const& lengths) {
    if (!lengths) return "none: no record holds a sequence";
    return std::to_string(lengths->min) + " to " + std::to_string(lengths->max) + " bases, N50 " +
           std::to_string(lengths->n50) + " (" + std::to_string(lengths->records) +
           " records with a sequence)";
}

std::string summary_text(Summary const& summary, std::string const& file, FileKind kind) {
    Counts const& counts = summary.counts;
    return "file               " + one_line(file) + " (" + kind_name(kind) + ")\n" +
           "sort order         " + summary.sort_order + "\n" + "read lengths       " +
           read_lengths_text(summary.read_lengths) + "\n" + "references         " +
           std::to_string(summary.references.size()) + "\n" + "records            " +
           std::to_string(counts.records) + "\n" + "mapped             " +
           std::to_string(counts.mapped) + "\n" + "unmapped           " +
           std::to_string(counts.unmapped) + "\n" + "without reference  " +
           std::to_string(summary.without_reference) + "\n" + references_text(summary.references);
}

}  // namespace

void info(InfoOptions const& options) {
    refuse_standard_input(options.file);
    FileKind const kind = kind_of(options.file, options.from, "--from");
    BAMFileHandler alignments;
    std::size_t n_references = 0;
    {
        Progress progress(!options.quiet);
        progress.reading(options.file);
        n_references = read_alignments(options.file, kind, alignments);
    }
    Summary const summary = summarise(alignments, n_references);
    TextSink out = standard_output();
    out.write(options.json ? json_text(summary, options.file, kind)
                           : summary_text(summary, options.file, kind));
    out.finish();
}

}  // namespace tesk::tool
