// Reading and writing while the system fails: calls that move few bytes, are interrupted
// or fail, one after the other; files that change while they are read; full devices,
// pipes, and files that nobody may touch.

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "interop/alignment_reader.h"
#include "interop/alignment_writer.h"
#include "interop/coordinate_sorter.h"
#include "interop/index_reader.h"
#include "tests/support/bam_encoder.h"
#include "tests/support/cout_capture.h"
#include "tests/support/process_limits.h"
#include "tests/support/system_faults.h"
#include "tests/support/temp_file.h"
#include "util/bam/bam_file.h"

namespace {

using namespace tesk::test;
using tesk::interop::AlignmentReader;
using tesk::interop::AlignmentWriter;
using tesk::interop::CoordinateSorter;
using tesk::interop::Format;
using tesk::interop::Header;
using tesk::interop::IndexReader;
using tesk::interop::RecordBatch;
using tesk::interop::RecordView;
using tesk::interop::Report;
using tesk::interop::SorterOptions;
using tesk::interop::WriterOptions;
using Handler = tesk::util::bam::BAMFileHandler;

// --- Samples ---------------------------------------------------------------------

constexpr char HEADER[] =
    "@HD\tVN:1.6\tSO:coordinate\n@SQ\tSN:chr1\tLN:100000\n@SQ\tSN:chr2\tLN:1000\n";
std::vector<Reference> const REFERENCES = {{"chr1", 100000}, {"chr2", 1000}};

// In coordinate order.
std::vector<std::string> sample_lines() {
    std::vector<std::string> lines;
    for (int i = 0; i < 12; ++i) {
        lines.push_back("read" + std::to_string(i) + "\t0\tchr1\t" + std::to_string(8000 * i + 1) +
                        "\t60\t4M\t*\t0\t0\tACGT\tIIII\tXZ:Z:" + std::string(60, 'x'));
    }
    lines.push_back("last\t4\t*\t0\t0\t*\t*\t0\t0\tAC\tII");
    return lines;
}

std::string joined(std::vector<std::string> const& lines) {
    std::string text;
    for (std::string const& line : lines) text += line + "\n";
    return text;
}

std::string sample_sam() { return HEADER + joined(sample_lines()); }

std::string sample_records() {
    std::string bytes;
    for (std::string const& line : sample_lines()) bytes += encode_bam_record(line, REFERENCES);
    return bytes;
}

std::string lines_of(Handler const& handler) {
    std::string text;
    for (Handler::BamRecord const& record : handler.records) text += record.sam_line + "\n";
    return text;
}

Handler sample_handler() {
    Handler handler;
    EXPECT_TRUE(handler.add_header_lines(HEADER));
    for (std::string const& line : sample_lines()) EXPECT_TRUE(handler.add_alignment_sam(line));
    return handler;
}

Header sample_interop_header() {
    Header header;
    Report report;
    std::string error;
    EXPECT_TRUE(header.assign_sam(HEADER, report, error)) << error;
    return header;
}

// --- Operations ------------------------------------------------------------------

// What an operation came to.
struct Outcome {
    bool done = false;
    std::string error;  // where it is not done
    std::string text;   // what it read
};

// A way in or out, with fresh objects each time.
struct Operation {
    char const* label;
    std::function<Outcome()> run;
    std::vector<std::string> outputs;  // the files that it makes
    // It may say that it is done where the end is missing of what it made, behind the
    // first file: the library states that it does not notice.
    bool may_lack_its_end = false;
};

// A folder with samples.
struct Place {
    Place() {
        dir.write("in.sam", sample_sam());
        dir.write("in.sam.gz", gzip_member(sample_sam()));
        Handler handler = sample_handler();
        EXPECT_TRUE(handler.write_to_bam_file(dir.file("in.bam"), true));
    }

    std::string file(char const* name) const { return dir.file(name); }

    TempDir dir;
};

Outcome outcome_of(bool done, std::string const& error, std::string text = "") {
    return {done, done ? "" : error, std::move(text)};
}

Outcome read_sam_by_library(std::string const& path) {
    Handler handler;
    bool const done = handler.read_from_sam_file(path);
    return outcome_of(done, handler.error_message, handler.header + lines_of(handler));
}

Outcome read_bam_by_library(std::string const& path) {
    Handler handler;
    bool const done = handler.read_from_bam_file(path);
    return outcome_of(done, handler.error_message, handler.header + lines_of(handler));
}

Outcome read_by_interop(std::string const& path, IndexReader const* index = nullptr) {
    AlignmentReader reader;
    bool done = reader.open(path);
    if (done && index != nullptr) done = reader.select({{0, 20000, 50000}}, index);
    std::string records;
    RecordBatch batch;
    do {
        done = done && reader.read_batch(batch);
        if (done) records += batch.records.view();
    } while (done && batch.n_records != 0);
    return outcome_of(done, reader.error_message, records);
}

Outcome write_by_interop(std::string const& path, Format format) {
    Header const header = sample_interop_header();
    RecordBatch batch;
    batch.records.append(sample_records());
    batch.n_records = sample_lines().size();
    WriterOptions options;
    options.format = format;
    options.index = format == Format::BAM;
    AlignmentWriter writer(options);
    bool const done =
        writer.open(path, header, header.text()) && writer.write(batch) && writer.close();
    return outcome_of(done, writer.error_message);
}

Outcome sort_by_interop(std::string const& folder) {
    SorterOptions options;
    options.memory_bytes = 4096;
    options.folder = folder;
    CoordinateSorter sorter(options);
    std::string sorted;
    auto const take = [&](RecordView record) {
        sorted.append(record.bytes(), record.size());
        return true;
    };
    bool done = true;
    for (int i = 0; i < 60 && done; ++i) {
        RawBamRecord record;
        record.refID = 0;
        record.pos = 7 * i % 60;
        record.aux = bam_aux("XZ", 'Z', std::string(200, 'x') + '\0');
        RecordBatch batch;
        batch.records.append(record.bytes());
        batch.n_records = 1;
        done = sorter.add(batch);
    }
    done = done && sorter.drain(take);
    return outcome_of(done, sorter.error_message, sorted);
}

std::vector<Operation> library_operations(Place const& place) {
    std::string const sam = place.file("out.sam");
    std::string const bam = place.file("out.bam");
    std::string const bai = bam + ".bai";
    return {
        {"read SAM", [in = place.file("in.sam")] { return read_sam_by_library(in); }, {}},
        {"read BAM", [in = place.file("in.bam")] { return read_bam_by_library(in); }, {}},
        {"print index",
         [in = place.file("in.bam.bai")] {
             CoutCapture const printed;
             Handler const handler;
             bool const done = handler.print_index_from_file(in);
             return outcome_of(done, handler.error_message, printed.text());
         },
         {},
         true},
        {"write SAM",
         [sam] {
             Handler const handler = sample_handler();
             return outcome_of(handler.write_to_sam_file(sam), handler.error_message);
         },
         {sam}},
        {"write BAM",
         [bam] {
             Handler handler = sample_handler();
             return outcome_of(handler.write_to_bam_file(bam, false), handler.error_message);
         },
         {bam}},
        {"write BAM with index",
         [bam] {
             Handler handler = sample_handler();
             return outcome_of(handler.write_to_bam_file(bam, true), handler.error_message);
         },
         {bam, bai},
         true},
    };
}

std::vector<Operation> interop_operations(Place const& place) {
    std::string const sam = place.file("out.sam");
    std::string const bam = place.file("out.bam");
    return {
        {"reader of SAM", [in = place.file("in.sam")] { return read_by_interop(in); }, {}},
        {"reader of gzip", [in = place.file("in.sam.gz")] { return read_by_interop(in); }, {}},
        {"reader of BAM", [in = place.file("in.bam")] { return read_by_interop(in); }, {}},
        {"reader by index",
         [in = place.file("in.bam")] {
             IndexReader index;
             if (!index.open(in + ".bai")) return outcome_of(false, index.error_message);
             return read_by_interop(in, &index);
         },
         {}},
        {"writer of SAM", [sam] { return write_by_interop(sam, Format::SAM); }, {sam}},
        {"writer of BAM",
         [bam] { return write_by_interop(bam, Format::BAM); },
         {bam, bam + ".bai"}},
        {"sorter", [folder = place.dir.path().string()] { return sort_by_interop(folder); }, {}},
    };
}

std::vector<Operation> all_operations(Place const& place) {
    std::vector<Operation> operations = library_operations(place);
    for (Operation& operation : interop_operations(place)) operations.push_back(operation);
    return operations;
}

// Runs an operation with faults. Its text becomes all that it read and wrote.
Outcome run(Operation const& operation, SystemFaults& faults) {
    for (std::string const& path : operation.outputs) std::filesystem::remove(path);
    std::ptrdiff_t const n_files = n_open_files();
    Outcome outcome;
    {
        SystemFaultScope const scope(faults);
        outcome = operation.run();
    }
    EXPECT_EQ(n_open_files(), n_files);
    for (std::string const& path : operation.outputs) {
        if (std::filesystem::exists(path)) outcome.text += read_file(path);
    }
    return outcome;
}

std::size_t size_of(std::string const& path) { return std::filesystem::file_size(path); }

Outcome run(Operation const& operation) {
    SystemFaults none;
    return run(operation, none);
}

// --- Calls that fail -------------------------------------------------------------

int likely_error(Call call) {
    switch (call) {
        case Call::OPEN: return EMFILE;
        case Call::WRITE: return ENOSPC;
        case Call::MMAP: return ENOMEM;
        default: return EIO;
    }
}

TEST(IoFaults, AnyCall_Fails_IsReportedOrChangesNothing) {
    constexpr std::size_t FEW_BYTES = 150;
    Place const place;
    for (Operation const& operation : all_operations(place)) {
        SCOPED_TRACE(operation.label);
        Outcome const undisturbed = run(operation);
        ASSERT_TRUE(undisturbed.done) << undisturbed.error;
        ASSERT_NE(undisturbed.text, "");
        std::size_t const least = operation.outputs.empty() ? 0 : size_of(operation.outputs[0]);
        int n_reported = 0;
        for (std::size_t kind = 0; kind < N_CALLS; ++kind) {
            auto const call = static_cast<Call>(kind);
            bool more = true;
            for (std::uint64_t number = 1; more; ++number) {
                SCOPED_TRACE(std::string(name_of(call)) + " " + std::to_string(number));
                SystemFaults faults;
                faults.most_bytes = FEW_BYTES;
                faults.faults[0] = {call, number, likely_error(call), false};
                Outcome const outcome = run(operation, faults);
                more = faults.calls_of(call) >= number;
                if (!outcome.done) {
                    EXPECT_NE(outcome.error, "");
                    ++n_reported;
                } else if (operation.may_lack_its_end) {
                    EXPECT_EQ(undisturbed.text.rfind(outcome.text, 0), 0U);
                    EXPECT_GE(outcome.text.size(), least);
                } else {
                    EXPECT_TRUE(outcome.text == undisturbed.text);
                }
                ASSERT_FALSE(HasFailure());
            }
        }
        EXPECT_GT(n_reported, 0);
    }
}

// The library says nothing of an index that could not be written, as it states; but the
// BAM file is whole then.
TEST(IoFaults, WriteBamWithIndex_WriteFails_SparesTheBamFile) {
    Place const place;
    std::string const bam = place.file("out.bam");
    Handler handler = sample_handler();
    ASSERT_TRUE(handler.write_to_bam_file(bam, false));
    std::string const expected = read_file(bam);
    int n_done = 0;
    int n_failed = 0;
    bool more = true;
    for (std::uint64_t number = 1; more; ++number) {
        std::filesystem::remove(bam);
        std::filesystem::remove(bam + ".bai");
        SystemFaults faults;
        faults.most_bytes = 150;
        faults.faults[0] = {Call::WRITE, number, ENOSPC, true};
        bool done = false;
        {
            SystemFaultScope const scope(faults);
            done = handler.write_to_bam_file(bam, true);
        }
        more = faults.calls_of(Call::WRITE) >= number;
        if (done) {
            EXPECT_TRUE(read_file(bam) == expected);
        } else {
            EXPECT_EQ(handler.error_message, "BAM file reported error on close " + bam);
        }
        ++(done ? n_done : n_failed);
    }
    EXPECT_GT(n_done, 1);
    EXPECT_GT(n_failed, 1);
}

TEST(IoFaults, AnyCall_MovesFewBytesOrIsInterrupted_ChangesNothing) {
    Place const place;
    for (Operation const& operation : all_operations(place)) {
        SCOPED_TRACE(operation.label);
        Outcome const undisturbed = run(operation);
        for (std::size_t const most_bytes : {1U, 3U, 1000U}) {
            for (bool const interrupts : {false, true}) {
                SCOPED_TRACE(std::to_string(most_bytes) + " bytes" +
                             (interrupts ? ", interrupted" : ""));
                SystemFaults faults;
                faults.most_bytes = most_bytes;
                faults.interrupts = interrupts;
                Outcome const outcome = run(operation, faults);
                EXPECT_TRUE(outcome.done) << outcome.error;
                EXPECT_TRUE(outcome.text == undisturbed.text);
                EXPECT_GT(faults.calls_of(Call::READ) + faults.calls_of(Call::WRITE), 1U);
            }
        }
    }
}

// --- Files that change -----------------------------------------------------------

// Something that happens before the n-th read.
struct Event {
    std::uint64_t number = 0;
    std::function<void()> happen;
};

void wait_for_event(Call call, std::uint64_t number, void* data) {
    auto const& event = *static_cast<Event*>(data);
    if (call == Call::READ && number == event.number) event.happen();
}

struct ChangeCase {
    char const* label;
    char const* name;  // of the file that is read
    std::function<Outcome(std::string const&)> read;
    bool knows_size = false;  // of the file, from the beginning
};

std::vector<ChangeCase> change_cases() {
    auto const by_interop = [](std::string const& path) { return read_by_interop(path); };
    return {
        {"library, SAM", "in.sam", read_sam_by_library},
        {"library, BAM", "in.bam", read_bam_by_library, true},
        {"interop, SAM", "in.sam", by_interop},
        {"interop, gzip", "in.sam.gz", by_interop},
        {"interop, BAM", "in.bam", by_interop},
    };
}

// Reads a file, few bytes at a time, while something happens to it.
Outcome read_with_event(ChangeCase const& c, std::string const& path, std::size_t most_bytes,
                        Event& event) {
    SystemFaults faults;
    faults.most_bytes = most_bytes;
    faults.before = wait_for_event;
    faults.data = &event;
    SystemFaultScope const scope(faults);
    return c.read(path);
}

// In how many calls it is read where nothing happens.
std::uint64_t n_reads_of(ChangeCase const& c, std::string const& path, std::size_t most_bytes) {
    SystemFaults faults;
    faults.most_bytes = most_bytes;
    SystemFaultScope const scope(faults);
    EXPECT_TRUE(c.read(path).done);
    return faults.calls_of(Call::READ);
}

TEST(IoFaults, FileShrinks_WhileItIsRead_IsReadAsItIsThen) {
    constexpr std::size_t FEW_BYTES = 150;
    Place const place;
    for (ChangeCase const& c : change_cases()) {
        SCOPED_TRACE(c.label);
        std::string const bytes = read_file(place.file(c.name));
        std::string const path = place.file("changing");
        write_file(path, bytes);
        std::string const whole = c.read(path).text;
        std::uint64_t const n_reads = n_reads_of(c, path, FEW_BYTES);
        int n_failed = 0;
        for (std::uint64_t number = 1; number <= n_reads; ++number) {
            SCOPED_TRACE(number);
            std::filesystem::remove(path);
            write_file(path, bytes);
            // As much is left as was read.
            std::size_t const size = (number - 1) * FEW_BYTES;
            Event event;
            event.number = number;
            event.happen = [&] {
                if (size < bytes.size()) std::filesystem::resize_file(path, size);
            };
            Outcome const outcome = read_with_event(c, path, FEW_BYTES, event);
            if (!outcome.done) ++n_failed;
            if (c.knows_size) {
                EXPECT_EQ(outcome.done, outcome.text == whole);
            } else {
                Outcome const expected = c.read(path);
                EXPECT_EQ(outcome.done, expected.done);
                EXPECT_EQ(outcome.error, expected.error);
                EXPECT_TRUE(outcome.text == expected.text);
            }
        }
        EXPECT_GT(n_failed, 0);
    }
}

TEST(IoFaults, FileGrows_WhileItIsRead_IsReadToItsEndUnlessThatWasKnown) {
    std::string const line = "new\t4\t*\t0\t0\t*\t*\t0\t0\tAC\tII";
    std::string const sam = line + "\n";
    std::string const bam = bgzf_blocks(encode_bam_record(line, REFERENCES)) + bgzf_eof_block();
    Place const place;
    for (ChangeCase const& c : change_cases()) {
        SCOPED_TRACE(c.label);
        std::string const name = c.name;
        std::string const more_bytes = name == "in.sam"   ? sam
                                       : name == "in.bam" ? bam
                                                          : gzip_member(sam);
        std::string const bytes = read_file(place.file(c.name));
        std::string const path = place.dir.write("before", bytes);
        std::string const before = c.read(path).text;
        std::string const after = c.read(place.dir.write("after", bytes + more_bytes)).text;
        ASSERT_GT(after.size(), before.size());
        std::uint64_t const n_reads = n_reads_of(c, path, SIZE_MAX);
        for (std::uint64_t number = 1; number <= n_reads; ++number) {
            SCOPED_TRACE(number);
            std::filesystem::remove(place.file("changing"));
            std::string const changing = place.dir.write("changing", bytes);
            int const fd = ::open(changing.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
            Event event;
            event.number = number;
            event.happen = [&] { EXPECT_GT(::write(fd, more_bytes.data(), more_bytes.size()), 0); };
            Outcome const outcome = read_with_event(c, changing, SIZE_MAX, event);
            ::close(fd);
            EXPECT_TRUE(outcome.done) << outcome.error;
            EXPECT_TRUE(outcome.text == (c.knows_size ? before : after));
        }
    }
}

// --- Full devices ----------------------------------------------------------------

TEST(IoFaults, AnyFileSizeLimit_BelowTheFile_IsReported) {
    Place const place;
    for (Operation const& operation : all_operations(place)) {
        if (operation.outputs.empty()) continue;
        SCOPED_TRACE(operation.label);
        Outcome const undisturbed = run(operation);
        std::size_t const size = size_of(operation.outputs[0]);
        for (std::size_t limit = 0; limit < size + 100; limit += 100) {
            SCOPED_TRACE(limit);
            for (std::string const& path : operation.outputs) std::filesystem::remove(path);
            Outcome outcome;
            {
                FileSizeLimit const scope(limit);
                outcome = operation.run();
            }
            EXPECT_EQ(outcome.done, limit >= size);
            if (!outcome.done) {
                EXPECT_NE(outcome.error, "");
                EXPECT_EQ(size_of(operation.outputs[0]), limit);
            }
        }
    }
}

// As the library states.
TEST(IoFaults, WriteIndex_DeviceIsFull_IsNotDetected) {
    Handler const handler;
    Handler::FileIndex index;
    EXPECT_TRUE(handler.write_index_to_file("/dev/full", index));
    EXPECT_EQ(handler.error_message, "");
}

// --- Pipes -----------------------------------------------------------------------

// Writes to a pipe, few bytes at a time, until it is told not to.
class Feeder {
public:
    Feeder(std::string const& path, std::string bytes, std::size_t at_a_time)
        : thread_([path, bytes = std::move(bytes), at_a_time] {
              int const fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
              for (std::size_t i = 0; i < bytes.size(); i += at_a_time) {
                  std::string const piece = bytes.substr(i, at_a_time);
                  if (::write(fd, piece.data(), piece.size()) < 0) break;
              }
              ::close(fd);
          }) {}
    ~Feeder() { thread_.join(); }
    Feeder(Feeder const&) = delete;
    Feeder& operator=(Feeder const&) = delete;

private:
    std::thread thread_;
};

// Reads from a pipe, to its end or only so many bytes.
class Drain {
public:
    explicit Drain(std::string const& path, std::size_t most_bytes = SIZE_MAX)
        : thread_([this, path, most_bytes] {
              int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
              char piece[1000];
              while (bytes_.size() < most_bytes) {
                  ssize_t const n =
                      ::read(fd, piece, std::min(sizeof piece, most_bytes - bytes_.size()));
                  if (n <= 0) break;
                  bytes_.append(piece, static_cast<std::size_t>(n));
              }
              ::close(fd);
          }) {}
    ~Drain() {
        if (thread_.joinable()) thread_.join();
    }
    Drain(Drain const&) = delete;
    Drain& operator=(Drain const&) = delete;

    std::string const& bytes() {
        thread_.join();
        return bytes_;
    }

private:
    std::string bytes_;
    std::thread thread_;
};

TEST(IoFaults, Fifo_FedByteByByte_IsReadLikeAFile) {
    Place const place;
    std::string const fifo = make_fifo(place.dir, "fifo");
    for (std::size_t const at_a_time : {std::size_t{1}, std::size_t{100}}) {
        SCOPED_TRACE(at_a_time);
        {
            Feeder const feeder(fifo, sample_sam(), at_a_time);
            EXPECT_EQ(read_sam_by_library(fifo).text, sample_sam());
        }
        std::string const bai = place.file("in.bam.bai");
        CoutCapture const expected;
        Handler const handler;
        ASSERT_TRUE(handler.print_index_from_file(bai));
        CoutCapture const printed;
        Feeder const feeder(fifo, read_file(bai), at_a_time);
        EXPECT_TRUE(handler.print_index_from_file(fifo));
        EXPECT_EQ(printed.text(), expected.text());
    }
}

TEST(IoFaults, Fifo_AsOutputOfALibrary_GetsTheFile) {
    Place const place;
    std::string const fifo = make_fifo(place.dir, "fifo");
    Handler handler = sample_handler();
    {
        Drain drain(fifo);
        EXPECT_TRUE(handler.write_to_sam_file(fifo)) << handler.error_message;
        EXPECT_EQ(drain.bytes(), sample_sam());
    }
    {
        Drain drain(fifo);
        EXPECT_TRUE(handler.write_to_bam_file(fifo, false)) << handler.error_message;
        EXPECT_EQ(inflate_bgzf(drain.bytes()), inflate_bgzf(read_file(place.file("in.bam"))));
    }
    Drain drain(fifo);
    Outcome const outcome = write_by_interop(fifo, Format::SAM);
    EXPECT_TRUE(outcome.done) << outcome.error;
    EXPECT_EQ(drain.bytes(), sample_sam());
}

TEST(IoFaults, Fifo_WhoseReaderGoes_IsReported) {
    auto const before = std::signal(SIGPIPE, SIG_IGN);
    Place const place;
    std::string const fifo = make_fifo(place.dir, "fifo");
    Handler handler = sample_handler();
    std::string const line = sample_lines()[0] + std::string(4 << 20, 'x');  // fills any pipe
    ASSERT_TRUE(handler.add_alignment_sam(line));
    {
        Drain const drain(fifo, 10);
        EXPECT_FALSE(handler.write_to_sam_file(fifo));
        EXPECT_EQ(handler.error_message, "SAM file reported error on close " + fifo);
    }
    {
        handler.records.back().qual.assign(std::size_t{4} << 20, '\0');
        for (std::size_t i = 0; i < handler.records.back().qual.size(); ++i) {
            handler.records.back().qual[i] = static_cast<char>((i * i * 2654435761U) >> 13U);
        }
        Drain const drain(fifo, 10);
        EXPECT_FALSE(handler.write_to_bam_file(fifo, false));
        EXPECT_EQ(handler.error_message, "BAM file reported error on close " + fifo);
    }
    std::signal(SIGPIPE, before);
}

// --- Missing rights --------------------------------------------------------------

// Does something in a process that has no more rights in a folder than anybody else.
// Returns 0 where that was so and the work returned true, 1 where it did not; SKIPPED
// where there was no such process.
constexpr int SKIPPED = 77;

int as_nobody(TempDir const& dir, std::function<bool()> const& work) {
    constexpr uid_t NOBODY = 65534;
    std::filesystem::permissions(dir.path(), std::filesystem::perms(0755));
    pid_t const pid = ::fork();
    if (pid == 0) {
        bool const possible = ::geteuid() != 0 || (::setgroups(0, nullptr) == 0 &&
                                                   ::setgid(NOBODY) == 0 && ::setuid(NOBODY) == 0);
        if (!possible || ::access(dir.path().c_str(), R_OK | X_OK) != 0) ::_exit(SKIPPED);
        ::_exit(work() ? 0 : 1);
    }
    int status = 0;
    bool const ended = pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status);
    return ended ? WEXITSTATUS(status) : SKIPPED;
}

// Says where it is not as expected.
bool equals(std::string const& text, std::string const& expected) {
    if (text == expected) return true;
    std::cerr << "got " << text << "\ninstead of " << expected << "\n";
    return false;
}

TEST(IoFaults, FileWithoutRights_AnyReader_SaysThatItCannotBeOpened) {
    Place const place;
    for (char const* const name : {"in.sam", "in.bam", "in.bam.bai"}) {
        std::filesystem::permissions(place.file(name), std::filesystem::perms::none);
    }
    std::string const sam = place.file("in.sam");
    std::string const bam = place.file("in.bam");
    std::string const bai = place.file("in.bam.bai");
    int const status = as_nobody(place.dir, [&] {
        Handler const handler;
        IndexReader index;
        return equals(read_sam_by_library(sam).error, "Cannot open file " + sam) &&
               equals(read_bam_by_library(bam).error, "Cannot open file " + bam) &&
               !handler.print_index_from_file(bai) &&
               equals(handler.error_message, "Cannot open index file " + bai) &&
               equals(read_by_interop(bam).error, "cannot open " + bam + ": Permission denied") &&
               !index.open(bai) &&
               equals(index.error_message, "cannot open " + bai + ": Permission denied");
    });
    if (status == SKIPPED) GTEST_SKIP() << "cannot run without rights";
    EXPECT_EQ(status, 0);
}

TEST(IoFaults, FolderOrFileWithoutRights_AnyWriter_SaysThatItCannotBeWritten) {
    TempDir const dir;
    std::filesystem::create_directory(dir.file("closed"));
    dir.write("closed/old", "old");
    std::filesystem::permissions(dir.file("closed/old"), std::filesystem::perms(0444));
    std::filesystem::permissions(dir.file("closed"), std::filesystem::perms(0555));
    int const status = as_nobody(dir, [&] {
        bool good = true;
        for (char const* const name : {"closed/new", "closed/old"}) {
            std::string const path = dir.file(name);
            Handler handler = sample_handler();
            Handler::FileIndex index;
            good =
                good && !handler.write_to_sam_file(path) &&
                equals(handler.error_message, "Cannot open SAM file : " + path) &&
                !handler.write_to_bam_file(path, true) &&
                equals(handler.error_message, "Cannot open file " + path) &&
                !handler.write_index_to_file(path, index) &&
                equals(handler.error_message, "Cannot open index file " + path + " for writing") &&
                equals(write_by_interop(path, Format::BAM).error,
                       "cannot write to " + path + ": Permission denied");
        }
        std::string const folder = dir.file("closed");
        return good && equals(sort_by_interop(folder).error,
                              "cannot write a temporary file in " + folder + ": Permission denied");
    });
    std::filesystem::permissions(dir.file("closed"), std::filesystem::perms(0755));
    if (status == SKIPPED) GTEST_SKIP() << "cannot run without rights";
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(dir.file("closed/old")), "old");
    EXPECT_FALSE(std::filesystem::exists(dir.file("closed/new")));
}

}  // namespace
