// FASTQ for the tool's import. What it takes has the lines that a plain reader of FASTQ
// makes of it, in both ways of importing; optional fields from comments end up in lines
// that a handler takes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/alignments.h"
#include "fuzz/imported_reads.h"
#include "fuzz/target.h"
#include "tests/support/text.h"
#include "tools/import.h"

namespace {

using tesk::fuzz::Imported;
using tesk::fuzz::require;

void import(tesk::tool::ReadsOptions const& reads, bool keep_comments) {
    tesk::tool::ImportOptions options;
    options.reads = reads;
    options.keep_comments = keep_comments;
    tesk::tool::import_reads(options);
}

// Four lines a record.
std::vector<std::string> plain_reading(std::string_view text) {
    std::vector<std::string> lines;
    for (std::string_view line : tesk::test::split(text, '\n')) {
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        lines.emplace_back(line);
    }
    while (!lines.empty() && lines.back().empty()) lines.pop_back();
    std::vector<std::string> records;
    for (std::size_t i = 0; i + 3 < lines.size(); i += 4) {
        std::string const name = lines[i].substr(1, lines[i].find_first_of(" \t") - 1);
        records.push_back(tesk::fuzz::unmapped_columns(name, lines[i + 1], lines[i + 3]));
    }
    return records;
}

void check_fields(std::string_view input) {
    Imported const imported =
        tesk::fuzz::import_as_sam(input, false, [](auto const& reads) { import(reads, true); });
    tesk::fuzz::BAMFileHandler handler;
    for (std::string const& line : imported.lines) {
        require(handler.add_alignment_sam(line), "a handler takes the line: " + line);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const input(reinterpret_cast<char const*>(data), size);
    Imported const imported =
        tesk::fuzz::import_both_ways(input, [](auto const& reads) { import(reads, false); });
    if (imported.done && !tesk::fuzz::is_gzip(input)) {
        require(imported.lines == plain_reading(input), "the lines are those of a plain reader");
    }
    check_fields(input);
    return 0;
}
