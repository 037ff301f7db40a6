// The bytes of a SAM file. It is read as its lines are when they are added one by one;
// the SAM file that is written is read as the same; and what goes into a BAM file comes
// back sorted, with the right index.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/alignments.h"
#include "fuzz/target.h"
#include "tests/support/record_text.h"
#include "tests/support/temp_file.h"
#include "tests/support/text.h"

namespace {

using tesk::fuzz::BAMFileHandler;

// All that a handler holds of a file.
std::string contents(BAMFileHandler const& handler) {
    std::string text = handler.header + '\n' + handler.header_lines + '\n' + handler.sort_order +
                       '\n' + (handler.has_sort_order ? "sorted\n" : "\n");
    for (auto const& reference : handler.references) {
        text += reference.name + ' ' + std::to_string(reference.length) + '\n';
    }
    for (auto const& record : handler.records) text += tesk::test::record_text(record);
    return text;
}

// Adds the lines one by one, up to the first that is refused. Returns why that is.
std::string add_lines(BAMFileHandler& handler, std::string_view text) {
    for (std::string_view const line : tesk::test::split(text, '\n')) {
        if (line.empty()) continue;
        tesk::fuzz::Reading const reading = tesk::fuzz::reading_of(handler, [&] {
            return line.front() == '@' ? handler.add_header_lines(std::string(line))
                                       : handler.add_alignment_sam(std::string(line));
        });
        if (!reading.done) return reading.fault;
    }
    return "";
}

bool ends_with(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// Whether a header line comes behind an alignment: its references are unknown to the
// lines before it, until the file is written.
bool has_late_header_line(std::string_view text) {
    bool has_alignment = false;
    for (std::string_view const line : tesk::test::split(text, '\n')) {
        if (line.empty()) continue;
        if (line.front() != '@') has_alignment = true;
        if (line.front() == '@' && has_alignment) return true;
    }
    return false;
}

void check_sam_written(BAMFileHandler const& handler, bool has_late_header_line) {
    std::string const path = tesk::fuzz::scratch_path("written.sam");
    tesk::fuzz::require(handler.write_to_sam_file(path), handler.error_message);
    tesk::fuzz::require_same(handler.header + tesk::fuzz::lines_of(handler),
                             tesk::test::read_file(path), "a SAM file is header and lines");
    BAMFileHandler again;
    tesk::fuzz::Reading const reading = tesk::fuzz::read_sam(again, path);
    tesk::fuzz::require(reading.done, reading.fault);
    tesk::fuzz::require_same(tesk::fuzz::lines_of(handler), tesk::fuzz::lines_of(again),
                             "a SAM file that was written has the same lines");
    if (has_late_header_line) return;
    tesk::fuzz::require_same(contents(handler), contents(again),
                             "a SAM file that was written is read as the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    std::string const path = tesk::fuzz::scratch_path("file.sam");
    tesk::test::write_file(path, text);
    BAMFileHandler handler;
    tesk::fuzz::Reading const reading = tesk::fuzz::read_sam(handler, path);

    BAMFileHandler line_by_line;
    line_by_line.file_name = path;  // ends some messages
    std::string const fault = add_lines(line_by_line, text);
    tesk::fuzz::require(ends_with(reading.fault, fault) && fault.empty() == reading.done,
                        "a file fails as its lines do:\n" + reading.fault + '\n' + fault);
    tesk::fuzz::require_same(contents(line_by_line), contents(handler),
                             "a file is read as its lines are");
    if (!reading.done) return 0;
    check_sam_written(handler, has_late_header_line(text));
    tesk::fuzz::check_written(handler, 1);
    return 0;
}
