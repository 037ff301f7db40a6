// What happens when memory runs out: every request for it fails in turn, alone or with
// all that come later, until the work is done without one that fails. Whatever the
// work was, no block and no descriptor is lost, and the objects serve again.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <new>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "data_wrappers/vec_view.h"
#include "interop/alignment_reader.h"
#include "interop/alignment_writer.h"
#include "interop/bgzf_writer.h"
#include "interop/coordinate_sorter.h"
#include "interop/index_reader.h"
#include "interop/input_stream.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/colliding_names.h"
#include "tests/support/failing_memory.h"
#include "tests/support/open_file.h"
#include "tests/support/process_limits.h"
#include "tests/support/sanitized.h"
#include "tests/support/temp_file.h"
#include "util/bam/bam_file.h"

namespace {

using namespace tesk::test;
using tesk::interop::AlignmentReader;
using tesk::interop::AlignmentWriter;
using tesk::interop::BgzfWriter;
using tesk::interop::ByteBuffer;
using tesk::interop::CoordinateSorter;
using tesk::interop::Format;
using tesk::interop::Header;
using tesk::interop::IndexReader;
using tesk::interop::InputStream;
using tesk::interop::ReaderOptions;
using tesk::interop::RecordBatch;
using tesk::interop::RecordView;
using tesk::interop::Report;
using tesk::interop::SorterOptions;
using tesk::interop::WriterOptions;
using Handler = tesk::util::bam::BAMFileHandler;

// --- Trying every failure --------------------------------------------------------

enum class End {
    DONE,       // the work returned true,
    FAILED,     // returned false,
    NO_MEMORY,  // threw std::bad_alloc,
    OTHER       // or threw something else
};

// Does some work, and says how it ended.
using Work = std::function<bool()>;
using Attempt = std::function<End(Work const&)>;

End end_of(Work const& work) {
    try {
        return work() ? End::DONE : End::FAILED;
    } catch (std::bad_alloc const&) {
        return End::NO_MEMORY;
    } catch (...) {
        return End::OTHER;
    }
}

// The next request to fail. With sanitizers, which are slow, not each of very many is.
std::uint64_t number_after(std::uint64_t number) {
#ifdef TESK_TEST_SANITIZED
    constexpr std::uint64_t MANY = 200;
    if (number > MANY) return number + 3;
#endif
    return number + 1;
}

// Calls `use` with one fault after another, until one does not strike any more. `use`
// prepares objects, makes the one attempt that it is given while the fault lasts, and
// checks what is left.
void for_each_fault(std::function<void(Attempt const&)> const& use) {
    auto const undisturbed = [](Work const& work) { return end_of(work); };
    use(undisturbed);  // what is set up once in a process is there from now on
    std::uint64_t n_struck = 0;
    for (bool const lasts : {false, true}) {
        bool has_struck = true;
        for (std::uint64_t number = 1; has_struck; number = number_after(number)) {
            SCOPED_TRACE("request " + std::to_string(number) + (lasts ? " and later ones" : ""));
            std::ptrdiff_t const n_files = n_open_files();
            std::int64_t const n_blocks = n_live_blocks();
            use([&](Work const& work) {
                MemoryFaultScope const scope({number, lasts});
                End const end = end_of(work);
                has_struck = scope.has_struck();
                return end;
            });
            ASSERT_FALSE(testing::Test::HasFailure());
            ASSERT_EQ(n_live_blocks(), n_blocks);
            ASSERT_EQ(n_open_files(), n_files);
            if (has_struck) ++n_struck;
        }
    }
    EXPECT_GT(n_struck, 0U);
}

// Expects a possible end of work that a handler or the like did.
void expect_end(End end, std::string const& error_message) {
    EXPECT_NE(end, End::OTHER);
    if (end == End::FAILED) {
        EXPECT_NE(error_message, "");
    }
}

// --- Samples ---------------------------------------------------------------------

constexpr char HEAD_LINE[] = "@HD\tVN:1.6\tSO:unsorted\n";

// So many references that they are looked up in a table.
std::string sample_header() {
    std::string header = HEAD_LINE;
    for (int i = 0; i < 20; ++i) {
        header += "@SQ\tSN:a_reference_with_a_long_name_" + std::to_string(i) + "\tLN:100000\n";
    }
    return header + "@RG\tID:group\tSM:sample\n@PG\tID:program\n@CO\ta comment of some length\n";
}

// Not in coordinate order.
std::vector<std::string> const LINES = {
    "a_read_with_a_long_name_1\t0\ta_reference_with_a_long_name_3\t20000\t60\t8M2I4M1D3M\t=\t37\t39"
    "\tTTAGATAAAGGATACTG\tABCDEFGHIJKLMNOPQ\tRG:Z:a group with a long name\tNM:i:1\t"
    "B0:B:c,-128,0,127\tXf:f:1.5\tXA:A:x",
    "a_read_with_a_long_name_2\t16\ta_reference_with_a_long_name_19\t7\t60\t4M\t*\t0\t0\tACGT\tIIII"
    "\tXH:H:1AE301",
    "a_read_with_a_long_name_3\t4\t*\t0\t0\t*\t*\t0\t0\tACGTACGTACGTACGTACGT\t*",
    "a_read_with_a_long_name_4\t0\ta_reference_with_a_long_name_3\t7\t60\t4M\t*\t0\t0\tACGT\tIIII\t"
    "B2:B:I,1,2,3,4,5,6,7"};

std::string sample_sam() {
    std::string text = sample_header();
    for (std::string const& line : LINES) text += line + "\n";
    return text;
}

std::vector<Reference> sample_references() { return references_of(sample_header()); }

std::string encoded(std::vector<std::string> const& lines) {
    std::string bytes;
    for (std::string const& line : lines) bytes += encode_bam_record(line, sample_references());
    return bytes;
}

std::vector<std::string> sorted_lines() { return {LINES[3], LINES[0], LINES[1], LINES[2]}; }

std::string sample_bam(std::string const& header, std::vector<std::string> const& lines) {
    return bgzf_blocks(encode_bam_header(header, sample_references()) + encoded(lines), 500) +
           bgzf_eof_block();
}

Handler sample_handler() {
    Handler handler;
    EXPECT_TRUE(handler.add_header_lines(sample_header()));
    for (std::string const& line : LINES) EXPECT_TRUE(handler.add_alignment_sam(line));
    return handler;
}

std::string lines_of(Handler const& handler) {
    std::string text;
    for (Handler::BamRecord const& record : handler.records) text += record.sam_line + "\n";
    return text;
}

// A new file each time: replacing the contents of one may wait for the disk.
std::string fresh(TempDir const& dir, char const* name) {
    std::filesystem::remove(dir.file(name));
    return dir.file(name);
}

// --- Conversions by a handler ----------------------------------------------------

// Every way in and out of one handler, in files of its own.
class Conversion {
public:
    Conversion() {
        dir_.write("in.sam", sample_sam());
        Handler handler;
        // The first index of a process is another one than those that follow.
        for (int i = 0; i < 2; ++i) EXPECT_EQ(run(handler), "");
        result_ = result();
    }

    std::string in_sam() const { return dir_.file("in.sam"); }
    std::string bam() const { return dir_.file("out.bam"); }
    std::string bai() const { return bam() + ".bai"; }
    std::string sam() const { return dir_.file("out.sam"); }

    // Expects that a handler gives the same files as ever, once it was reset.
    void expect_possible(Handler& handler) const {
        EXPECT_TRUE(handler.reset());
        EXPECT_EQ(run(handler), "");
        EXPECT_TRUE(result() == result_);
    }

    void remove_output() const {
        for (std::string const& path : {bam(), bai(), sam()}) std::filesystem::remove(path);
    }

private:
    // SAM to sorted BAM with index, and back. Returns the error, if any.
    std::string run(Handler& handler) const {
        remove_output();
        bool const done = handler.read_from_sam_file(in_sam()) && handler.sort() &&
                          handler.write_to_bam_file(bam(), true) &&
                          handler.read_from_bam_file(bam()) && handler.write_to_sam_file(sam());
        return done ? "" : handler.error_message;
    }

    std::string result() const { return read_file(bam()) + read_file(bai()) + read_file(sam()); }

    TempDir dir_;
    std::string result_;
};

TEST(OutOfMemory, Handler_Constructed_IsThereOrNot) {
    for_each_fault([](Attempt const& attempt) {
        End const end = attempt([] { return Handler().records.empty(); });
        EXPECT_TRUE(end == End::DONE || end == End::NO_MEMORY);
    });
}

TEST(OutOfMemory, ReadSam_AnyFailure_HandlerServesAgain) {
    Conversion const conversion;
    for_each_fault([&](Attempt const& attempt) {
        Handler handler;
        End const end = attempt([&] { return handler.read_from_sam_file(conversion.in_sam()); });
        expect_end(end, handler.error_message);
        if (end == End::DONE) {
            EXPECT_EQ(handler.header + lines_of(handler), sample_sam());
        }
        EXPECT_EQ(handler.file_name, "");
        conversion.expect_possible(handler);
    });
}

TEST(OutOfMemory, Sort_AnyFailure_RecordsStayAsTheyWere) {
    Conversion const conversion;
    Handler const original = sample_handler();
    Handler sorted = original;
    sorted.sort();
    ASSERT_NE(lines_of(sorted), lines_of(original));
    for_each_fault([&](Attempt const& attempt) {
        Handler handler = original;
        bool const done = attempt([&] { return handler.sort(); }) == End::DONE;
        EXPECT_EQ(lines_of(handler), lines_of(done ? sorted : original));
        EXPECT_EQ(handler.sort_order, done ? "\tSO:coordinate" : "\tSO:unsorted");
        conversion.expect_possible(handler);
    });
}

TEST(OutOfMemory, WriteBam_AnyFailure_HandlerKeepsItsRecords) {
    Conversion const conversion;
    Handler original = sample_handler();
    original.sort();
    ASSERT_TRUE(original.write_to_bam_file(conversion.bam(), true));
    std::string const bam = read_file(conversion.bam());
    std::string const bai = read_file(conversion.bai());
    for_each_fault([&](Attempt const& attempt) {
        conversion.remove_output();
        Handler handler = original;
        End const end = attempt([&] { return handler.write_to_bam_file(conversion.bam(), true); });
        expect_end(end, handler.error_message);
        if (end == End::DONE) {
            EXPECT_TRUE(read_file(conversion.bam()) == bam);
            EXPECT_TRUE(read_file(conversion.bai()) == bai);
        }
        EXPECT_EQ(lines_of(handler), lines_of(original));
        EXPECT_EQ(handler.file_name, "");
        conversion.expect_possible(handler);
    });
}

TEST(OutOfMemory, ReadBam_AnyFailure_HandlerServesAgain) {
    Conversion const conversion;
    TempDir const dir;
    std::string const path = dir.write("in.bam", sample_bam(sample_header(), LINES));
    for_each_fault([&](Attempt const& attempt) {
        Handler handler;
        End const end = attempt([&] { return handler.read_from_bam_file(path); });
        expect_end(end, handler.error_message);
        if (end == End::DONE) {
            EXPECT_EQ(handler.records.size(), LINES.size());
            EXPECT_EQ(handler.header, sample_header());
        }
        EXPECT_EQ(handler.file_name, "");
        conversion.expect_possible(handler);
    });
}

TEST(OutOfMemory, WriteSam_AnyFailure_HandlerKeepsItsRecords) {
    Conversion const conversion;
    Handler const original = sample_handler();
    for_each_fault([&](Attempt const& attempt) {
        conversion.remove_output();
        Handler handler = original;
        End const end = attempt([&] { return handler.write_to_sam_file(conversion.sam()); });
        expect_end(end, handler.error_message);
        if (end == End::DONE) {
            EXPECT_EQ(read_file(conversion.sam()), sample_sam());
        }
        EXPECT_EQ(lines_of(handler), lines_of(original));
        EXPECT_EQ(handler.file_name, "");
        conversion.expect_possible(handler);
    });
}

// --- Other members of a handler --------------------------------------------------

TEST(OutOfMemory, AddHeaderLines_AnyFailure_ReferencesAndHeaderGoTogether) {
    Handler original;
    ASSERT_TRUE(original.add_header_lines(HEAD_LINE));
    std::string const more = sample_header().substr(std::string(HEAD_LINE).size());
    for_each_fault([&](Attempt const& attempt) {
        Handler handler = original;
        bool const done = attempt([&] { return handler.add_header_lines(more); }) == End::DONE;
        EXPECT_EQ(handler.header, done ? sample_header() : HEAD_LINE);
        EXPECT_EQ(handler.references.size(), done ? 20U : 0U);
    });
    for_each_fault([&](Attempt const& attempt) {
        std::string header;
        std::string updated;
        End const end = attempt(
            [&] { return original.get_header(header) && original.get_updated_header(updated); });
        EXPECT_TRUE(end == End::DONE || end == End::NO_MEMORY);
    });
}

TEST(OutOfMemory, AddAlignment_AnyFailure_EarlierRecordsStay) {
    Handler const original = sample_handler();
    std::string cigar;  // more operations than a record holds
    for (int i = 0; i < 32768; ++i) cigar += "1M1I";
    std::vector<std::string> const lines = {
        LINES[0], "long\t0\ta_reference_with_a_long_name_3\t7\t60\t" + cigar + "\t*\t0\t0\t" +
                      std::string(65536, 'A') + "\t*"};
    for (std::string const& line : lines) {
        for_each_fault([&](Attempt const& attempt) {
            Handler handler = original;
            bool const done = attempt([&] { return handler.add_alignment_sam(line); }) == End::DONE;
            EXPECT_GE(handler.records.size(), LINES.size() + (done ? 1 : 0));
            handler.records.resize(LINES.size());
            EXPECT_EQ(lines_of(handler), lines_of(original));
            ASSERT_TRUE(handler.add_alignment_sam(line)) << handler.error_message;
            EXPECT_EQ(handler.records.back().sam_line, line);
        });
    }
}

TEST(OutOfMemory, ReferencesMadeToCollide_AnyFailure_AllAreFoundLater) {
    constexpr std::size_t N = 520;
    std::vector<std::string> const names = colliding_names(N);
    if (std::hash<std::string_view>{}(names[0]) != std::hash<std::string_view>{}(names[1])) {
        GTEST_SKIP() << "the standard library's hash is another one";
    }
    Handler original;
    for (std::string const& name : names) original.references.push_back({name, 1000});
    auto const add = [](Handler& handler, std::string const& name) {
        return handler.add_alignment_sam("r\t0\t" + name + "\t1\t0\t1M\t*\t0\t0\tA\tI");
    };
    for_each_fault([&](Attempt const& attempt) {
        Handler handler = original;
        attempt([&] { return add(handler, names[0]); });
        ASSERT_TRUE(add(handler, names[N / 2]));
        EXPECT_EQ(handler.records.back().refID, static_cast<std::int32_t>(N / 2));
    });
}

TEST(OutOfMemory, UpdateSamLine_AnyFailure_RecordCanBeRenderedLater) {
    Handler handler = sample_handler();
    for (Handler::BamRecord const& original : std::vector<Handler::BamRecord>(handler.records)) {
        for_each_fault([&](Attempt const& attempt) {
            Handler::BamRecord record = original;
            End const end = attempt([&] { return handler.update_sam_line(record); });
            EXPECT_TRUE(end == End::DONE || end == End::NO_MEMORY);
            EXPECT_TRUE(handler.update_sam_line(record));
            EXPECT_EQ(record.sam_line, original.sam_line);
        });
    }
}

TEST(OutOfMemory, ExtractAlignment_AnyFailure_NothingIsAppended) {
    std::string bytes = encoded({LINES[0]});
    Handler original;
    ASSERT_TRUE(original.add_header_lines(sample_header()));
    for_each_fault([&](Attempt const& attempt) {
        Handler handler = original;
        Handler::BamBuffer buffer{bytes.data(), bytes.size()};
        bool const done =
            attempt([&] { return handler.extract_alignment_from_buffer(buffer); }) == End::DONE;
        EXPECT_EQ(lines_of(handler), done ? LINES[0] + "\n" : "");
    });
}

TEST(OutOfMemory, Blocks_AnyFailure_ComeBackOrAreReported) {
    TempDir const dir;
    std::string const payload = encoded(LINES);
    std::vector<char> const data(payload.begin(), payload.end());
    for_each_fault([&](Attempt const& attempt) {
        Handler handler;
        std::vector<char> packed;
        std::vector<char> unpacked;
        End const end = attempt([&] {
            packed = handler.compress_data(data.data(), static_cast<unsigned>(data.size()));
            if (packed.empty()) return false;
            unpacked = handler.decompress_data(packed.data(), static_cast<unsigned>(packed.size()),
                                               static_cast<unsigned>(data.size()));
            return !unpacked.empty();
        });
        expect_end(end, handler.error_message);
        if (end == End::DONE) {
            EXPECT_EQ(unpacked, data);
        }
    });
    for_each_fault([&](Attempt const& attempt) {
        std::string const path = fresh(dir, "blocks");
        Handler handler;
        std::vector<char> blocks;
        End const end = attempt([&] {
            std::ofstream out(path, std::ios::binary);
            unsigned long begin_offset = 0;
            unsigned long end_offset = 0;
            handler.write_BGZF_blocks_to_BAM(out, data, begin_offset, end_offset);
            out.close();
            std::ifstream in(path, std::ios::binary);
            return in.is_open() && handler.read_BGZF_block_from_BAM(in, blocks);
        });
        EXPECT_NE(end, End::OTHER);
        EXPECT_EQ(blocks, end == End::DONE ? data : std::vector<char>());
    });
}

// Takes what is printed into memory of its own.
class PrintedText {
public:
    PrintedText() : previous_(std::cout.rdbuf(&buffer_)) {}
    ~PrintedText() {
        std::cout.rdbuf(previous_);
        std::cout.clear();
    }
    PrintedText(PrintedText const&) = delete;
    PrintedText& operator=(PrintedText const&) = delete;

    std::string text() const { return buffer_.text(); }

private:
    class Buffer : public std::streambuf {
    public:
        Buffer() { setp(bytes_, bytes_ + sizeof bytes_); }
        std::string text() const { return {pbase(), pptr()}; }

    private:
        char bytes_[4096];
    };

    Buffer buffer_;
    std::streambuf* previous_;
};

TEST(OutOfMemory, IndexFile_AnyFailure_IsWrittenAndPrintedLater) {
    TempDir const dir;
    Handler::FileIndex original;
    original.n_ref = 3;
    original.ref_indices[1].bins[4681].chunks.push_back({100, 200});
    original.ref_indices[1].ioffsets = {100};
    original.ref_indices[1].n_intv = 1;
    std::string const path = dir.file("x.bai");
    {
        Handler::FileIndex index = original;
        ASSERT_TRUE(Handler().write_index_to_file(path, index));
    }
    std::string const bai = read_file(path);
    for_each_fault([&](Attempt const& attempt) {
        Handler const handler;
        Handler::FileIndex index = original;
        std::string const again = fresh(dir, "y.bai");
        End const end = attempt([&] { return handler.write_index_to_file(again, index); });
        expect_end(end, handler.error_message);
        EXPECT_TRUE(handler.write_index_to_file(again, index));
        EXPECT_EQ(read_file(again), bai);
    });
    std::string dump;
    for_each_fault([&](Attempt const& attempt) {
        Handler const handler;
        PrintedText const printed;
        End const end = attempt([&] { return handler.print_index_from_file(path); });
        expect_end(end, handler.error_message);
        if (dump.empty()) dump = printed.text();  // without a fault
        EXPECT_EQ(printed.text(), dump.substr(0, printed.text().size()));
        if (end == End::DONE) {
            EXPECT_EQ(printed.text(), dump);
        }
        EXPECT_EQ(handler.file_name, "");
    });
    EXPECT_NE(dump, "");
}

// --- Read annotations ------------------------------------------------------------

TEST(OutOfMemory, Annotations_AnyFailure_AreThoseExpectedOrNone) {
    std::string const bases(40, 'C');
    std::vector<unsigned char> const moves = {1, 0, 127, 255, 1};
    std::vector<unsigned char> const probabilities(bases.size() * 5, 200);
    tesk::data_wrappers::VecView<unsigned char> const moves_view{moves.data(), moves.size(), 1};
    tesk::data_wrappers::VecView<unsigned char> const view{probabilities.data(),
                                                           probabilities.size(), 1};
    auto const annotate = [&](std::string& line, std::string& move_table, std::string& calls) {
        std::string error;
        return Handler::make_unmapped_sam_line(line, "a_read_with_a_long_name", bases,
                                               std::string(bases.size(), 'I'), error) &&
               Handler::generate_move_table_string(move_table, moves_view, 5, error) &&
               Handler::generate_modbase_string(calls, bases, "ACmGT", "5mC", "_:XC:_:_", view, 100,
                                                error);
    };
    std::string expected[3];
    ASSERT_TRUE(annotate(expected[0], expected[1], expected[2]));
    for_each_fault([&](Attempt const& attempt) {
        std::string texts[3];
        End const end = attempt([&] { return annotate(texts[0], texts[1], texts[2]); });
        EXPECT_TRUE(end == End::DONE || end == End::NO_MEMORY);
        if (end == End::NO_MEMORY) {
            EXPECT_TRUE(annotate(texts[0], texts[1], texts[2]));
        }
        for (int i = 0; i < 3; ++i) EXPECT_EQ(texts[i], expected[i]);
    });
}

TEST(OutOfMemory, Context_AnyFailure_KeepsWhatItHas) {
    tesk::util::bam::BaseModContext original;
    original.set_context("A_LONG_MOTIF_CG", 13);
    for_each_fault([&](Attempt const& attempt) {
        tesk::util::bam::BaseModContext context = original;
        End const end = attempt([&] {
            context.set_context("ANOTHER_LONG_MOTIF_CG", 19);
            return context.decode(context.encode()) && !context.get_sequence_mask("ACGT").empty();
        });
        EXPECT_TRUE(end == End::DONE || end == End::NO_MEMORY);
        EXPECT_TRUE(context.motif('C') == "ANOTHER_LONG_MOTIF_CG" ||
                    context.motif('C') == "A_LONG_MOTIF_CG");
        EXPECT_EQ(context.motif('C').at(context.motif_offset('C')), 'C');
    });
}

// --- Interop: reading ------------------------------------------------------------

struct InputCase {
    char const* label;
    std::string bytes;
};

std::vector<InputCase> sam_and_bam() {
    return {{"SAM", sample_sam()}, {"BAM", sample_bam(sample_header(), LINES)}};
}

// Records of a file as they come, two at a time.
ReaderOptions in_small_batches() {
    ReaderOptions options;
    options.batch_records = 2;
    options.keep_lines = true;
    return options;
}

bool read_records(AlignmentReader& reader, std::string const& path, std::string& records) {
    if (!reader.open(path)) return false;
    RecordBatch batch;
    do {
        if (!reader.read_batch(batch)) return false;
        records += batch.records.view();
    } while (batch.n_records != 0);
    return true;
}

TEST(OutOfMemory, Reader_AnyFailure_ReadsNothingMoreUntilItIsOpenedAgain) {
    for (InputCase const& c : sam_and_bam()) {
        SCOPED_TRACE(c.label);
        TempDir const dir;
        std::string const path = dir.write("in", c.bytes);
        std::string const expected = encoded(LINES);
        for_each_fault([&](Attempt const& attempt) {
            AlignmentReader reader(in_small_batches());
            std::string records;
            records.reserve(expected.size());
            End const end = attempt([&] { return read_records(reader, path, records); });
            expect_end(end, reader.error_message);
            EXPECT_EQ(records, expected.substr(0, records.size()));
            if (end == End::DONE) {
                EXPECT_EQ(records, expected);
            } else {
                RecordBatch batch;
                EXPECT_FALSE(reader.read_batch(batch));
                EXPECT_NE(reader.error_message, "");
                EXPECT_EQ(batch.n_records, 0U);
            }
            records.clear();
            EXPECT_TRUE(read_records(reader, path, records)) << reader.error_message;
            EXPECT_EQ(records, expected);
        });
    }
}

TEST(OutOfMemory, ReaderForAHandler_AnyFailure_ReadsNothingMoreUntilItIsOpenedAgain) {
    for (InputCase const& c : sam_and_bam()) {
        SCOPED_TRACE(c.label);
        TempDir const dir;
        std::string const path = dir.write("in", c.bytes);
        for_each_fault([&](Attempt const& attempt) {
            AlignmentReader reader;
            Handler handler;
            auto const read = [&] { return reader.open(path) && reader.read_batch(handler); };
            End const end = attempt(read);
            expect_end(end, reader.error_message);
            if (end != End::DONE) {
                EXPECT_FALSE(reader.read_batch(handler));
                EXPECT_TRUE(handler.records.empty());
            }
            EXPECT_TRUE(read()) << reader.error_message;
            EXPECT_EQ(handler.header + lines_of(handler), sample_sam());
        });
    }
}

TEST(OutOfMemory, ReaderByIndex_AnyFailure_ReadsNothingMoreUntilItIsOpenedAgain) {
    TempDir const dir;
    std::string const path = dir.file("in.bam");
    Handler handler = sample_handler();
    ASSERT_TRUE(handler.sort() && handler.write_to_bam_file(path, true));
    std::string const expected = encoded({LINES[0]});
    for_each_fault([&](Attempt const& attempt) {
        AlignmentReader reader(in_small_batches());
        IndexReader index;
        RecordBatch batch;
        auto const read = [&] {
            return index.open(path + ".bai") && reader.open(path) &&
                   reader.select({{3, 19999, 30000}}, &index) && reader.read_batch(batch);
        };
        End const end = attempt(read);
        expect_end(end, reader.error_message + index.error_message);
        if (end != End::DONE) {
            EXPECT_FALSE(batch.n_records != 0 && reader.read_batch(batch));
        }
        EXPECT_TRUE(read()) << reader.error_message;
        EXPECT_EQ(batch.records.view(), expected);
    });
}

TEST(OutOfMemory, InputStream_AnyFailure_CanBeOpenedAgain) {
    std::string const sam = sample_sam();
    InputCase const cases[] = {
        {"plain", sam},
        {"gzip", gzip_member(sam.substr(0, 700)) + gzip_member(sam.substr(700))},
        {"blocks", bgzf_blocks(sam, 500) + bgzf_eof_block()},
    };
    for (InputCase const& c : cases) {
        SCOPED_TRACE(c.label);
        TempDir const dir;
        std::string const path = dir.write("in", c.bytes);
        std::string expected;
        for_each_fault([&](Attempt const& attempt) {
            InputStream stream;
            ByteBuffer bytes;
            auto const read = [&] {
                bytes.clear();
                if (!stream.open(path)) return false;
                for (std::size_t n = 1; n != bytes.size();) {
                    n = bytes.size();
                    if (!stream.read(bytes)) return false;
                }
                return true;
            };
            End const end = attempt(read);
            expect_end(end, stream.error_message);
            if (end == End::FAILED) {
                EXPECT_NE(stream.error_message.find("not enough memory"), std::string::npos)
                    << stream.error_message;
            }
            if (end != End::DONE) {
                bytes.clear();
                stream.read(bytes);  // gives something, or fails
            }
            EXPECT_TRUE(read()) << stream.error_message;
            if (expected.empty()) expected = bytes.view();
            EXPECT_EQ(bytes.view(), expected);
        });
    }
}

// --- Interop: writing ------------------------------------------------------------

struct OutputCase {
    char const* label;
    Format format;
    unsigned threads;
    bool from_handler;
};
constexpr OutputCase OUTPUT_CASES[] = {
    {"BAM on threads", Format::BAM, 3, false},
    {"BAM of a handler", Format::BAM, 1, true},
    {"SAM", Format::SAM, 1, false},
};

TEST(OutOfMemory, Writer_AnyFailure_WritesNothingMoreUntilItIsOpenedAgain) {
    Header header;
    Report report;
    std::string error;
    ASSERT_TRUE(header.assign_sam(sample_header(), report, error)) << error;
    RecordBatch batch;
    batch.records.append(encoded(sorted_lines()));
    batch.n_records = LINES.size();
    Handler handler = sample_handler();
    handler.sort();
    for (OutputCase const& c : OUTPUT_CASES) {
        SCOPED_TRACE(c.label);
        TempDir const dir;
        std::string expected;
        for_each_fault([&](Attempt const& attempt) {
            std::filesystem::remove(dir.file("out"));
            std::filesystem::remove(dir.file("out.bai"));
            WriterOptions options;
            options.format = c.format;
            options.threads = c.threads;
            options.index = c.format == Format::BAM;
            AlignmentWriter writer(options);
            auto const write = [&] {
                return writer.open(dir.file("out"), header, header.text()) &&
                       (c.from_handler ? writer.write(handler) : writer.write(batch)) &&
                       writer.close();
            };
            auto const result = [&] {
                return read_file(dir.file("out")) +
                       (options.index ? read_file(dir.file("out.bai")) : "");
            };
            End const end = attempt(write);
            expect_end(end, writer.error_message);
            if (expected.empty()) expected = result();  // without a fault
            if (end == End::DONE) {
                EXPECT_TRUE(result() == expected);
            } else {
                EXPECT_FALSE(writer.write(batch));
                EXPECT_FALSE(writer.close());
                EXPECT_NE(writer.error_message, "");
            }
            std::filesystem::remove(dir.file("out"));
            EXPECT_TRUE(write()) << writer.error_message;
            EXPECT_TRUE(result() == expected);
        });
    }
}

// Enough for several blocks, so that threads have something to do.
TEST(OutOfMemory, BgzfWriter_AnyFailure_WritesNothingMoreUntilItIsOpenedAgain) {
    std::string bytes;
    for (int i = 0; bytes.size() < 10 * BgzfWriter::PAYLOAD_BYTES; ++i) bytes += std::to_string(i);
    for (unsigned const threads : {1U, 3U}) {
        SCOPED_TRACE(threads);
        TempDir const dir;
        std::string expected;
        for_each_fault([&](Attempt const& attempt) {
            BgzfWriter writer;
            auto const write = [&](int fd) {
                return writer.open(fd, "out", 1, threads) && writer.write(bytes) && writer.close();
            };
            OpenFile const first(fresh(dir, "first"));
            End const end = attempt([&] { return write(first.fd()); });
            expect_end(end, writer.error_message);
            if (expected.empty()) expected = read_file(dir.file("first"));  // without a fault
            if (end == End::DONE) {
                EXPECT_TRUE(read_file(dir.file("first")) == expected);
            } else {
                EXPECT_FALSE(writer.write(bytes));
                EXPECT_FALSE(writer.close());
            }
            OpenFile const second(fresh(dir, "second"));
            EXPECT_TRUE(write(second.fd())) << writer.error_message;
            EXPECT_TRUE(read_file(dir.file("second")) == expected);
        });
    }
}

// --- Interop: sorting ------------------------------------------------------------

TEST(OutOfMemory, Sorter_AnyFailure_HandsOutNothingMore) {
    TempDir const dir;
    RecordBatch batch;
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        RawBamRecord record;
        record.refID = 0;
        record.pos = 1000 - i;
        record.read_name = "a_read_with_a_long_name_" + std::to_string(i);
        batch.records.append(record.bytes());
        expected = record.bytes() + expected;
        ++batch.n_records;
    }
    for (std::size_t const memory_bytes : {std::size_t{4096}, std::size_t{1} << 20}) {
        SCOPED_TRACE(memory_bytes);
        for_each_fault([&](Attempt const& attempt) {
            std::string sorted;
            sorted.reserve(expected.size());
            auto const take = [&](RecordView record) {
                sorted.append(record.bytes(), record.size());
                return true;
            };
            auto const sort = [&] {
                SorterOptions options;
                options.memory_bytes = memory_bytes;
                options.folder = dir.path();
                CoordinateSorter sorter(options);
                try {
                    return sorter.add(batch) && sorter.drain(take);
                } catch (std::bad_alloc const&) {
                    EXPECT_FALSE(sorter.add(batch));
                    EXPECT_FALSE(sorter.drain(take));
                    throw;
                }
            };
            End const end = attempt(sort);
            EXPECT_TRUE(end == End::DONE || end == End::NO_MEMORY);
            EXPECT_TRUE(sorted == expected.substr(0, sorted.size()));
            EXPECT_EQ(sorted.size() == expected.size(), end == End::DONE);
        });
    }
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
