// Reading alignments: formats told apart by content, batches, damage, regions.

#include "interop/alignment_reader.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "interop/index_reader.h"
#include "interop/record_batch.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/bam_walker.h"
#include "tests/support/process.h"
#include "tests/support/record_text.h"
#include "tests/support/sanitized.h"
#include "tests/support/temp_file.h"
#include "util/bam/bam_file.h"

namespace {

using namespace tesk::test;
using tesk::interop::AlignmentReader;
using tesk::interop::for_each_record;
using tesk::interop::Format;
using tesk::interop::IndexReader;
using tesk::interop::ReaderOptions;
using tesk::interop::RecordBatch;
using tesk::interop::RecordView;
using tesk::interop::Region;
using tesk::interop::Repair;
using tesk::interop::Warning;
using tesk::util::bam::BAMFileHandler;

// --- Sample data ---------------------------------------------------------------

constexpr char const* HEADER =
    "@HD\tVN:1.6\tSO:coordinate\n"
    "@SQ\tSN:chr1\tLN:100000\n"
    "@SQ\tSN:chr2\tLN:50000\n"
    "@CO\ta comment\n";

std::vector<std::string> const LINES = {
    "r1\t99\tchr1\t101\t60\t4M\t=\t301\t204\tACGT\tIIII\tNM:i:0",
    "r2\t0\tchr1\t201\t37\t2M1I2M\t*\t0\t0\tACGTA\tIIII!\tXZ:Z:a text\tXA:A:c",
    "r1\t147\tchr1\t301\t60\t4M\t=\t101\t-204\tTTTT\t*",
    "r4\t16\tchr2\t1\t0\t10S5M2N3M\t*\t0\t0\tACGTACGTACACGTACGT\tIIIIIIIIIIIIIIIIII\tXB:B:S,1,2,3",
    "r5\t4\t*\t0\t0\t*\t*\t0\t0\tNNN\t###",
};

std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines) text += line + "\n";
    return text;
}

std::string sam_text() { return HEADER + joined(LINES); }

std::string encoded(std::vector<std::string> const& lines) {
    std::string bytes;
    for (std::string const& line : lines) bytes += encode_bam_record(line, references_of(HEADER));
    return bytes;
}

std::string bam_payload() {
    return encode_bam_header(HEADER, references_of(HEADER)) + encoded(LINES);
}

std::string bgzf(std::string_view payload, std::size_t block_size = 65280) {
    return bgzf_blocks(payload, block_size) + bgzf_eof_block();
}

std::string with_byte(std::string bytes, std::size_t place, int value) {
    bytes.at(place) = static_cast<char>(value);
    return bytes;
}

constexpr char const* NO_EOF_BLOCK =
    ": the block that marks the end of a BGZF file is missing: the file may have been cut short";

// --- Reading -------------------------------------------------------------------

struct Result {
    Format format = Format::SAM;
    std::string header;
    std::string records;  // encoded
    std::size_t n_records = 0;
    std::string lines;
    std::vector<std::size_t> batches;  // number of records in each
    std::string error;
    std::vector<std::string> reported;  // errors in the report
    std::vector<std::string> findings;  // its lines
};

void read_batches(AlignmentReader& reader, Result& result) {
    RecordBatch batch;
    do {
        if (!reader.read_batch(batch)) result.error = reader.error_message;
        std::size_t n_records = 0;
        for_each_record(batch.records.view(), [&](RecordView) { ++n_records; });
        EXPECT_EQ(batch.n_records, n_records);
        result.records += batch.records.view();
        result.lines += batch.lines.view();
        result.n_records += n_records;
        if (n_records != 0) result.batches.push_back(n_records);
    } while (batch.n_records != 0 && result.error.empty());
    // What is over stays over.
    EXPECT_EQ(reader.read_batch(batch), result.error.empty());
    EXPECT_EQ(batch.n_records, 0U);
}

Result read_alignments(std::string const& path, ReaderOptions const& options = {}) {
    Result result;
    AlignmentReader reader(options);
    if (reader.open(path)) {
        read_batches(reader, result);
    } else {
        result.error = reader.error_message;
    }
    result.format = reader.format();
    result.header = reader.header().text();
    result.reported = reader.report().errors();
    result.findings = reader.report().lines();
    return result;
}

Result read_bytes(TempDir const& dir, std::string_view bytes, ReaderOptions const& options = {}) {
    return read_alignments(dir.write("in", bytes), options);
}

void expect_sample(Result const& result) {
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.header, HEADER);
    EXPECT_EQ(hex_text(result.records), hex_text(encoded(LINES)));
    EXPECT_EQ(result.findings, std::vector<std::string>());
    EXPECT_EQ(result.reported, std::vector<std::string>());
}

// Expects that reading fails with this message behind the input's name.
void expect_error(Result const& result, std::string const& message) {
    EXPECT_EQ(result.error, message);
    ASSERT_FALSE(result.reported.empty());
    EXPECT_EQ(result.reported.back(), message);
}

// gzip data, made by the program.
std::string gzipped(TempDir const& dir, std::string_view text) {
    ProcessResult const result = run_process({"gzip", "-c", dir.write("to_pack", text)});
    if (result.exit_status != 0) throw std::runtime_error(result.errors);
    return result.output;
}

// --- Formats -------------------------------------------------------------------

struct FormatCase {
    char const* label;
    std::string bytes;
    Format format;
};

std::vector<FormatCase> format_cases(TempDir const& dir) {
    return {
        {"SAM", sam_text(), Format::SAM},
        {"SAM, gzip", gzipped(dir, sam_text()), Format::SAM},
        {"SAM, BGZF", bgzf(sam_text(), 50), Format::SAM},
        {"BAM", bgzf(bam_payload()), Format::BAM},
        {"BAM in small blocks", bgzf(bam_payload(), 7), Format::BAM},
        {"BAM, gzip", gzipped(dir, bam_payload()), Format::BAM},
        {"BAM, not packed", bam_payload(), Format::BAM},
    };
}

TEST(AlignmentReader, Content_WhateverItsName_TellsTheFormat) {
    TempDir const dir;
    for (FormatCase const& c : format_cases(dir)) {
        for (char const* const name : {"in.sam", "in.bam", "in.sam.gz", "in.fastq"}) {
            SCOPED_TRACE(std::string(c.label) + " as " + name);
            Result const result = read_alignments(dir.write(name, c.bytes));
            EXPECT_EQ(result.format, c.format);
            expect_sample(result);
        }
    }
}

TEST(AlignmentReader, Fifo_IsReadLikeAFile) {
    TempDir const dir;
    std::string const path = dir.file("fifo.txt");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    for (FormatCase const& c : format_cases(dir)) {
        SCOPED_TRACE(c.label);
        std::thread writer([&] { write_file(path, c.bytes); });
        Result const result = read_alignments(path);
        writer.join();
        EXPECT_EQ(result.format, c.format);
        expect_sample(result);
    }
}

// Puts a pipe in the place of standard input while it lives.
class PipedInput {
public:
    PipedInput() : saved_(dup(STDIN_FILENO)) {
        int ends[2];
        if (saved_ < 0 || pipe(ends) != 0) throw std::runtime_error("no pipe");
        dup2(ends[0], STDIN_FILENO);
        close(ends[0]);
        write_end_ = ends[1];
    }
    ~PipedInput() {
        dup2(saved_, STDIN_FILENO);
        close(saved_);
    }
    PipedInput(PipedInput const&) = delete;
    PipedInput& operator=(PipedInput const&) = delete;

    void push(std::string_view bytes) const {
        while (!bytes.empty()) {
            ssize_t const n = write(write_end_, bytes.data(), bytes.size());
            if (n <= 0) return;
            bytes.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    void end() const { close(write_end_); }

    // Gives bytes a few at a time, and ends the input.
    void give(std::string_view bytes, std::size_t at_a_time) const {
        for (std::size_t i = 0; i < bytes.size(); i += at_a_time) push(bytes.substr(i, at_a_time));
        end();
    }

private:
    int saved_;
    int write_end_ = -1;
};

TEST(AlignmentReader, StandardInput_ByteByByte_IsReadLikeAFile) {
    TempDir const dir;
    for (FormatCase const& c : format_cases(dir)) {
        SCOPED_TRACE(c.label);
        PipedInput const input;
        std::thread writer([&] { input.give(c.bytes, 1); });
        Result const result = read_alignments("-");
        writer.join();
        EXPECT_EQ(result.format, c.format);
        expect_sample(result);
    }
    PipedInput const input;
    std::thread writer([&] { input.give("r1\n", 1); });
    Result const result = read_alignments("-");
    writer.join();
    EXPECT_EQ(result.error.substr(0, 24), "standard input: line 1: ");
}

TEST(AlignmentReader, InputsWithoutRecords_AreSamWithoutHeader) {
    TempDir const dir;
    for (std::string const& bytes : {std::string(), std::string("\n"), std::string("\n\r\n\n\r"),
                                     gzipped(dir, ""), bgzf_eof_block(), bgzf("\n")}) {
        SCOPED_TRACE(hex_text(bytes));
        Result const result = read_bytes(dir, bytes);
        EXPECT_EQ(result.error, "");
        EXPECT_EQ(result.format, Format::SAM);
        EXPECT_EQ(result.header, "");
        EXPECT_EQ(result.n_records, 0U);
        EXPECT_EQ(result.findings, std::vector<std::string>());
    }
    Result const headers_alone = read_bytes(dir, HEADER);
    EXPECT_EQ(headers_alone.error, "");
    EXPECT_EQ(headers_alone.header, HEADER);
    EXPECT_EQ(headers_alone.n_records, 0U);
}

struct OtherCase {
    char const* label;
    std::string bytes;
};

TEST(AlignmentReader, DataOfAnotherKind_IsRefusedByItsFirstLine) {
    OtherCase const cases[] = {
        {"PNG", "\x89PNG\r\n\x1a\n"},
        {"NUL bytes", std::string(1000, '\0')},
        {"a NUL byte", std::string("r1\0", 3)},
        {"index", std::string("BAI\x01\x02\0\0\0", 8)},
        {"packed otherwise", "PK\x03\x04"},
        {"program",
         "\x7f"
         "ELF"},
        {"text that is not ASCII", "Z\xc3\xbcrich\n"},
        {"first byte of gzip data", "\x1f"},
        {"magic cut short", std::string("BAM\0", 4)},
    };
    TempDir const dir;
    for (OtherCase const& c : cases) {
        SCOPED_TRACE(c.label);
        expect_error(read_bytes(dir, c.bytes),
                     dir.file("in") + ": line 1: neither SAM nor BAM data");
        expect_error(read_bytes(dir, "\n\n" + c.bytes),
                     dir.file("in") + ": line 3: neither SAM nor BAM data");
        expect_error(read_bytes(dir, bgzf("\n" + c.bytes)),
                     dir.file("in") + ": line 2: neither SAM nor BAM data");
    }
    // Text might be meant as SAM: the record itself is at fault.
    for (char const* const text :
         {"hello", ">r1\nACGT\n", "{\"name\": \"r1\"}\n", "BAM", "a,b\n"}) {
        SCOPED_TRACE(text);
        Result const result = read_bytes(dir, text);
        std::string const begin = dir.file("in") + ": line 1: 11 columns are needed, ";
        EXPECT_EQ(result.error.substr(0, begin.size()), begin);
    }
}

TEST(AlignmentReader, InputThatCannotBeRead_IsErrorNamingIt) {
    TempDir const dir;
    std::string const none = dir.file("none");
    expect_error(read_alignments(none), "cannot open " + none + ": No such file or directory");
    std::string const folder = dir.path().string();
    expect_error(read_alignments(folder), "cannot read " + folder + ": Is a directory");
    std::string const good = bgzf(bam_payload());
    expect_error(read_bytes(dir, with_byte(good, good.size() - 1, 1)),
                 dir.file("in") + ": damaged BGZF block at byte " +
                     std::to_string(good.size() - 28) + ": more than 64 KiB of data");
    // The same reader may still open another file.
    AlignmentReader reader;
    EXPECT_FALSE(reader.open(none));
    RecordBatch batch;
    EXPECT_FALSE(reader.read_batch(batch));
    ASSERT_TRUE(reader.open(dir.write("in", sam_text())));
    EXPECT_EQ(reader.name(), dir.file("in"));
    Result result;
    read_batches(reader, result);
    EXPECT_EQ(hex_text(result.records), hex_text(encoded(LINES)));
    EXPECT_EQ(reader.bytes_read(), sam_text().size());
}

// --- Lines ---------------------------------------------------------------------

TEST(AlignmentReader, BlankLines_AreSkippedAndCounted) {
    TempDir const dir;
    std::vector<std::string> const header = {"@HD\tVN:1.6\tSO:coordinate",
                                             "@SQ\tSN:chr1\tLN:100000", "@SQ\tSN:chr2\tLN:50000",
                                             "@CO\ta comment"};
    std::string text;
    for (std::string const& line : header) text += "\n" + line + "\n";
    text += "\n\r\n" + joined({LINES[0]}) + "\n\n" + joined({LINES[1]}) + "\r\n";
    Result const result = read_bytes(dir, text);
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.header, HEADER);
    EXPECT_EQ(hex_text(result.records), hex_text(encoded({LINES[0], LINES[1]})));
    // Only those in the header are repairs.
    AlignmentReader reader;
    ASSERT_TRUE(reader.open(dir.write("in", text)));
    EXPECT_EQ(reader.report().of(Repair::HEADER_BLANK_LINE).count, 4U);
    EXPECT_EQ(reader.report().of(Repair::HEADER_BLANK_LINE).first.text(), "line 1");
    EXPECT_EQ(result.findings.size(), 1U);
    // The numbers of lines go on over all of them: 8 of the header, 2, 1, 2, 1, 1.
    std::string const fault = read_bytes(dir, text + "r1\n").error;
    EXPECT_EQ(fault.substr(0, fault.rfind(": ")), dir.file("in") + ": line 16");
}

TEST(AlignmentReader, LastLine_MayLackItsEnd) {
    TempDir const dir;
    std::string const text = sam_text();
    expect_sample(read_bytes(dir, text.substr(0, text.size() - 1)));
    expect_sample(read_bytes(dir, bgzf(text.substr(0, text.size() - 1), 10)));
    std::string const header(HEADER);
    Result const result = read_bytes(dir, header.substr(0, header.size() - 1));
    EXPECT_EQ(result.error, "");
    EXPECT_EQ(result.header, HEADER);
}

TEST(AlignmentReader, LineFarLongerThanAPiece_IsRead) {
    TempDir const dir;
    std::string const line = LINES[0] + "\tXL:Z:" + std::string(5000000, 'x');
    std::vector<std::string> const lines = {LINES[1], line, LINES[2], line, line};
    std::string const text = HEADER + joined(lines);
    for (std::string const& bytes : {text, bgzf(text), gzipped(dir, text)}) {
        Result const result = read_bytes(dir, bytes);
        EXPECT_EQ(result.error, "");
        EXPECT_TRUE(result.records == encoded(lines));
    }
    std::string const payload = encode_bam_header(HEADER, references_of(HEADER)) + encoded(lines);
    EXPECT_TRUE(read_bytes(dir, bgzf(payload)).records == encoded(lines));
}

TEST(AlignmentReader, HeaderLineAfterAnAlignment_IsError) {
    TempDir const dir;
    std::string const text = HEADER + joined({LINES[0], "@CO\tlate", LINES[1]});
    std::string const message = dir.file("in") + ": line 6: header line after the first alignment";
    Result const result = read_bytes(dir, text);
    expect_error(result, message);
    EXPECT_EQ(hex_text(result.records), hex_text(encoded({LINES[0]})));
    ReaderOptions options;
    options.keep_going = true;
    Result const all = read_bytes(dir, text, options);
    EXPECT_EQ(all.error, "");
    EXPECT_EQ(all.reported, std::vector<std::string>{message});
    EXPECT_EQ(hex_text(all.records), hex_text(encoded({LINES[0], LINES[1]})));
}

TEST(AlignmentReader, HeaderThatIsNotValid_IsErrorWithItsLine) {
    TempDir const dir;
    std::string const text = "\n@SQ\tSN:chr1\tLN:abc\n" + joined(LINES);
    std::string const begin = dir.file("in") + ": line 2: ";
    ReaderOptions options;
    options.keep_going = true;  // makes no difference here
    for (ReaderOptions const& o : {ReaderOptions(), options}) {
        Result const result = read_bytes(dir, text, o);
        EXPECT_EQ(result.error.substr(0, begin.size()), begin);
        EXPECT_EQ(result.n_records, 0U);
    }
    std::string const payload = encode_bam_header("@SQ\tSN:chr1\tLN:abc\n", {}) + encoded(LINES);
    std::string const bam_begin = dir.file("in") + ": header line 1: ";
    EXPECT_EQ(read_bytes(dir, bgzf(payload)).error.substr(0, bam_begin.size()), bam_begin);
}

// --- Records that are not valid --------------------------------------------------

TEST(AlignmentReader, RecordThatIsNotValid_EndsTheReadingOrIsLeftOut) {
    TempDir const dir;
    std::string const bad_sam = "bad\t0\tchr1\t1\t0\t4M\t*\t0\t0\tACGT\tIII";
    std::string const sam = HEADER + joined({LINES[0], bad_sam, LINES[1], "bad", LINES[2]});
    // In BAM: a CIGAR over fewer bases than there are, and a field of no type.
    std::string short_cigar = encoded({LINES[0]});
    std::size_t const cigar = 36 + 3;
    short_cigar = with_byte(short_cigar, cigar, 3 << 4);
    std::string const no_type = with_byte(encoded({LINES[0]}), encoded({LINES[0]}).size() - 5, '?');
    std::string const bam = encode_bam_header(HEADER, references_of(HEADER)) + encoded({LINES[0]}) +
                            short_cigar + encoded({LINES[1]}) + no_type + encoded({LINES[2]});
    std::string const in = dir.file("in");
    struct Case {
        char const* label;
        std::string bytes;
        std::string places[2];
    };
    Case const cases[] = {
        {"SAM", sam, {": line 6, column QUAL: ", ": line 8: "}},
        {"BAM", bgzf(bam), {": record 2, column CIGAR: ", ": record 4, column NM: "}},
    };
    ReaderOptions keep_going;
    keep_going.keep_going = true;
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        Result const first = read_bytes(dir, c.bytes);
        EXPECT_EQ(first.error.substr(0, (in + c.places[0]).size()), in + c.places[0]);
        EXPECT_GT(first.error.size(), (in + c.places[0]).size());
        EXPECT_EQ(first.reported, std::vector<std::string>{first.error});
        EXPECT_EQ(hex_text(first.records), hex_text(encoded({LINES[0]})));

        Result const all = read_bytes(dir, c.bytes, keep_going);
        EXPECT_EQ(all.error, "");
        EXPECT_EQ(hex_text(all.records), hex_text(encoded({LINES[0], LINES[1], LINES[2]})));
        ASSERT_EQ(all.reported.size(), 2U);
        EXPECT_EQ(all.reported[0], first.error);
        EXPECT_EQ(all.reported[1].substr(0, (in + c.places[1]).size()), in + c.places[1]);
    }
}

TEST(AlignmentReader, DamageBehindWhichNothingIsKnown_EndsTheReadingAlways) {
    TempDir const dir;
    std::string const in = dir.file("in");
    ReaderOptions options;
    options.keep_going = true;
    std::string const head = encode_bam_header(HEADER, references_of(HEADER));
    std::string const record = encoded({LINES[0]});
    auto const sized = [&](std::uint32_t size) { return le_bytes(size) + record.substr(4); };
    struct Case {
        char const* label;
        std::string second;
        char const* message;
    };
    Case const cases[] = {
        {"size 0", sized(0), "block_size 0 is out of range"},
        {"size 31", sized(31), "block_size 31 is out of range"},
        {"size -1", sized(0xFFFFFFFF), "block_size 4294967295 is out of range"},
        {"above the greatest", sized(0x7FFFFFFC), "block_size 2147483644 is out of range"},
        {"the greatest", sized(0x7FFFFFFB), "the file ends inside it"},
        {"1 more", sized(static_cast<std::uint32_t>(record.size() - 4 + 1)),
         "the file ends inside it"},
        {"no size", record.substr(0, 3), "the file ends inside it"},
        {"size alone", record.substr(0, 4), "the file ends inside it"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        for (std::string const& bytes :
             {head + record + c.second, bgzf(head + record + c.second)}) {
            Result const result = read_bytes(dir, bytes, options);
            expect_error(result, in + ": record 2: " + c.message);
            EXPECT_EQ(hex_text(result.records), hex_text(record));
        }
    }
    // The least size is that of a record without name, which is one fault among others.
    Result const least = read_bytes(dir, head + le_bytes(32) + record.substr(4, 32) + record,  //
                                    options);
    EXPECT_EQ(least.error, "");
    EXPECT_EQ(least.reported.size(), 1U);
    EXPECT_EQ(hex_text(least.records), hex_text(record));
}

TEST(AlignmentReader, PackedText_DamagedInAnyBlock_IsReadUpToThere) {
    TempDir const dir;
    std::string const text = sam_text();
    std::string const file = bgzf(text, 50);
    std::vector<BgzfBlock> const blocks = parse_bgzf(file);
    std::size_t const n_header = std::string_view(HEADER).size();
    std::size_t n_before = 0;  // bytes of text
    for (BgzfBlock const& block : blocks) {
        SCOPED_TRACE(block.offset);
        std::size_t const checksum = block.offset + block.size - 8;
        Result const result = read_bytes(dir, with_byte(file, checksum, file[checksum] ^ 1));
        expect_error(result, dir.file("in") + ": damaged BGZF block at byte " +
                                 std::to_string(block.offset) + ": its checksum does not match");
        std::vector<std::string> whole;  // lines before the damage
        std::size_t end = n_header;
        for (std::string const& line : LINES) {
            end += line.size() + 1;
            if (end <= n_before) whole.push_back(line);
        }
        EXPECT_EQ(hex_text(result.records), hex_text(encoded(whole)));
        n_before += block.payload.size();
    }
    EXPECT_EQ(n_before, text.size());
}

TEST(AlignmentReader, CountsInABamHeader_AreHeldAgainstTheFile) {
    TempDir const dir;
    std::string const magic("BAM\x01", 4);
    std::string const text = "@HD\tVN:1.6\n";
    auto const n = [](std::int64_t value) { return le_bytes(static_cast<std::int32_t>(value)); };
    std::string const head = magic + n(11) + text;
    std::string const inside = "the file ends inside its header";
    std::string const name_end = "header: the name of reference 1 does not end with its NUL byte";
    struct Case {
        char const* label;
        std::string bytes;
        std::string message;
    };
    Case const cases[] = {
        {"text of -1", magic + n(-1) + text, "header: l_text is -1"},
        {"least text", magic + n(INT32_MIN) + text, "header: l_text is -2147483648"},
        {"text too long by 1", magic + n(12) + text, inside},
        {"text of 2 GiB", magic + n(INT32_MAX) + text, inside},
        {"no text", magic, inside},
        {"no list", head, inside},
        {"list of -1", head + n(-1), "header: n_ref is -1"},
        {"list of 1 without any", head + n(1), inside},
        {"list of 2^31 - 1", head + n(INT32_MAX) + n(2) + std::string("c\0", 2) + n(9), inside},
        {"name of -1", head + n(1) + n(-1), "header: l_name is -1"},
        {"name of 0", head + n(1) + n(0) + n(9), name_end},
        {"name of 2 GiB", head + n(1) + n(INT32_MAX) + "chr1", inside},
        {"name without end", head + n(1) + n(4) + "chr1" + n(9), name_end},
        {"name with an end inside", head + n(1) + n(4) + std::string("c\0r\0", 4) + n(9), name_end},
        {"no length", head + n(1) + n(2) + std::string("c\0", 2), inside},
        {"length of -1", head + n(1) + n(2) + std::string("c\0", 2) + n(-1), "header: l_ref is -1"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        for (std::string const& bytes : {c.bytes, bgzf(c.bytes, 5)}) {
            expect_error(read_bytes(dir, bytes), dir.file("in") + ": " + c.message);
        }
    }
    Result const good = read_bytes(dir, head + n(1) + n(2) + std::string("c\0", 2) + n(9));
    EXPECT_EQ(good.error, "");
    EXPECT_EQ(good.header, "@HD\tVN:1.6\n@SQ\tSN:c\tLN:9\n");
}

// --- The end of the file ---------------------------------------------------------

TEST(AlignmentReader, LastBlockMissing_IsErrorOrWarning) {
    TempDir const dir;
    ReaderOptions allow;
    allow.allow_missing_eof = true;
    for (std::string const& payload : {sam_text(), bam_payload()}) {
        std::string const bytes = bgzf_blocks(payload, 100);
        Result const strict = read_bytes(dir, bytes);
        expect_error(strict, dir.file("in") + NO_EOF_BLOCK);
        EXPECT_EQ(hex_text(strict.records), hex_text(encoded(LINES)));

        Result const allowed = read_bytes(dir, bytes, allow);
        EXPECT_EQ(allowed.error, "");
        EXPECT_EQ(hex_text(allowed.records), hex_text(encoded(LINES)));
        AlignmentReader reader(allow);
        ASSERT_TRUE(reader.open(dir.write("in", bytes)));
        Result result;
        read_batches(reader, result);
        EXPECT_EQ(reader.report().of(Warning::MISSING_EOF_BLOCK).count, 1U);
        EXPECT_EQ(reader.report().of(Warning::MISSING_EOF_BLOCK).first.text(), "");
        EXPECT_EQ(allowed.findings.size(), 1U);
        // The block counts at the end alone.
        EXPECT_EQ(read_bytes(dir, bgzf_eof_block() + bytes).error, dir.file("in") + NO_EOF_BLOCK);
        expect_sample(read_bytes(dir, bytes + bgzf_eof_block(), allow));
    }
}

TEST(AlignmentReader, BamFile_CutAtEveryLength_IsRefused) {
    TempDir const dir;
    std::string const in = dir.file("in");
    std::string const file = bgzf(bam_payload(), 100);
    for (std::size_t n = 1; n < file.size(); ++n) {
        SCOPED_TRACE(n);
        Result const result = read_bytes(dir, file.substr(0, n));
        EXPECT_NE(result.error, "");
        EXPECT_EQ(result.error.rfind(in + ": ", 0), 0U) << result.error;
        EXPECT_EQ(result.reported, std::vector<std::string>{result.error});
        EXPECT_EQ(encoded(LINES).rfind(result.records, 0), 0U);
    }
    expect_sample(read_bytes(dir, file));
}

// Without blocks around it only its own frame tells where a file ends.
TEST(AlignmentReader, UnpackedBam_CutAtEveryLength_EndsBetweenRecordsOrIsRefused) {
    TempDir const dir;
    std::string const in = dir.file("in");
    std::string const payload = bam_payload();
    std::size_t const n_header = payload.size() - encoded(LINES).size();
    std::vector<std::size_t> ends = {n_header};
    for (std::string const& line : LINES) ends.push_back(ends.back() + encoded({line}).size());
    for (std::size_t n = 4; n < payload.size(); ++n) {
        SCOPED_TRACE(n);
        Result const result = read_bytes(dir, payload.substr(0, n));
        std::size_t const n_whole =
            static_cast<std::size_t>(std::upper_bound(ends.begin(), ends.end(), n) - ends.begin());
        if (n_whole == 0) {
            EXPECT_EQ(result.error, in + ": the file ends inside its header");
        } else if (n == ends[n_whole - 1]) {
            EXPECT_EQ(result.error, "");
        } else {
            EXPECT_EQ(result.error,
                      in + ": record " + std::to_string(n_whole) + ": the file ends inside it");
        }
        EXPECT_EQ(result.n_records, n_whole == 0 ? 0 : n_whole - 1);
    }
}

TEST(AlignmentReader, BamFile_AnyByteChanged_IsRefusedOrReadTheSame) {
    TempDir const dir;
    std::string const file = bgzf(bam_payload(), 100);
    std::size_t n_refused = 0;
    for (std::size_t i = 0; i < file.size(); ++i) {
        for (int const mask : {0x01, 0x80, 0xFF}) {
            SCOPED_TRACE(std::to_string(i) + " xor " + std::to_string(mask));
            Result const result = read_bytes(dir, with_byte(file, i, file[i] ^ mask));
            if (!result.error.empty()) ++n_refused;
            EXPECT_TRUE(!result.error.empty() || result.records == encoded(LINES));
        }
    }
    EXPECT_GT(n_refused, 2 * file.size());
}

// No checksum helps here: whatever is accepted has the form of records.
TEST(AlignmentReader, UnpackedBam_AnyByteChanged_IsRefusedOrGivesRecords) {
    TempDir const dir;
    std::string const payload = bam_payload();
    ReaderOptions options;
    options.keep_going = true;
    for (std::size_t i = 4; i < payload.size(); ++i) {
        for (int const mask : {0x01, 0x80, 0xFF}) {
            SCOPED_TRACE(std::to_string(i) + " xor " + std::to_string(mask));
            std::string const bytes = with_byte(payload, i, payload[i] ^ mask);
            Result const strict = read_bytes(dir, bytes);
            Result const all = read_bytes(dir, bytes, options);
            EXPECT_LE(strict.n_records, all.n_records);
            EXPECT_LE(all.n_records, LINES.size());
            EXPECT_EQ(strict.reported.size(), strict.error.empty() ? 0U : 1U);
            if (strict.error.empty()) {
                EXPECT_EQ(strict.n_records, LINES.size());
            }
        }
    }
}

// --- Batches ---------------------------------------------------------------------

TEST(AlignmentReader, BatchLimits_BelowAtAndAbove_AreKept) {
    TempDir const dir;
    std::vector<std::string> const lines(6, LINES[0]);
    std::size_t const size = encoded({LINES[0]}).size();
    using Sizes = std::vector<std::size_t>;
    struct Case {
        char const* label;
        std::size_t batch_records;
        std::size_t batch_bytes;
        Sizes batches;
    };
    std::size_t const many = 1000000;
    Case const cases[] = {
        {"no record is as good as one", 0, many, Sizes(6, 1)},
        {"one record", 1, many, Sizes(6, 1)},
        {"all but one", 5, many, {5, 1}},
        {"all", 6, many, {6}},
        {"more than all", 7, many, {6}},
        {"a part of them", 2, many, {2, 2, 2}},
        {"no byte", many, 0, Sizes(6, 1)},
        {"one byte", many, 1, Sizes(6, 1)},
        {"a byte less than two records", many, 2 * size - 1, {2, 2, 2}},
        {"two records", many, 2 * size, {2, 2, 2}},
        {"a byte more", many, 2 * size + 1, {3, 3}},
        {"a byte more than all", many, 6 * size + 1, {6}},
        {"records come first", 2, 3 * size, {2, 2, 2}},
        {"bytes come first", 4, 3 * size, {3, 3}},
    };
    std::string const payload = encode_bam_header(HEADER, references_of(HEADER)) + encoded(lines);
    for (std::string const& bytes : {HEADER + joined(lines), bgzf(payload, 50)}) {
        for (Case const& c : cases) {
            SCOPED_TRACE(c.label);
            ReaderOptions options;
            options.batch_records = c.batch_records;
            options.batch_bytes = c.batch_bytes;
            Result const result = read_bytes(dir, bytes, options);
            EXPECT_EQ(result.error, "");
            EXPECT_EQ(result.batches, c.batches);
            EXPECT_EQ(hex_text(result.records), hex_text(encoded(lines)));
        }
    }
}

TEST(AlignmentReader, KeepLines_SamInput_GivesTheRepairedLines) {
    TempDir const dir;
    ReaderOptions options;
    options.keep_lines = true;
    EXPECT_EQ(read_bytes(dir, sam_text()).lines, "");
    EXPECT_EQ(read_bytes(dir, sam_text(), options).lines, joined(LINES));
    EXPECT_EQ(read_bytes(dir, bgzf(bam_payload()), options).lines, "");
    std::string dos;
    for (char const c : sam_text()) dos += c == '\n' ? std::string("\r\n") : std::string(1, c);
    Result const repaired = read_bytes(dir, dos, options);
    EXPECT_EQ(repaired.error, "");
    EXPECT_EQ(repaired.header, HEADER);
    EXPECT_EQ(repaired.lines, joined(LINES));
    EXPECT_EQ(hex_text(repaired.records), hex_text(encoded(LINES)));
    // Batches have the lines of their own records.
    options.batch_records = 2;
    AlignmentReader reader(options);
    ASSERT_TRUE(reader.open(dir.write("in", sam_text())));
    RecordBatch batch;
    ASSERT_TRUE(reader.read_batch(batch));
    EXPECT_EQ(batch.lines.view(), joined({LINES[0], LINES[1]}));
    ASSERT_TRUE(reader.read_batch(batch));
    EXPECT_EQ(batch.lines.view(), joined({LINES[2], LINES[3]}));
}

// --- Batches for a handler -------------------------------------------------------

std::string references_text(BAMFileHandler const& handler) {
    std::string text;
    for (auto const& reference : handler.references) {
        text += reference.name + ' ' + std::to_string(reference.length) + '\n';
    }
    return text;
}

TEST(AlignmentReader, Handler_SamFileThatTheLibraryAccepts_IsFilledTheSame) {
    TempDir const dir;
    std::string const in = dir.write("in", sam_text());
    BAMFileHandler expected;
    ASSERT_TRUE(expected.read_from_sam_file(in)) << expected.error_message;
    ReaderOptions options;
    for (std::size_t const batch_records : {1U, 2U, 5U, 100U}) {
        SCOPED_TRACE(batch_records);
        options.batch_records = batch_records;
        AlignmentReader reader(options);
        BAMFileHandler handler;
        // What is there already goes.
        ASSERT_TRUE(handler.add_header_lines("@SQ\tSN:old\tLN:1\n"));
        ASSERT_TRUE(handler.add_alignment_sam(LINES[0]));
        ASSERT_TRUE(reader.open(in));
        std::size_t n = 0;
        do {
            ASSERT_TRUE(reader.read_batch(handler)) << reader.error_message;
            EXPECT_EQ(handler.header, expected.header);
            EXPECT_EQ(handler.header_lines, expected.header_lines);
            EXPECT_EQ(handler.sort_order, expected.sort_order);
            EXPECT_EQ(references_text(handler), references_text(expected));
            EXPECT_LE(handler.records.size(), batch_records);
            for (auto const& record : handler.records) {
                SCOPED_TRACE(n);
                ASSERT_LT(n, expected.records.size());
                EXPECT_EQ(record_text(record), record_text(expected.records[n]));
                ++n;
            }
        } while (!handler.records.empty());
        EXPECT_EQ(n, expected.records.size());
    }
}

TEST(AlignmentReader, Handler_BamFile_ListsReferencesOnceAndRendersLines) {
    TempDir const dir;
    AlignmentReader reader;
    ASSERT_TRUE(reader.open(dir.write("in", bgzf(bam_payload()))));
    BAMFileHandler handler;
    // The library's own reader lists references twice; the text is the same.
    ASSERT_TRUE(handler.read_from_bam_file(dir.file("in"))) << handler.error_message;
    ASSERT_EQ(handler.references.size(), 4U);
    ASSERT_TRUE(reader.read_batch(handler)) << reader.error_message;
    EXPECT_EQ(handler.header, HEADER);
    EXPECT_EQ(references_text(handler), "chr1 100000\nchr2 50000\n");
    ASSERT_EQ(handler.records.size(), LINES.size());
    for (std::size_t i = 0; i < LINES.size(); ++i) EXPECT_EQ(handler.records[i].sam_line, LINES[i]);
    ASSERT_TRUE(reader.read_batch(handler));
    EXPECT_TRUE(handler.records.empty());
    EXPECT_EQ(handler.header, HEADER);
    // Another handler gets the header, too.
    BAMFileHandler other;
    ASSERT_TRUE(reader.read_batch(other));
    EXPECT_EQ(other.header, HEADER);
}

TEST(AlignmentReader, Handler_Fault_LeavesTheRecordsBeforeIt) {
    TempDir const dir;
    AlignmentReader reader;
    ASSERT_TRUE(reader.open(dir.write("in", HEADER + joined({LINES[0], LINES[1], "bad"}))));
    BAMFileHandler handler;
    EXPECT_FALSE(reader.read_batch(handler));
    std::string const begin = dir.file("in") + ": line 7: ";
    EXPECT_EQ(reader.error_message.substr(0, begin.size()), begin);
    ASSERT_EQ(handler.records.size(), 2U);
    EXPECT_EQ(handler.records[1].sam_line, LINES[1]);
    std::string const message = reader.error_message;
    EXPECT_FALSE(reader.read_batch(handler));
    EXPECT_EQ(reader.error_message, message);
    EXPECT_TRUE(handler.records.empty());
}

TEST(AlignmentReader, Handler_NoHeader_IsEmptied) {
    TempDir const dir;
    AlignmentReader reader;
    ASSERT_TRUE(reader.open(dir.write("in", LINES[4])));
    BAMFileHandler handler;
    ASSERT_TRUE(handler.add_header_lines(HEADER));
    ASSERT_TRUE(reader.read_batch(handler)) << reader.error_message;
    EXPECT_EQ(handler.header, "");
    EXPECT_TRUE(handler.references.empty());
    ASSERT_EQ(handler.records.size(), 1U);
    EXPECT_EQ(handler.records[0].sam_line, LINES[4]);
}

// --- Regions ---------------------------------------------------------------------

// Sorted records over three references, some long and spliced, some without CIGAR,
// at the end some without reference.
struct SortedSample {
    std::string header =
        "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:a\tLN:1000000\n"
        "@SQ\tSN:b\tLN:1000000\n@SQ\tSN:c\tLN:1000000\n";
    struct Placed {
        std::int32_t refID;
        std::int64_t beg, end;
        std::string line;
    };
    std::vector<Placed> records;

    std::string text() const {
        std::string result = header;
        for (Placed const& record : records) result += record.line + "\n";
        return result;
    }
};

SortedSample sorted_sample(std::size_t n) {
    std::mt19937 random(7);
    SortedSample sample;
    for (std::size_t i = 0; i < n; ++i) {
        SortedSample::Placed placed;
        placed.refID = i % 10 == 0 ? 3 : static_cast<std::int32_t>(random() % 2 * 2);  // none on b
        placed.beg = static_cast<std::int64_t>(random() % 800000);
        if (i % 5 == 1) placed.beg = placed.beg / 16384 * 16384;
        std::int64_t const skipped = i % 7 == 0 ? static_cast<std::int64_t>(random() % 100000) : 9;
        bool const bare = i % 11 == 0;
        placed.end = placed.beg + (bare ? 1 : 4 + skipped);
        std::string const cigar = bare ? "*" : "2M" + std::to_string(skipped) + "N2M";
        SamLine line;
        line.with(QNAME, "r" + std::to_string(i)).with(CIGAR, cigar);
        if (placed.refID == 3) {
            placed.beg = placed.end = -1;
            line.with(FLAG, "4").with(RNAME, "*").with(POS, "0").with(CIGAR, "*");
        } else {
            line.with(FLAG, bare ? "4" : "0").with(RNAME, {&"abc"[placed.refID], 1});
            line.with(POS, std::to_string(placed.beg + 1));
        }
        placed.line = line.text();
        sample.records.push_back(placed);
    }
    std::stable_sort(sample.records.begin(), sample.records.end(),
                     [](auto const& a, auto const& b) {
                         return std::make_pair(a.refID, a.beg) < std::make_pair(b.refID, b.beg);
                     });
    return sample;
}

// The lines that a scan by the definition finds.
std::string lines_in(SortedSample const& sample, std::vector<Region> const& regions) {
    std::string text;
    for (auto const& record : sample.records) {
        bool const overlaps =
            std::any_of(regions.begin(), regions.end(), [&](Region const& region) {
                return region.refID == record.refID && region.beg < region.end &&
                       record.beg < region.end && record.end > region.beg;
            });
        if (overlaps) text += record.line + "\n";
    }
    return text;
}

std::string encoded_lines(SortedSample const& sample, std::string_view lines) {
    std::string bytes;
    for (std::string const& line : split_sam(lines).alignments) {
        bytes += encode_bam_record(line, references_of(sample.header));
    }
    return bytes;
}

// Where a record stands in a BAM file: virtual offsets.
struct Stretch {
    std::uint64_t begin;
    std::uint64_t end;
};

// The part of a BAI file that is about one reference: all records of a bin in
// chunks of their own, and in each window the first record that overlaps it.
class BaiSection {
public:
    void add(std::uint16_t bin, std::int64_t beg, std::int64_t end, Stretch const& stretch) {
        bins_[bin].push_back(stretch);
        auto const last = static_cast<std::size_t>((end - 1) / 16384);
        if (windows_.size() <= last) windows_.resize(last + 1, 0);
        for (auto i = static_cast<std::size_t>(beg / 16384); i <= last; ++i) {
            if (windows_[i] == 0) windows_[i] = stretch.begin;
        }
    }

    std::string bytes() const {
        std::string text = le_bytes(static_cast<std::uint32_t>(bins_.size()));
        for (auto const& [bin, stretches] : bins_) {
            text += le_bytes(std::uint32_t{bin});
            text += le_bytes(static_cast<std::uint32_t>(stretches.size()));
            for (Stretch const& stretch : stretches) {
                text += le_bytes(stretch.begin) + le_bytes(stretch.end);
            }
        }
        text += le_bytes(static_cast<std::uint32_t>(windows_.size()));
        for (std::uint64_t const offset : windows_) text += le_bytes(offset);
        return text;
    }

private:
    std::map<std::uint16_t, std::vector<Stretch>> bins_;
    std::vector<std::uint64_t> windows_;
};

std::string bai_file(std::vector<BaiSection> const& sections) {
    std::string bytes = "BAI\x01" + le_bytes(static_cast<std::uint32_t>(sections.size()));
    for (BaiSection const& section : sections) bytes += section.bytes();
    return bytes;
}

// A BAM file whose records straddle blocks, and its index.
struct IndexedFile {
    std::string bam;
    std::string bai;
};

IndexedFile indexed_file(SortedSample const& sample, std::size_t block_size) {
    auto const references = references_of(sample.header);
    std::string payload = encode_bam_header(sample.header, references);
    std::vector<std::size_t> places = {payload.size()};  // where records begin, and the end
    std::vector<std::uint16_t> bins;
    for (auto const& placed : sample.records) {
        std::string const record = encode_bam_record(placed.line, references);
        bins.push_back(RecordView(record.data()).bin());
        payload += record;
        places.push_back(payload.size());
    }
    IndexedFile file;
    file.bam = bgzf(payload, block_size);
    std::vector<BgzfBlock> const blocks = parse_bgzf(file.bam);
    auto const virtual_offset = [&](std::size_t place) {
        return blocks.at(place / block_size).offset << 16 | place % block_size;
    };
    std::vector<BaiSection> sections(references.size());
    for (std::size_t i = 0; i < sample.records.size(); ++i) {
        auto const& placed = sample.records[i];
        if (placed.beg < 0) continue;
        sections.at(static_cast<std::size_t>(placed.refID))
            .add(bins[i], placed.beg, placed.end,
                 {virtual_offset(places[i]), virtual_offset(places[i + 1])});
    }
    file.bai = bai_file(sections);
    return file;
}

std::vector<Region> random_regions(std::mt19937& random) {
    std::vector<Region> regions;
    std::size_t const n = 1 + random() % 3;
    for (std::size_t i = 0; i < n; ++i) {
        Region region;
        region.refID = static_cast<std::int32_t>(random() % 3);
        region.beg = static_cast<std::int64_t>(random() % 900000);
        if (random() % 3 == 0) region.beg = region.beg / 16384 * 16384;
        std::int64_t const lengths[] = {1, 100, 16384, 300000};
        region.end = region.beg + lengths[random() % 4];
        regions.push_back(region);
    }
    return regions;
}

std::string selected(std::string const& path, std::vector<Region> const& regions,
                     IndexReader const* index) {
    ReaderOptions options;
    options.batch_records = 7;
    AlignmentReader reader(options);
    if (!reader.open(path) || !reader.select(regions, index)) return reader.error_message;
    Result result;
    read_batches(reader, result);
    return result.error.empty() ? result.records : result.error;
}

TEST(AlignmentReader, Select_RandomRegions_GiveWhatAScanFinds) {
    TempDir const dir;
    SortedSample const sample = sorted_sample(3000);
    std::string const sam = dir.write("in.sam", sample.text());
    std::mt19937 random(11);
    for (std::size_t const block_size : {37U, 1000U, 65280U}) {
        IndexedFile const file = indexed_file(sample, block_size);
        std::string const bam = dir.write("in.bam", file.bam);
        IndexReader index;
        ASSERT_TRUE(index.open(dir.write("in.bam.bai", file.bai))) << index.error_message;
        int n_found = 0;
        for (int i = 0; i < 150; ++i) {
            std::vector<Region> const regions = random_regions(random);
            std::string const lines = lines_in(sample, regions);
            std::string const expected = encoded_lines(sample, lines);
            SCOPED_TRACE(std::to_string(block_size) + ", query " + std::to_string(i));
            EXPECT_TRUE(selected(bam, regions, &index) == expected);
            if (!lines.empty()) ++n_found;
            if (i % 10 != 0) continue;
            EXPECT_TRUE(selected(bam, regions, nullptr) == expected);
            EXPECT_TRUE(selected(sam, regions, nullptr) == expected);
        }
        EXPECT_GT(n_found, 50);
    }
}

TEST(AlignmentReader, Select_BoundsOfARegion_AreHalfOpen) {
    TempDir const dir;
    SortedSample sample;
    sample.records = {
        {0, 100, 104, "m\t0\ta\t101\t9\t4M\t*\t0\t0\tACGT\tIIII"},
        {0, 200, 201, "u\t4\ta\t201\t0\t*\t*\t0\t0\tACGT\tIIII"},
    };
    IndexedFile const file = indexed_file(sample, 1000);
    std::string const bam = dir.write("in.bam", file.bam);
    std::string const sam = dir.write("in.sam", sample.text());
    IndexReader index;
    ASSERT_TRUE(index.open(dir.write("in.bam.bai", file.bai)));
    struct Case {
        char const* label;
        std::vector<Region> regions;
        std::string names;
    };
    Case const cases[] = {
        {"ends before", {{0, 0, 100}}, ""},
        {"ends in the first base", {{0, 0, 101}}, "m"},
        {"begins in the last base", {{0, 103, 104}}, "m"},
        {"begins behind", {{0, 104, 200}}, ""},
        {"no CIGAR, before", {{0, 199, 200}}, ""},
        {"no CIGAR, its base", {{0, 200, 201}}, "u"},
        {"no CIGAR, behind", {{0, 201, 202}}, ""},
        {"empty", {{0, 102, 102}}, ""},
        {"turned round", {{0, 103, 101}}, ""},
        {"other reference", {{1, 0, 1000000}}, ""},
        {"no reference", {{-1, 0, 1000000}}, ""},
        {"reference beyond the header", {{3, 0, 1000000}}, ""},
        {"the same twice", {{0, 100, 104}, {0, 100, 104}}, "m"},
        {"in any order", {{0, 200, 201}, {0, 100, 101}}, "mu"},
        {"one inside the other", {{0, 0, 1000}, {0, 150, 160}}, "mu"},
        {"none at all", {}, ""},
        {"all there is", {{0, 0, INT64_MAX}}, "mu"},
        {"from below 0", {{0, -5, 101}}, "m"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string expected;
        for (auto const& record : sample.records) {
            if (c.names.find(record.line[0]) == std::string::npos) continue;
            expected += encode_bam_record(record.line, references_of(sample.header));
        }
        EXPECT_EQ(hex_text(selected(bam, c.regions, &index)), hex_text(expected));
        EXPECT_EQ(hex_text(selected(bam, c.regions, nullptr)), hex_text(expected));
        EXPECT_EQ(hex_text(selected(sam, c.regions, nullptr)), hex_text(expected));
    }
}

TEST(AlignmentReader, Select_ByIndex_ReadsLittleOfALargeFile) {
    TempDir const dir;
    SortedSample sample = sorted_sample(60000);
    std::mt19937 random(3);
    for (auto& record : sample.records) {  // what compresses badly
        record.line += "\tXX:Z:";
        for (int i = 0; i < 100; ++i) record.line += static_cast<char>('!' + random() % 90);
    }
    IndexedFile const file = indexed_file(sample, 65280);
    ASSERT_GT(file.bam.size(), 5000000U);
    AlignmentReader reader;
    ASSERT_TRUE(reader.open(dir.write("in.bam", file.bam)));
    IndexReader index;
    ASSERT_TRUE(index.open(dir.write("in.bam.bai", file.bai)));
    std::vector<Region> const regions = {{2, 400000, 410000}};
    ASSERT_TRUE(reader.select(regions, &index));
    Result result;
    read_batches(reader, result);
    EXPECT_EQ(result.error, "");
    EXPECT_GT(result.n_records, 0U);
    EXPECT_TRUE(result.records == encoded_lines(sample, lines_in(sample, regions)));
    EXPECT_LT(reader.bytes_read(), 1500000U);
}

TEST(AlignmentReader, Select_IndexThatDoesNotFit_IsError) {
    TempDir const dir;
    SortedSample const sample = sorted_sample(100);
    IndexedFile const file = indexed_file(sample, 1000);
    IndexReader index;
    ASSERT_TRUE(index.open(dir.write("good.bai", file.bai)));
    IndexReader other;
    ASSERT_TRUE(other.open(dir.write("other.bai", bai_file(std::vector<BaiSection>(2)))));
    std::vector<Region> const all = {{0, 0, 1000000}, {2, 0, 1000000}};

    std::string const bam = dir.write("in.bam", file.bam);
    EXPECT_EQ(selected(bam, all, &other), bam + ": the index is of 2 references, the header of 3");
    std::string const no_blocks = ": no BAM file in blocks, so it cannot be read by an index";
    std::string const sam = dir.write("in.sam", sample.text());
    EXPECT_EQ(selected(sam, all, &index), sam + no_blocks);
    std::string const plain = dir.write("plain.bam", inflate_bgzf(file.bam));
    EXPECT_EQ(selected(plain, all, &index), plain + no_blocks);

    // The same records in other blocks: most places are none.
    std::string const others = dir.write("others.bam", indexed_file(sample, 500).bam);
    EXPECT_EQ(selected(others, {{2, 799999, 800000}, {2, 0, 800000}}, &index).rfind(others, 0), 0U);
    // Cut behind a block, before the place that is looked for.
    std::vector<BgzfBlock> const blocks = parse_bgzf(file.bam);
    std::string const cut = dir.write("cut.bam", file.bam.substr(0, blocks[3].offset));
    EXPECT_EQ(selected(cut, all, &index).substr(0, cut.size() + 2), cut + ": ");
    // A place in a block that is shorter.
    std::vector<BaiSection> sections(3);
    sections[0].add(4681, 5, 9, {blocks[0].offset << 16 | 1001, blocks[1].offset << 16});
    IndexReader beyond;
    ASSERT_TRUE(beyond.open(dir.write("beyond.bai", bai_file(sections))));
    EXPECT_EQ(selected(bam, all, &beyond),
              bam + ": the index names a place that the file does not have");
}

struct ChunkFileCase {
    char const* label;
    std::string bytes;
    bool allow_missing_eof;
    std::size_t n_records;
    std::string error;  // behind the file's name
    std::uint64_t n_warnings;
};

// A chunk that ends where the last block begins, which some index writers prefer to the
// end of the block before. Each record has a block of its own.
TEST(AlignmentReader, Select_ChunkAtTheEndOfTheFile_IsReadAndTheEndChecked) {
    TempDir const dir;
    SortedSample const sample = [] {
        SortedSample made;
        made.records = {{0, 100, 104, "m\t0\ta\t101\t9\t4M\t*\t0\t0\tACGT\tIIII"},
                        {0, 200, 204, "n\t0\ta\t201\t9\t4M\t*\t0\t0\tACGT\tIIII"}};
        return made;
    }();
    auto const references = references_of(sample.header);
    std::string blocks = bgzf_block(encode_bam_header(sample.header, references));
    std::uint64_t const first = blocks.size();
    blocks += bgzf_block(encode_bam_record(sample.records[0].line, references));
    std::uint64_t const second = blocks.size();
    blocks += bgzf_block(encode_bam_record(sample.records[1].line, references));
    std::uint64_t const end = blocks.size();
    std::vector<BaiSection> sections(3);
    sections[0].add(4681, 100, 204, {first << 16, end << 16});
    IndexReader index;
    ASSERT_TRUE(index.open(dir.write("in.bai", bai_file(sections)))) << index.error_message;

    std::string const whole = blocks + bgzf_eof_block();
    std::string const damage =
        ": damaged BGZF block at byte " + std::to_string(second) + ": its checksum does not match";
    ChunkFileCase const cases[] = {
        {"whole", whole, false, 2, "", 0},
        {"without its last block", blocks, false, 2, NO_EOF_BLOCK, 0},
        {"without its last block, allowed", blocks, true, 2, "", 1},
        {"damaged in the second record", with_byte(whole, end - 8, whole[end - 8] ^ 1), false, 1,
         damage, 0},
    };
    for (ChunkFileCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::string const path = dir.write("in.bam", c.bytes);
        ReaderOptions options;
        options.allow_missing_eof = c.allow_missing_eof;
        AlignmentReader reader(options);
        ASSERT_TRUE(reader.open(path)) << reader.error_message;
        ASSERT_TRUE(reader.select({{0, 0, 1000}}, &index)) << reader.error_message;
        Result result;
        read_batches(reader, result);
        EXPECT_EQ(result.error, c.error.empty() ? "" : path + c.error);
        EXPECT_EQ(result.n_records, c.n_records);
        EXPECT_EQ(reader.report().of(Warning::MISSING_EOF_BLOCK).count, c.n_warnings);
    }
}

TEST(AlignmentReader, Select_PipedFileWithIndex_IsError) {
    TempDir const dir;
    SortedSample const sample = sorted_sample(100);
    IndexedFile const file = indexed_file(sample, 1000);
    IndexReader index;
    ASSERT_TRUE(index.open(dir.write("in.bai", file.bai)));
    PipedInput const input;
    std::thread writer([&] { input.give(file.bam, 1000); });
    std::string const result = selected("-", {{0, 0, 1000000}}, &index);
    writer.join();
    EXPECT_EQ(result, "standard input: not a BGZF file that can be read from any place");
}

// --- Memory ----------------------------------------------------------------------

#ifndef TESK_TEST_SANITIZED

// Ends the process: 0 where all records were read within the memory.
[[noreturn]] void read_within(long max_kib, std::size_t n_records) {
    AlignmentReader reader;
    bool good = reader.open("-");
    std::size_t n = 0;
    RecordBatch batch;
    do {
        good = good && reader.read_batch(batch);
        n += batch.n_records;
    } while (good && batch.n_records != 0);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    bool const small = usage.ru_maxrss < max_kib;
    _exit(!good ? 1 : n != n_records ? 2 : small ? 0 : 3);
}

TEST(AlignmentReader, Pipe_MoreTextThanMemory_IsStreamed) {
    constexpr std::size_t TEXT_BYTES = 200000000;
    constexpr long MAX_KIB = 100L * 1024;
    std::string lines;
    for (int i = 0; i < 1000; ++i) lines += joined(LINES);
    std::size_t const n_pieces = TEXT_BYTES / lines.size() + 1;
    PipedInput const input;
    malloc_trim(0);  // what earlier tests left behind would count
    pid_t const child = fork();
    if (child == 0) {
        input.end();
        read_within(MAX_KIB, n_pieces * 5000);
    }
    input.push(HEADER);
    for (std::size_t i = 0; i < n_pieces; ++i) input.push(lines);
    input.end();
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

#endif

}  // namespace
