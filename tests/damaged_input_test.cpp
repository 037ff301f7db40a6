// Damaged BAM and BAI files: whatever their bytes, the answer is a stated
// failure or exception, no number in them makes the library allocate, and the
// handler works on.

#include "util/bam/bam_file.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <new>
#include <random>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

// ---------------------------------------------------------------------------
// Allocation, counted: every operator new of the program comes here.
// ---------------------------------------------------------------------------

namespace {

std::size_t largest_allocation = 0;

void* counted_malloc(std::size_t size) noexcept {
    largest_allocation = std::max(largest_allocation, size);
    return std::malloc(size == 0 ? 1 : size);
}

// Not inlined: g++ takes free() for the wrong partner of new where it sees both.
[[gnu::noinline]] void release(void* memory) noexcept { std::free(memory); }

}  // namespace

void* operator new(std::size_t size) {
    if (void* const memory = counted_malloc(size)) return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    if (void* const memory = counted_malloc(size)) return memory;
    throw std::bad_alloc();
}
void* operator new(std::size_t size, std::nothrow_t const& /*tag*/) noexcept {
    return counted_malloc(size);
}
void* operator new[](std::size_t size, std::nothrow_t const& /*tag*/) noexcept {
    return counted_malloc(size);
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { release(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { release(memory); }
void operator delete(void* memory, std::nothrow_t const& /*tag*/) noexcept { release(memory); }
void operator delete[](void* memory, std::nothrow_t const& /*tag*/) noexcept { release(memory); }

namespace {

using namespace tesk::test;
using Handler = tesk::util::bam::BAMFileHandler;

constexpr std::size_t ALLOCATION_LIMIT = 1 << 20;  // for files of about 1 KB

constexpr char OVERRUN[] =
    "Reached end of uncompressed BAM buffer unexpectedly while extracting data: "
    "Hit end of BAM buffer while extracting data";

// ---------------------------------------------------------------------------
// The intact files
// ---------------------------------------------------------------------------

constexpr char HEADER_TEXT[] =
    "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:1000\n@SQ\tSN:chr2\tLN:20000\n"
    "@RG\tID:g\n@CO\tcomment\n";
constexpr std::size_t N_RECORDS = 4;

// A BAM payload, and where the things in it begin.
struct SmallBam {
    std::string payload;
    std::vector<std::size_t> record_begins;  // and the payload's end

    SmallBam() {
        std::vector<Reference> const references = references_of(HEADER_TEXT);
        payload = encode_bam_header(HEADER_TEXT, references);
        // The types that SAM text gives ...
        add(
            encode_bam_record("q1\t99\tchr1\t5\t60\t3M1I\t=\t90\t-7\tACGT\tIJKL\tXA:A:q\tXi:i:-1\t"
                              "Xf:f:1.5\tXZ:Z:text\tXH:H:1AE3\tXB:B:i,1,-2",
                              references));
        // ... the others ...
        RawBamRecord types;
        types.refID = 1;
        types.pos = 100;
        types.aux =
            bam_aux("Xc", 'c', "\x01") + bam_aux("XC", 'C', "\x02") + bam_aux("Xs", 's', "ab") +
            bam_aux("XS", 'S', "ab") + bam_aux("XI", 'I', "abcd") + array("Ba", 'c', 3, "abc") +
            array("Bb", 'C', 3, "abc") + array("Bc", 's', 2, "abcd") + array("Bd", 'S', 2, "abcd") +
            array("Be", 'I', 1, "abcd") + array("Bf", 'f', 0, "");
        add(types.bytes());
        // ... a CIGAR that stands in a CG field, and a read without anything.
        RawBamRecord placeholder;
        placeholder.refID = 1;
        placeholder.pos = 200;
        placeholder.flag = 0;
        placeholder.l_seq = 3;
        placeholder.seq = "\x12\x40";
        placeholder.qual = "\x01\x02\x03";
        placeholder.cigar = {3 << 4 | 4, 40 << 4 | 3};
        placeholder.aux = array("CG", 'I', 1, le_bytes(std::uint32_t{3 << 4}));
        add(placeholder.bytes());
        add(RawBamRecord().bytes());
    }

    static std::string array(std::string_view tag, char subtype, std::uint32_t count,
                             std::string_view elements) {
        return bam_aux(tag, 'B', subtype + le_bytes(count) + std::string(elements));
    }

    void add(std::string const& record) {
        if (record_begins.empty()) record_begins.push_back(payload.size());
        payload += record;
        record_begins.push_back(payload.size());
    }
};

std::string bam_of(std::string_view payload) { return bgzf_blocks(payload) + bgzf_eof_block(); }

// A BAI file of two references, the second without reads.
std::string small_bai() {
    auto const i32 = [](std::int32_t value) { return le_bytes(value); };
    auto const u64 = [](std::uint64_t value) { return le_bytes(value); };
    return "BAI\x01" + i32(2) +  // n_ref
           i32(3) +              // n_bin
           i32(37450) + i32(2) + u64(100 << 16) + u64(900 << 16) + u64(3) + u64(1) + i32(4681) +
           i32(2) + u64(100 << 16) + u64(300 << 16) + u64(500 << 16) + u64(900 << 16) +  //
           i32(585) + i32(1) + u64(300 << 16) + u64(500 << 16) +                         //
           i32(2) + u64(100 << 16) + u64(300 << 16) +                                    // n_intv
           i32(0) + i32(0) +  // reference 1
           u64(7);            // n_no_coor
}

// ---------------------------------------------------------------------------
// Reading under watch
// ---------------------------------------------------------------------------

// Replaces a file by a new one: some file systems wait for the disk where an
// old one is overwritten, which takes minutes over thousands of cases.
void replace_file(std::string const& path, std::string_view bytes) {
    std::filesystem::remove(path);
    write_file(path, bytes);
}

bool starts_with(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool is_number(std::string_view text) {
    if (starts_with(text, "-")) text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Whether a BAM file may be refused with this message.
bool is_stated_message(std::string const& message, std::string const& path) {
    for (std::string const& whole : {
             "Cannot open file " + path,
             "Encountered malformed BGZF header in file " + path,
             "Encountered unknown sub fields in BGZF header in file " + path,
             "Encountered malformed BGZF subfield in file " + path,
             "Encountered over-sized BGZF block in file " + path,
             std::string("CRC mismatch after decompressing BGZF block!"),
             "Final BGZF block was not the EOF sequence as expected in file " + path +
                 ". Perhaps the file is corrupt?",
             "BAM file reported error on close " + path,
             "BAM file did not contain well formed header: " + path,
             std::string(OVERRUN),
             "Invalid auxiliary data type found in alignment record in " + path,
             "BAM file block length mismatch in file " + path,
             std::string("SAM line generation failed: Invalid next segment ref ID detected"),
         }) {
        if (message == whole) return true;
    }
    std::string const unzip = "BGZF block did not unzip correctly in file " + path + " : ";
    if (starts_with(message, unzip)) {
        std::string const reason = message.substr(unzip.size());
        std::string_view const failed = "Inflate failed with error code ";
        return reason == "Arguments to decompress_data incorrect" ||
               reason == "Inflate did not produce expected amount of data" ||
               (starts_with(reason, failed) && is_number(reason.substr(failed.size())));
    }
    // Faults of the header text end with the line at fault.
    for (char const* start : {
             "Multiple @HD lines encountered in header line: ",
             "@HD lines encountered after first header line: ",
             "Mandatory 'VN' field not found in @HD header line: ",
             "Invalid field '",
             "Invalid 'VN' field '",
             "Unsupported 'GO' field encountered in @HD header line with VN < 1.5: ",
             "Unsupported 'SS' field encountered in @HD header line with VN < 1.6: ",
             "Mutually exclusive 'SO' and 'GO' fields encountered in @HD header line: ",
             "Invalid 'SO' field '",
             "Invalid 'GO' field '",
             "Malformed @SQ line encountered in header lines: ",
             "Unsupported '@RG' line encountered in @HD header line with VN < 1.3: ",
             "Unsupported '@PG' line encountered in @HD header line with VN < 1.3: ",
             "Invalid line encountered in header lines: ",
         }) {
        if (starts_with(message, start)) return true;
    }
    return false;
}

enum class Outcome { READ, REFUSED, THROWN };

// A handler that reads damaged files one after another, and an intact one after
// each of them.
class Victim {
public:
    Victim() : path_(dir_.file("damaged.bam")), intact_(dir_.write("intact.bam", intact_file())) {}

    Outcome read(std::string_view file) {
        Outcome const outcome = read_damaged(file);
        expect_usable();
        return outcome;
    }

    // Without reading the intact file afterwards.
    Outcome read_damaged(std::string_view file) {
        replace_file(path_, file);
        handler_.error_message.clear();
        largest_allocation = 0;
        Outcome const outcome = read_guarded();
        EXPECT_LT(largest_allocation, ALLOCATION_LIMIT);
        EXPECT_EQ(handler_.file_name, "");
        message_ = handler_.error_message;
        n_records_ = handler_.records.size();
        if (outcome == Outcome::READ) {
            EXPECT_EQ(message_, "");
            expect_consistent_records();
        }
        if (outcome == Outcome::REFUSED) {
            EXPECT_TRUE(is_stated_message(message_, path_)) << message_;
        }
        return outcome;
    }

    void expect_usable() {
        ASSERT_TRUE(handler_.reset());
        ASSERT_TRUE(handler_.read_from_bam_file(intact_)) << handler_.error_message;
        ASSERT_EQ(handler_.records.size(), N_RECORDS);
        ASSERT_EQ(handler_.header, HEADER_TEXT);
        ASSERT_EQ(handler_.references.size(), 4U);
    }

    std::string const& message() const { return message_; }
    std::size_t n_records() const { return n_records_; }

private:
    static std::string intact_file() { return bam_of(SmallBam().payload); }

    // Any other exception than those stated leaves, and fails the test.
    Outcome read_guarded() {
        try {
            return handler_.read_from_bam_file(path_) ? Outcome::READ : Outcome::REFUSED;
        } catch (boost::bad_any_cast const&) {    // an f array with elements
        } catch (std::invalid_argument const&) {  // an LN value
        } catch (std::out_of_range const&) {      // an LN value
        }
        return Outcome::THROWN;
    }

    void expect_consistent_records() const {
        for (auto const& record : handler_.records) {
            ASSERT_GE(record.l_seq, 0);
            auto const l_seq = static_cast<std::size_t>(record.l_seq);
            EXPECT_EQ(record.seq.size(), (l_seq + 1) / 2);
            EXPECT_EQ(record.qual.size(), l_seq);
            EXPECT_GE(std::count(record.sam_line.begin(), record.sam_line.end(), '\t'), 10);
            EXPECT_EQ(record.sam_line.compare(0, record.read_name.size(), record.read_name), 0);
        }
    }

    TempDir dir_;
    std::string path_;
    std::string intact_;
    Handler handler_;
    std::string message_;
    std::size_t n_records_ = 0;
};

// Every change of one byte that the tests make: two bits, and both extremes.
std::vector<std::string> single_byte_changes(std::string const& bytes, std::size_t offset) {
    char const old = bytes[offset];
    std::vector<std::string> changed;
    for (char const value :
         {static_cast<char>(old ^ 0x01), static_cast<char>(old ^ 0x80), '\0', '\xFF'}) {
        if (value == old) continue;
        changed.push_back(bytes);
        changed.back()[offset] = value;
    }
    return changed;
}

// ---------------------------------------------------------------------------
// BAM
// ---------------------------------------------------------------------------

TEST(DamagedBam, IntactFile_IsRead) {
    SmallBam const bam;
    Victim victim;
    EXPECT_EQ(victim.read(bam_of(bam.payload)), Outcome::READ);
    EXPECT_EQ(victim.n_records(), N_RECORDS);
    EXPECT_EQ(bam.record_begins.size(), N_RECORDS + 1);
}

TEST(DamagedBam, File_CutAtEveryLength_IsRefused) {
    Victim victim;
    std::string const file = bam_of(SmallBam().payload);
    for (std::size_t size = 0; size < file.size(); ++size) {
        SCOPED_TRACE(size);
        ASSERT_EQ(victim.read(file.substr(0, size)), Outcome::REFUSED);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedBam, FileOfManyBlocks_CutAtEveryLength_IsRefused) {
    Victim victim;
    std::string const file = bgzf_blocks(SmallBam().payload, 50) + bgzf_eof_block();
    for (std::size_t size = 0; size < file.size(); ++size) {
        SCOPED_TRACE(size);
        ASSERT_EQ(victim.read(file.substr(0, size)), Outcome::REFUSED);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// Whether a byte of a BGZF file belongs to MTIME, XFL or OS, which are not
// looked at, or to a deflate stream, which may have spare bits.
enum class ByteRole { UNCHECKED, CDATA, CHECKED };

ByteRole role_of(std::size_t offset, std::vector<BgzfBlock> const& blocks) {
    for (BgzfBlock const& block : blocks) {
        if (offset >= block.offset + block.size) continue;
        std::size_t const in_block = offset - block.offset;
        if (in_block >= 4 && in_block < 10) return ByteRole::UNCHECKED;
        return in_block >= 18 && in_block < block.size - 8 ? ByteRole::CDATA : ByteRole::CHECKED;
    }
    return ByteRole::CHECKED;
}

TEST(DamagedBam, File_OneByteChangedAnywhere_IsRefusedUnlessNothingDependsOnIt) {
    Victim victim;
    std::string const file = bam_of(SmallBam().payload);
    std::vector<BgzfBlock> const blocks = parse_bgzf(file);
    for (std::size_t offset = 0; offset < file.size(); ++offset) {
        for (std::string const& changed : single_byte_changes(file, offset)) {
            SCOPED_TRACE(offset);
            SCOPED_TRACE(static_cast<int>(changed[offset]));
            ByteRole const role = role_of(offset, blocks);
            Outcome const outcome = victim.read(changed);
            if (role == ByteRole::CDATA) {
                ASSERT_NE(outcome, Outcome::THROWN);
            } else {
                ASSERT_EQ(outcome, role == ByteRole::UNCHECKED ? Outcome::READ : Outcome::REFUSED);
            }
            if (outcome == Outcome::READ) {
                ASSERT_EQ(victim.n_records(), N_RECORDS);
            }
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

TEST(DamagedBam, Payload_CutAtEveryLength_IsReadOnlyAtTheEndOfARecord) {
    Victim victim;
    SmallBam const bam;
    for (std::size_t size = 0; size < bam.payload.size(); ++size) {
        SCOPED_TRACE(size);
        auto const& begins = bam.record_begins;
        auto const boundary = std::find(begins.begin(), begins.end(), size);
        Outcome const outcome = victim.read(bam_of(bam.payload.substr(0, size)));
        if (boundary != begins.end()) {
            ASSERT_EQ(outcome, Outcome::READ);
            ASSERT_EQ(victim.n_records(),
                      static_cast<std::size_t>(std::distance(begins.begin(), boundary)));
        } else {
            ASSERT_EQ(outcome, Outcome::REFUSED);
            ASSERT_EQ(victim.message(), OVERRUN);
        }
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedBam, Payload_OneByteChangedAnywhere_GivesAStatedOutcome) {
    Victim victim;
    SmallBam const bam;
    std::size_t n_of[3] = {0, 0, 0};
    for (std::size_t offset = 0; offset < bam.payload.size(); ++offset) {
        for (std::string const& changed : single_byte_changes(bam.payload, offset)) {
            SCOPED_TRACE(offset);
            SCOPED_TRACE(static_cast<int>(changed[offset]));
            ++n_of[static_cast<int>(victim.read(bam_of(changed)))];
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
    // The changes reach all three outcomes.
    for (std::size_t const n : n_of) EXPECT_GT(n, 0U);
}

TEST(DamagedBam, Payload_OneByteMissingOrTwiceAnywhere_GivesAStatedOutcome) {
    Victim victim;
    SmallBam const bam;
    for (std::size_t offset = 0; offset < bam.payload.size(); ++offset) {
        SCOPED_TRACE(offset);
        std::string missing = bam.payload;
        missing.erase(offset, 1);
        victim.read(bam_of(missing));
        std::string twice = bam.payload;
        twice.insert(offset, 1, twice[offset]);
        victim.read(bam_of(twice));
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedBam, Count_ThatLies_IsRefusedWithoutAllocation) {
    SmallBam const bam;
    std::size_t const n_ref = 8 + sizeof HEADER_TEXT - 1;
    std::size_t const record = bam.record_begins[0];
    std::size_t const l_seq = record + 20;
    std::size_t const array_count = bam.record_begins[1] - 12;  // two elements of 4 bytes
    struct {
        char const* label;
        std::size_t offset;
        std::uint32_t truth;
    } const cases[] = {
        {"l_text", 4, sizeof HEADER_TEXT - 1}, {"n_ref", n_ref, 2}, {"first l_name", n_ref + 4, 5},
        {"second l_name", n_ref + 17, 5},      {"l_seq", l_seq, 4}, {"array count", array_count, 2},
    };
    Victim victim;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        for (std::uint32_t const count : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 0x40000000U}) {
            SCOPED_TRACE(count);
            std::string payload = bam.payload;
            ASSERT_EQ(payload.substr(c.offset, 4), le_bytes(c.truth));
            payload.replace(c.offset, 4, le_bytes(count));
            EXPECT_EQ(victim.read(bam_of(payload)), Outcome::REFUSED);
            EXPECT_EQ(victim.message(), OVERRUN);
        }
    }
}

TEST(DamagedBam, SmallCount_ThatLies_IsRefusedWithoutAllocation) {
    SmallBam const bam;
    // The last record, so that no other one can be taken for its continuation.
    std::size_t const record = bam.record_begins[N_RECORDS - 1];
    Victim victim;
    for (auto const& [offset, bytes] : {std::pair<std::size_t, std::string>{16, "\xFF\x7F"},
                                        std::pair<std::size_t, std::string>{16, "\xFF\xFF"},
                                        std::pair<std::size_t, std::string>{12, "\xFF"}}) {
        std::string payload = bam.payload;
        payload.replace(record + offset, bytes.size(), bytes);
        EXPECT_EQ(victim.read(bam_of(payload)), Outcome::REFUSED);
        EXPECT_EQ(victim.message(), OVERRUN);
        EXPECT_EQ(victim.n_records(), N_RECORDS - 1);
    }
}

TEST(DamagedBam, ArrayCount_OfEveryElementType_ThatLiesIsRefusedWithoutAllocation) {
    Victim victim;
    std::string const header = encode_bam_header("", {{"chr1", 1}});
    for (char const subtype : {'c', 'C', 's', 'S', 'i', 'I', 'f', 'q', '\0', '\xFF'}) {
        SCOPED_TRACE(static_cast<int>(subtype));
        for (std::uint32_t const count :
             {0x7FFFFFFFU, 0xFFFFFFFFU, 0x80000000U, 0x40000000U, 0x40000001U, 9U}) {
            SCOPED_TRACE(count);
            RawBamRecord record;
            record.aux = SmallBam::array("XX", subtype, count, "8 bytes.");
            EXPECT_EQ(victim.read(bam_of(header + record.bytes())), Outcome::REFUSED);
            EXPECT_EQ(victim.message(), OVERRUN);
        }
    }
}

TEST(DamagedBam, BlockSize_ThatLies_IsRefused) {
    SmallBam const bam;
    Victim victim;
    for (std::uint32_t const size : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 0U, 31U}) {
        SCOPED_TRACE(size);
        std::string payload = bam.payload;
        payload.replace(bam.record_begins[N_RECORDS - 1], 4, le_bytes(size));
        EXPECT_EQ(victim.read(bam_of(payload)), Outcome::REFUSED);
        if (size == 0x7FFFFFFFU) {
            EXPECT_EQ(victim.message(), OVERRUN);
        } else {
            EXPECT_TRUE(starts_with(victim.message(), "BAM file block length mismatch in file "));
        }
        EXPECT_EQ(victim.n_records(), N_RECORDS - 1);
    }
}

TEST(DamagedBam, BlockSizeField_ThatLies_IsRefusedWithoutAllocation) {
    // BSIZE, CRC32 and ISIZE of the first block.
    std::string const file = bam_of(SmallBam().payload);
    std::size_t const first_end = parse_bgzf(file)[0].size;
    Victim victim;
    for (auto const& [offset, width] : {std::pair<std::size_t, std::size_t>{16, 2},
                                        std::pair<std::size_t, std::size_t>{first_end - 8, 4},
                                        std::pair<std::size_t, std::size_t>{first_end - 4, 4}}) {
        for (std::uint32_t const value : {0x7FFFFFFFU, 0xFFFFFFFFU, 0x00010000U, 0x00010001U}) {
            SCOPED_TRACE(offset);
            SCOPED_TRACE(value);
            std::string damaged = file;
            damaged.replace(offset, width, le_bytes(value).substr(0, width));
            EXPECT_EQ(victim.read(damaged), Outcome::REFUSED);
        }
    }
}

TEST(DamagedBam, BlocksThatLieAboutTheirPayload_AreRefusedWithoutAllocation) {
    // Together they claim far more than their few bytes can hold.
    std::string const file = bam_of(SmallBam().payload);
    std::string liar = bgzf_block("x");
    liar.replace(liar.size() - 4, 4, le_bytes(std::uint32_t{65536}));
    std::string liars;
    for (int i = 0; i < 100; ++i) liars += liar;
    Victim victim;
    for (std::string const& damaged : {liars + file, file + liars, liars}) {
        EXPECT_EQ(victim.read(damaged), Outcome::REFUSED);
        EXPECT_NE(victim.message().find("Inflate did not produce expected amount of data"),
                  std::string::npos);
        EXPECT_EQ(victim.n_records(), 0U);
    }
}

TEST(DamagedBam, RecordsThatLieAboutTheirSize_AreRefusedWithoutAllocation) {
    // Sizes that chain through the payload in steps too small for a record, or of the
    // least size, the first of which is no record.
    std::string const header = encode_bam_header("", {});
    Victim victim;
    for (std::uint32_t const size : {0U, 1U, 31U, 32U, 33U}) {
        SCOPED_TRACE(size);
        std::string records;
        while (records.size() < 10000) records += le_bytes(size) + std::string(size, '\x7F');
        EXPECT_EQ(victim.read(bam_of(header + records)), Outcome::REFUSED);
        EXPECT_EQ(victim.n_records(), 0U);
    }
}

// Damage of several kinds at once, the same in every run.
std::string mutated(std::string bytes, std::mt19937& random) {
    static constexpr std::uint32_t NUMBERS[] = {0,          1,          0x7FFFFFFF, 0x80000000,
                                                0xFFFFFFFF, 0xFFFFFFFE, 0x00010000, 0x40000000};
    auto const below = [&random](std::size_t limit) {
        return random() % std::max(limit, std::size_t{1});
    };
    for (std::size_t n = 1 + below(4); n > 0 && !bytes.empty(); --n) {
        std::size_t const offset = below(bytes.size());
        std::size_t const length = std::min<std::size_t>(1 + below(16), bytes.size() - offset);
        switch (below(7)) {
            case 0: bytes[offset] = static_cast<char>(random() & 0xFF); break;
            case 1: bytes[offset] = static_cast<char>(bytes[offset] ^ (1 << below(8))); break;
            case 2:
                bytes.replace(offset, std::min<std::size_t>(4, length),
                              le_bytes(NUMBERS[below(std::size(NUMBERS))]));
                break;
            case 3: bytes.erase(offset, length); break;
            case 4: bytes.insert(below(bytes.size()), bytes.substr(offset, length)); break;
            case 5:  // another type letter, most likely where there is none
                bytes[offset] = "AcCsSiIfZHB"[below(11)];
                break;
            default:
                if (below(8) == 0) bytes.resize(offset);
                break;
        }
    }
    return bytes;
}

TEST(DamagedBam, Payload_MutatedAtRandom_GivesAStatedOutcome) {
    Victim victim;
    SmallBam const bam;
    std::mt19937 random(18);
    for (int i = 0; i < 20000; ++i) {
        SCOPED_TRACE(i);
        victim.read_damaged(bam_of(mutated(bam.payload, random)));
        if (i % 10 == 0) victim.expect_usable();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedBam, Records_MutatedAtRandom_GiveAStatedOutcome) {
    // The header stays whole, so that every case reaches the records.
    Victim victim;
    SmallBam const bam;
    std::string const header = bam.payload.substr(0, bam.record_begins[0]);
    std::string const records = bam.payload.substr(bam.record_begins[0]);
    std::mt19937 random(81);
    for (int i = 0; i < 5000; ++i) {
        SCOPED_TRACE(i);
        victim.read_damaged(bam_of(header + mutated(records, random)));
        if (i % 10 == 0) victim.expect_usable();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedBam, File_MutatedAtRandom_GivesAStatedOutcome) {
    Victim victim;
    std::string const file = bgzf_blocks(SmallBam().payload, 100) + bgzf_eof_block();
    std::mt19937 random(99);
    for (int i = 0; i < 3000; ++i) {
        SCOPED_TRACE(i);
        victim.read_damaged(mutated(file, random));
        if (i % 10 == 0) victim.expect_usable();
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedBam, AnyBytes_AsFile_AreRefused) {
    Victim victim;
    std::mt19937 random(7);
    for (int i = 0; i < 500; ++i) {
        SCOPED_TRACE(i);
        std::string bytes(random() % 300, '\0');
        for (char& c : bytes) c = static_cast<char>(random() & 0xFF);
        ASSERT_EQ(victim.read(bytes), Outcome::REFUSED);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

// ---------------------------------------------------------------------------
// BAI
// ---------------------------------------------------------------------------

// Takes what is printed, but no more than a damaged file of this size may cause.
class BoundedOutput : public std::streambuf {
public:
    static constexpr std::size_t LIMIT = 100000;

    std::string const& text() const { return text_; }

protected:
    int_type overflow(int_type c) override {
        if (text_.size() >= LIMIT) throw std::runtime_error("the dump does not end");
        text_ += traits_type::to_char_type(c);
        return c;
    }

private:
    std::string text_;
};

// Standard output goes to a buffer as long as the object lives.
class OutputTo {
public:
    explicit OutputTo(std::streambuf& buffer) : old_(std::cout.rdbuf(&buffer)) {
        std::cout.exceptions(std::ios::badbit);  // so that the limit ends the dump
    }
    ~OutputTo() {
        std::cout.exceptions(std::ios::goodbit);
        std::cout.clear();
        std::cout.rdbuf(old_);
    }
    OutputTo(OutputTo const&) = delete;
    OutputTo& operator=(OutputTo const&) = delete;

private:
    std::streambuf* old_;
};

// A handler that dumps damaged index files one after another, and an intact one
// after each of them.
class IndexVictim {
public:
    IndexVictim()
        : path_(dir_.file("damaged.bai")), intact_(dir_.write("intact.bai", small_bai())) {
        EXPECT_TRUE(dump(intact_));
        intact_dump_ = output_;
        EXPECT_NE(intact_dump_.find("Got n_no_coor 7\n"), std::string::npos);
    }

    bool read(std::string_view file) {
        replace_file(path_, file);
        bool const result = dump(path_);
        std::string const damaged_output = output_;
        if (!result) {
            EXPECT_TRUE(
                handler_.error_message == "Encountered malformed BAI header in file " + path_ ||
                handler_.error_message == "Encountered malformed magic bin in index file " + path_)
                << handler_.error_message;
        }
        message_ = handler_.error_message;
        EXPECT_TRUE(dump(intact_));
        EXPECT_EQ(output_, intact_dump_);
        output_ = damaged_output;
        return result;
    }

    std::string const& output() const { return output_; }
    std::string const& message() const { return message_; }
    std::string const& path() const { return path_; }
    std::string const& intact_dump() const { return intact_dump_; }

private:
    bool dump(std::string const& path) {
        BoundedOutput buffer;
        bool result = false;
        {
            OutputTo const redirected(buffer);
            handler_.error_message.clear();
            largest_allocation = 0;
            result = handler_.print_index_from_file(path);
            EXPECT_LT(largest_allocation, ALLOCATION_LIMIT);
        }
        EXPECT_EQ(handler_.file_name, "");
        output_ = buffer.text();
        return result;
    }

    TempDir dir_;
    std::string path_;
    std::string intact_;
    Handler handler_;
    std::string output_;
    std::string message_;
    std::string intact_dump_;
};

TEST(DamagedBai, File_CutAtEveryLength_IsPrintedAsFarAsItGoes) {
    IndexVictim victim;
    std::string const file = small_bai();
    for (std::size_t size = 0; size < file.size(); ++size) {
        SCOPED_TRACE(size);
        bool const result = victim.read(file.substr(0, size));
        EXPECT_EQ(result, size >= 4);
        EXPECT_EQ(victim.message(),
                  size >= 4 ? "" : "Encountered malformed BAI header in file " + victim.path());
        EXPECT_EQ(victim.output().find("Got n_no_coor"), std::string::npos);
        EXPECT_EQ(victim.output().find("more bytes"), std::string::npos);
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedBai, File_OneByteChangedAnywhere_GivesAStatedOutcome) {
    IndexVictim victim;
    std::string const file = small_bai();
    for (std::size_t offset = 0; offset < file.size(); ++offset) {
        for (std::string const& changed : single_byte_changes(file, offset)) {
            SCOPED_TRACE(offset);
            SCOPED_TRACE(static_cast<int>(changed[offset]));
            bool const result = victim.read(changed);
            if (offset < 4) {
                EXPECT_FALSE(result);
                EXPECT_EQ(victim.message(),
                          "Encountered malformed BAI header in file " + victim.path());
                EXPECT_EQ(victim.output(), "");
            }
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

TEST(DamagedBai, Count_ThatLies_EndsTheDumpWithTheFile) {
    struct {
        char const* label;
        std::size_t offset;
        std::uint32_t truth;
        bool pseudo_bin = false;
    } const cases[] = {
        {"n_ref", 4, 2},
        {"n_bin", 8, 3},
        {"n_chunk of the pseudo-bin", 16, 2, true},
        {"n_chunk of the first bin", 56, 2},
        {"n_chunk of the second bin", 96, 1},
        {"n_intv", 116, 2},
        {"n_bin of the second reference", 136, 0},
        {"n_intv of the second reference", 140, 0},
    };
    IndexVictim victim;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.label);
        for (std::uint32_t const count : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
            SCOPED_TRACE(count);
            std::string file = small_bai();
            ASSERT_EQ(file.substr(c.offset, 4), le_bytes(c.truth));
            file.replace(c.offset, 4, le_bytes(count));
            EXPECT_EQ(victim.read(file), !c.pseudo_bin);
            EXPECT_EQ(victim.message(),
                      c.pseudo_bin
                          ? "Encountered malformed magic bin in index file " + victim.path()
                          : "");
            if (count == 0x7FFFFFFFU) {
                EXPECT_EQ(victim.output().find("Got n_no_coor"), std::string::npos);
            }
            // A line is at most about as long as the 16 bytes behind it, 100 characters.
            EXPECT_LT(victim.output().size(), 10000U);
            ASSERT_FALSE(testing::Test::HasFailure());
        }
    }
}

TEST(DamagedBai, File_MutatedAtRandom_GivesAStatedOutcome) {
    IndexVictim victim;
    std::string const file = small_bai();
    std::mt19937 random(5);
    for (int i = 0; i < 3000; ++i) {
        SCOPED_TRACE(i);
        victim.read(mutated(file, random));
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

TEST(DamagedSam, LineOfTabs_Added_IsRefusedWithoutRoomForFields) {
    std::string const line = "q\t4\t*\t0\t0\t*\t*\t0\t0\t*\t*" + std::string(1000000, '\t');
    Handler handler;
    largest_allocation = 0;
    EXPECT_FALSE(handler.add_alignment_sam(line));
    EXPECT_LT(largest_allocation, 10 * line.size());
    EXPECT_EQ(handler.error_message, "Sam to Bam parsing failed: Invalid aux data detected: ");
}

}  // namespace
