#include "fuzz/alignments.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include <unistd.h>

#include "fuzz/target.h"
#include "tests/support/bam_walker.h"
#include "tests/support/index_builder.h"
#include "tests/support/temp_file.h"

namespace tesk::fuzz {

namespace {

namespace fs = std::filesystem;
using BamRecord = BAMFileHandler::BamRecord;

constexpr std::size_t MAX_NAME_BYTES = 254;

fs::path const& scratch_folder() {
    static fs::path const folder = [] {
        fs::path const path =
            fs::temp_directory_path() / ("tesk_bam_fuzz_" + std::to_string(getpid()));
        fs::create_directories(path);
        static fs::path const to_remove = path;
        std::atexit([] {
            std::error_code ignored;
            fs::remove_all(to_remove, ignored);
        });
        return path;
    }();
    return folder;
}

bool holds_nul(std::string const& text) { return text.find('\0') != std::string::npos; }

// The first index of a process differs from all others, so it is not one that is
// compared.
void write_first_index() {
    BAMFileHandler handler;
    require(handler.add_header_lines("@SQ\tSN:chr1\tLN:1000\n") &&
                handler.add_alignment_sam("r1\t0\tchr1\t1\t0\t1M\t*\t0\t0\tA\tI") &&
                handler.write_to_bam_file(scratch_path("first.bam"), true),
            handler.error_message);
}

// The lines, sorted by number of the reference, those without one last, and position.
std::string sorted_lines(std::vector<BamRecord> const& records) {
    std::vector<BamRecord const*> order;
    for (BamRecord const& record : records) order.push_back(&record);
    auto const key = [](BamRecord const* record) {
        return std::make_pair(static_cast<std::uint32_t>(record->refID), record->pos);
    };
    std::stable_sort(order.begin(), order.end(),
                     [&](auto const* a, auto const* b) { return key(a) < key(b); });
    std::string lines;
    for (BamRecord const* const record : order) lines += record->sam_line + '\n';
    return lines;
}

// A record whose operations say what its reference length is: text may have operations of
// 2^28 bases and more, which are cut when they are packed.
bool has_length_of_cigar(BAMFileHandler& handler, BamRecord& record) {
    return record.cigar.empty() || handler.get_cigar_ref_length(record.cigar) == record.ref_length;
}

// Whether references in front have these names: where a BAM file's header text and its
// list differ, the names of the text come first when it is read.
bool have_names(std::vector<BAMFileHandler::RefSeq> const& references,
                std::vector<BAMFileHandler::RefSeq> const& names) {
    return references.size() >= names.size() &&
           std::equal(names.begin(), names.end(), references.begin(),
                      [](auto const& a, auto const& b) { return a.name == b.name; });
}

// Writes BAM and index. False where the index or BAM cannot hold a record.
bool write_indexed(BAMFileHandler& handler, std::string const& path) {
    try {
        require(handler.write_to_bam_file(path, true), handler.error_message);
    } catch (std::runtime_error const&) {
        return false;  // an integer of 16 bits
    } catch (std::length_error const&) {
        return false;  // too far out for an index
    }
    return true;
}

}  // namespace

std::string scratch_path(std::string const& name) { return (scratch_folder() / name).string(); }

Reading read_sam(BAMFileHandler& handler, std::string const& path) {
    return reading_of(handler, [&] { return handler.read_from_sam_file(path); });
}

Reading read_bam(BAMFileHandler& handler, std::string const& path) {
    return reading_of(handler, [&] { return handler.read_from_bam_file(path); });
}

std::string lines_of(BAMFileHandler const& handler) {
    std::string lines;
    for (BamRecord const& record : handler.records) lines += record.sam_line + '\n';
    return lines;
}

bool has_bam_form(BamRecord const& record) {
    auto const is_text_with_nul = [](BAMFileHandler::AuxData const& field) {
        auto const* const text = boost::any_cast<std::string>(&field.value);
        return text != nullptr && holds_nul(*text);
    };
    return record.read_name.size() <= MAX_NAME_BYTES && !holds_nul(record.read_name) &&
           std::none_of(record.aux_data.begin(), record.aux_data.end(), is_text_with_nul);
}

bool render(BAMFileHandler& handler, BamRecord& record) {
    return reading_of(handler, [&] { return handler.update_sam_line(record); }).done;
}

void check_written(BAMFileHandler& handler, unsigned bare_length) {
    static bool const has_first_index = (write_first_index(), true);
    static_cast<void>(has_first_index);
    std::vector<BamRecord>& records = handler.records;
    records.erase(std::remove_if(records.begin(), records.end(),
                                 [&](BamRecord& record) {
                                     return !has_bam_form(record) ||
                                            !has_length_of_cigar(handler, record) ||
                                            !render(handler, record);
                                 }),
                  records.end());
    std::string const lines = sorted_lines(records);
    require(handler.sort(), handler.error_message);
    require_same(lines, lines_of(handler), "records are sorted as by std::stable_sort");

    std::string const path = scratch_path("written.bam");
    if (!write_indexed(handler, path)) return;
    auto const n_ref = static_cast<std::int32_t>(handler.references.size());
    std::string const index = tesk::test::read_file(path + ".bai");
    require(index == tesk::test::build_bai(
                         n_ref, tesk::test::index_records(tesk::test::read_file(path), bare_length),
                         true),
            "the index is that of an independent builder");

    BAMFileHandler again;
    Reading const reading = read_bam(again, path);
    require(reading.done, reading.fault);
    if (!have_names(again.references, handler.references)) return;
    require_same(lines, lines_of(again), "records are the same when read again");
}

}  // namespace tesk::fuzz
