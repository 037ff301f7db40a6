// SAM header text. The references are those that a plain reading with streams finds;
// lines that are taken together are taken one by one; the header of a BAM file comes
// back; and a header that interop has repaired needs no repair, and suits the handler.

#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/alignments.h"
#include "fuzz/target.h"
#include "interop/header.h"
#include "interop/report.h"
#include "tests/support/text.h"

namespace {

using tesk::fuzz::BAMFileHandler;
using tesk::fuzz::require;
using tesk::fuzz::require_same;
using RefSeqs = std::vector<BAMFileHandler::RefSeq>;

// What a handler keeps of a header.
struct Kept {
    std::string references;  // name and length, a line each
    std::string lines;       // but @HD
};

std::string text_of(RefSeqs const& references) {
    std::string text;
    for (auto const& reference : references) {
        text += reference.name + ' ' + std::to_string(reference.length) + '\n';
    }
    return text;
}

Kept kept_by(BAMFileHandler const& handler) {
    return {text_of(handler.references), handler.header_lines};
}

// Reads lines that a handler has taken, word by word.
Kept plain_reading(std::string_view text) {
    Kept kept;
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    for (std::string_view const line : tesk::test::split(text, '\n')) {
        std::istringstream words{std::string(line)};
        std::string word;
        words >> word;
        if (word.empty() || word == "@HD") continue;
        kept.lines.append(line) += '\n';
        if (word != "@SQ") continue;
        std::string name;
        int length = 0;
        while (words >> word) {
            if (word.rfind("SN:", 0) == 0) name = word.substr(3);
            if (word.rfind("LN:", 0) == 0) length = std::stoi(word.substr(3));
        }
        kept.references += name + ' ' + std::to_string(length) + '\n';
    }
    return kept;
}

void require_same(Kept const& a, Kept const& b, char const* what) {
    require_same(a.references, b.references, what);
    require_same(a.lines, b.lines, what);
}

bool add(BAMFileHandler& handler, std::string_view text) {
    try {
        return handler.add_header_lines(std::string(text));
    } catch (std::logic_error const&) {
        return false;  // the number of an LN field
    }
}

void check_line_by_line(BAMFileHandler const& whole, std::string_view text) {
    BAMFileHandler handler;
    for (std::string_view const line : tesk::test::split(text, '\n')) {
        require(add(handler, line), "a line of a header is taken alone: " + handler.error_message);
    }
    require_same(whole.header, handler.header, "the text is the same line by line");
    require_same(kept_by(whole), kept_by(handler), "the header is the same line by line");
    require_same(whole.sort_order, handler.sort_order, "the order is the same line by line");
}

// BAM has the references twice: as lines and as a list.
void check_way_through_bam(BAMFileHandler const& handler) {
    std::string const path = tesk::fuzz::scratch_path("header.bam");
    require(handler.write_to_bam_file(path, false), handler.error_message);
    BAMFileHandler again;
    tesk::fuzz::Reading const reading = tesk::fuzz::read_bam(again, path);
    require(reading.done, reading.fault);
    Kept const kept = kept_by(handler);
    require_same({kept.references + kept.references, kept.lines}, kept_by(again),
                 "a header comes back from BAM");
}

bool check_repaired(std::string_view text) {
    tesk::interop::Header header;
    tesk::interop::Report report;
    std::string error;
    if (!header.assign_sam(text, report, error)) return false;
    tesk::interop::Header again;
    tesk::interop::Report nothing;
    require(again.assign_sam(header.text(), nothing, error),
            "a repaired header is taken: " + error);
    require_same(header.text(), again.text(), "a repaired header stays as it is");
    require(nothing.lines().empty(), "a repaired header needs no repair");
    require_same(text_of(header.references()), text_of(again.references()),
                 "a repaired header has the same references");
    BAMFileHandler handler;
    require(add(handler, header.text()),
            "a handler takes repaired headers: " + handler.error_message);
    require_same(text_of(header.references()), text_of(handler.references),
                 "a handler finds the same references");
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    BAMFileHandler handler;
    if (add(handler, text)) {
        require_same(plain_reading(text), kept_by(handler), "a header is read as with streams");
        check_line_by_line(handler, text);
        // The names of BAM end at a NUL.
        if (text.find('\0') == std::string_view::npos) check_way_through_bam(handler);
    }
    check_repaired(text);
    return 0;
}
