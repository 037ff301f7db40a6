#include "tools/validate.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "interop/alignment_reader.h"
#include "tools/input.h"
#include "tools/message.h"
#include "tools/progress.h"
#include "tools/text_sink.h"

namespace tesk::tool {

using interop::AlignmentReader;

namespace {

struct Verdict {
    std::optional<FileKind> kind;  // empty: it could not be told
    std::uint64_t n_records = 0;   // valid ones
};

// Reads as much of the file as can be read. What is wrong is in the report, also
// what ends the reading early.
Verdict read_all(AlignmentReader& reader, ValidateOptions const& options) {
    Verdict verdict;
    Progress progress(!options.quiet);
    progress.reading(options.file);
    if (!reader.open(options.file)) return verdict;
    verdict.kind = kind_of_input(reader);
    interop::RecordBatch batch;
    bool more = true;
    while (more) {
        more = reader.read_batch(batch) && batch.n_records != 0;
        verdict.n_records += batch.n_records;  // also of a batch that ends in a fault
        progress.advance(reader.bytes_read());
    }
    return verdict;
}

// --- JSON --------------------------------------------------------------------

using Json = nlohmann::ordered_json;

// The findings of one enumeration.
template <typename Kind>
Json findings(interop::Report const& report, std::size_t n_kinds) {
    Json list = Json::array();
    for (std::size_t i = 0; i < n_kinds; ++i) {
        auto const kind = static_cast<Kind>(i);
        interop::Finding const& finding = report.of(kind);
        if (finding.count == 0) continue;
        list.push_back({{"kind", name_of(kind)},
                        {"count", finding.count},
                        {"first", finding.first.text()},
                        {"text", text_of(kind)}});
    }
    return list;
}

std::string json_text(std::string const& file, Verdict const& verdict,
                      interop::Report const& report) {
    Json json = {{"file", file},
                 {"format", nullptr},
                 {"records", verdict.n_records},
                 {"errors", report.errors()},
                 {"n_errors", report.n_errors()},
                 {"repairs", findings<interop::Repair>(report, interop::N_REPAIRS)},
                 {"warnings", findings<interop::Warning>(report, interop::N_WARNINGS)}};
    if (verdict.kind) json["format"] = kind_name(*verdict.kind);
    // Messages that quote what is no UTF-8 would make it no JSON.
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

// --- Text --------------------------------------------------------------------

std::string verdict_text(std::string const& file, Verdict const& verdict,
                         interop::Report const& report) {
    std::string const format = verdict.kind ? kind_name(*verdict.kind) : "of unknown format";
    std::string text = "file     " + one_line(file) + " (" + format + ")\n" + "verdict  " +
                       (report.n_errors() == 0 ? "valid" : "not valid") + "\n" + "records  " +
                       std::to_string(verdict.n_records) + "\n" + "errors   " +
                       std::to_string(report.n_errors()) + "\n";
    std::vector<std::string> const findings = report.lines();
    if (!report.errors().empty() || !findings.empty()) text += '\n';
    for (std::string const& error : report.errors()) text += "error: " + one_line(error) + "\n";
    std::uint64_t const n_more = report.n_errors() - report.errors().size();
    if (n_more != 0) text += "error: " + std::to_string(n_more) + " more, not listed\n";
    for (std::string const& finding : findings) text += one_line(finding) + "\n";
    return text;
}

}  // namespace

bool validate(ValidateOptions const& options) {
    interop::ReaderOptions reader_options;
    reader_options.allow_missing_eof = options.allow_missing_eof;
    reader_options.keep_going = true;
    AlignmentReader reader(reader_options);
    Verdict const verdict = read_all(reader, options);
    TextSink out = standard_output();
    out.write(options.json ? json_text(options.file, verdict, reader.report())
                           : verdict_text(options.file, verdict, reader.report()));
    out.finish();
    return reader.report().n_errors() == 0;
}

}  // namespace tesk::tool
