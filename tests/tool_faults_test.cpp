// The tool while the system fails it. A library that is preloaded has each call of each
// kind fail in turn (support/fault_preload.cpp): whatever happens, an output has its old
// contents or the new ones, what went wrong is said, and nothing else is left behind.

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/system_faults.h"
#include "tests/support/temp_file.h"
#include "tests/support/text.h"
#include "tests/support/tool_runner.h"
#include "tests/support/tool_samples.h"

namespace {

using namespace tesk::test;
using Strings = std::vector<std::string>;

// --- A place to work -------------------------------------------------------------

// A folder with inputs, and with outputs that were there before.
class Place {
public:
    Place() {
        dir_.write("in.sam", sample_sam());
        dir_.write("in.bam", sample_bam());
        dir_.write("in.sam.gz", gzip_member(sample_sam()));
        dir_.write("large.sam", large_sam(300, 6000));
        dir_.write("in.fastq", "@r1\nACGT\n+\nIIII\n@r2\nAC\n+\n!!\n");
        dir_.write("in.json",
                   "{\"name\": \"r1\", \"sequence\": \"ACG\", \"qualities\": \"III\", "
                   "\"stride\": 5, \"moves\": [1, 0, 1, 1]}\n");
        expect_done(run_tool(words("convert DIR/in.sam DIR/sorted.bam --index")));
        std::filesystem::create_directory(dir_.file("tmp"));
        restore_outputs();
        names_ = names_in(dir_.path());
    }

    // The words of a command line in which DIR is this folder.
    Strings words(std::string const& line) const {
        Strings words;
        for (std::string_view const word : split(line, ' ')) {
            bool const is_file = word.substr(0, 3) == "DIR";
            words.emplace_back(is_file ? dir_.path().string() + std::string(word.substr(3)) : word);
        }
        return words;
    }

    std::string file(std::string_view name) const { return dir_.file(name); }

    // Each a new file: replacing the contents of one may wait for the disk.
    void restore_outputs() const {
        for (char const* const name : OUTPUTS) {
            std::filesystem::remove(dir_.file(name));
            dir_.write(name, OLD);
            std::filesystem::permissions(dir_.file(name), std::filesystem::perms(0640));
        }
    }

    // What the outputs hold, and may be done with them.
    Strings outputs() const {
        Strings outputs;
        for (char const* const name : OUTPUTS) {
            auto const mode = std::filesystem::status(dir_.file(name)).permissions();
            outputs.push_back(std::to_string(static_cast<unsigned>(mode)) + ": " +
                              read_file(dir_.file(name)));
        }
        return outputs;
    }

    // Expects that no file is there that was not there before, and all of those.
    void expect_tidy() const {
        EXPECT_EQ(names_in(dir_.path()), names_);
        EXPECT_EQ(names_in(dir_.file("tmp")), Names{});
    }

private:
    static constexpr char const* OUTPUTS[] = {"out.sam", "out.bam", "out.bam.bai", "out.html"};
    static constexpr char const* OLD = "old contents";

    TempDir dir_;
    Names names_;
};

// --- Faults ----------------------------------------------------------------------

struct FaultyRun {
    ProcessResult result;
    std::uint64_t n_calls[N_CALLS] = {};

    std::uint64_t calls_of(Call call) const { return n_calls[static_cast<std::size_t>(call)]; }
};

// Runs the tool with faults, in the words of support/fault_preload.cpp.
FaultyRun run_with_faults(Strings arguments, std::string const& faults) {
    TempDir const dir;
    FaultyRun run;
    std::string const report = dir.write("report", std::string(sizeof run.n_calls, '\0'));
    arguments.insert(arguments.begin(), TOOL);
    run.result = run_process(arguments, {"LD_PRELOAD=" TESK_BAM_FAULT_PRELOAD,
                                         "TESK_FAULTS=" + faults, "TESK_FAULTS_REPORT=" + report});
    std::memcpy(run.n_calls, read_file(report).data(), sizeof run.n_calls);
    return run;
}

int likely_error(Call call) {
    switch (call) {
        case Call::OPEN:
        case Call::DUP: return EMFILE;
        case Call::WRITE: return ENOSPC;
        case Call::LINK:
        case Call::RENAME:
        case Call::CHMOD: return EPERM;
        case Call::MMAP: return ENOMEM;
        default: return EIO;
    }
}

std::string fault_of(Call call, std::uint64_t number, int error) {
    return std::string(name_of(call)) + ":" + std::to_string(number) + ":" + std::to_string(error);
}

// The sanitizers' own libraries want to be the first ones loaded.
class ToolFaults : public testing::Test {
protected:
    void SetUp() override {
#ifdef TESK_TEST_SANITIZED
        GTEST_SKIP() << "nothing is preloaded into programs with sanitizers";
#endif
    }
};

struct CommandCase {
    char const* line;
    std::size_t most_bytes;  // that a call reads or writes
};
constexpr CommandCase COMMANDS[] = {
    {"convert DIR/in.sam DIR/out.bam --quiet", 100},
    {"convert DIR/in.bam DIR/out.sam", 100},
    {"convert DIR/in.sam.gz DIR/out.sam --sort", 100},
    {"convert DIR/in.sam DIR/out.bam --index --threads 2", 100},
    {"convert DIR/large.sam DIR/out.bam --index --memory 1M --tmp DIR/tmp --level 1", 200000},
    {"convert DIR/in.sam DIR/out.bam --exact --quiet", 100},
    {"convert DIR/in.sam DIR/out.bam --exact --index", 100},
    {"convert DIR/in.bam DIR/out.sam --exact", 100},
    {"import DIR/in.fastq DIR/out.bam --quiet", 20},
    {"import DIR/in.fastq DIR/out.sam --exact", 20},
    {"annotate DIR/in.json DIR/out.bam --quiet", 50},
    {"annotate DIR/in.json DIR/out.bam --exact --quiet", 50},
    {"view DIR/in.bam", 100},
    {"view DIR/sorted.bam chr1:1-200", 100},
    {"view DIR/in.sam --count", 100},
    {"info DIR/in.bam", 100},
    {"info DIR/in.bam --exact --json", 100},
    {"validate DIR/in.bam", 100},
    {"report DIR/in.bam DIR/out.html", 4000},
    {"dump-index DIR/sorted.bam.bai", 100},
};

// Whether a text is a message on a line of its own, behind notes.
bool is_message(std::string_view text) {
    std::vector<std::string_view> lines = split(text, '\n');
    bool const ends = lines.size() >= 2 && lines.back().empty();
    if (!ends) return false;
    lines.pop_back();
    bool good = lines.back().rfind("tesk-bam: ", 0) == 0;
    lines.pop_back();
    for (std::string_view const line : lines) good = good && line.rfind("tesk-bam: note: ", 0) == 0;
    return good;
}

// Expects what must be true of a run, whatever failed.
void expect_sound(Place const& place, FaultyRun const& run, FaultyRun const& undisturbed,
                  Strings const& old_outputs, Strings const& new_outputs) {
    ProcessResult const& result = run.result;
    EXPECT_EQ(result.signal, 0);
    place.expect_tidy();
    if (result.exit_status == 0) {
        EXPECT_EQ(place.outputs(), new_outputs);
        EXPECT_EQ(result.output, undisturbed.result.output);
        EXPECT_TRUE(result.errors.empty() || result.errors.rfind("tesk-bam: note: ", 0) == 0)
            << result.errors;
        return;
    }
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_EQ(place.outputs(), old_outputs);
    // After notes one line, which names a file or standard output; the verdict of
    // validate is on standard output.
    bool const is_verdict = result.errors.empty() && result.output.rfind("file ", 0) == 0;
    std::string const& text = is_verdict ? result.output : result.errors;
    EXPECT_TRUE(text.find(place.file("")) != std::string::npos ||
                text.find("standard output") != std::string::npos)
        << text;
    if (is_verdict) return;
    EXPECT_TRUE(is_message(text)) << text;
    EXPECT_EQ(undisturbed.result.output.rfind(result.output, 0), 0U);
}

TEST_F(ToolFaults, AnyCallOfAnyCommand_Fails_OldFilesOrNewFilesAndAMessage) {
    Place const place;
    Strings const old_outputs = place.outputs();
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.line);
        Strings const arguments = place.words(c.line);
        std::string const pieces = "bytes:" + std::to_string(c.most_bytes) + " ";
        FaultyRun const undisturbed = run_with_faults(arguments, pieces);
        expect_done(undisturbed.result);
        EXPECT_GT(undisturbed.calls_of(Call::OPEN), 0U);
        EXPECT_GT(undisturbed.calls_of(Call::READ), 1U);
        Strings const new_outputs = place.outputs();
        int n_failed = 0;
        for (std::size_t kind = 0; kind < N_CALLS; ++kind) {
            auto const call = static_cast<Call>(kind);
            if (call == Call::MALLOC) continue;  // see below
            bool const has_pieces = call == Call::READ || call == Call::WRITE;
            for (std::uint64_t number = 1; number <= undisturbed.calls_of(call); ++number) {
                // A disk that is full or damaged stays so.
                std::string const fault =
                    fault_of(call, number, likely_error(call)) + (has_pieces ? "+" : "");
                SCOPED_TRACE(fault);
                place.restore_outputs();
                FaultyRun const run = run_with_faults(arguments, pieces + fault);
                expect_sound(place, run, undisturbed, old_outputs, new_outputs);
                if (run.result.exit_status != 0) ++n_failed;
                ASSERT_FALSE(HasFailure());
            }
        }
        EXPECT_GT(n_failed, 2);
        place.restore_outputs();
    }
}

TEST_F(ToolFaults, AnyCommand_FewBytesAtATimeAndInterruptions_ChangeNothing) {
    Place const place;
    for (CommandCase const& c : COMMANDS) {
        SCOPED_TRACE(c.line);
        place.restore_outputs();
        FaultyRun const undisturbed = run_with_faults(place.words(c.line), "");
        Strings const outputs = place.outputs();
        std::size_t const few_bytes = c.most_bytes <= 1000 ? 1 : 10000;
        std::string const pieces = "bytes:" + std::to_string(few_bytes);
        for (std::string const& faults : {pieces, pieces + " interrupts"}) {
            SCOPED_TRACE(faults);
            place.restore_outputs();
            FaultyRun const run = run_with_faults(place.words(c.line), faults);
            expect_done(run.result);
            EXPECT_EQ(run.result.output, undisturbed.result.output);
            EXPECT_EQ(place.outputs(), outputs);
        }
    }
}

// As of a file that others shorten. Text may end after any line.
TEST_F(ToolFaults, AnyCommand_InputEndsEarly_IsAnErrorUnlessItIsText) {
    Place const place;
    Strings const old_outputs = place.outputs();
    for (char const* const line :
         {"convert DIR/in.bam DIR/out.sam", "convert DIR/in.sam.gz DIR/out.bam --quiet",
          "convert DIR/in.bam DIR/out.sam --exact", "convert DIR/in.bam DIR/out.bam --index",
          "info DIR/in.bam", "view DIR/in.bam --count", "report DIR/in.bam DIR/out.html"}) {
        SCOPED_TRACE(line);
        place.restore_outputs();
        FaultyRun const undisturbed = run_with_faults(place.words(line), "bytes:50");
        expect_done(undisturbed.result);
        Strings const new_outputs = place.outputs();
        int n_failed = 0;
        for (std::uint64_t number = 2; number <= undisturbed.calls_of(Call::READ); ++number) {
            SCOPED_TRACE(number);
            place.restore_outputs();
            FaultyRun const run = run_with_faults(
                place.words(line), "bytes:50 " + fault_of(Call::READ, number, 0) + "+");
            expect_sound(place, run, undisturbed, old_outputs, new_outputs);
            if (run.result.exit_status != 0) ++n_failed;
        }
        EXPECT_GT(n_failed, 2);
    }
}

// --- No memory -------------------------------------------------------------------

// Of very many requests some; not those before main().
TEST_F(ToolFaults, AnyCommand_MemoryRunsOut_OldFilesAndAMessage) {
    constexpr std::uint64_t FIRST = 50;
    constexpr std::uint64_t STEP = 97;
    Place const place;
    Strings const old_outputs = place.outputs();
    for (char const* const line :
         {"convert DIR/in.sam DIR/out.bam --index --threads 2",
          "convert DIR/in.sam.gz DIR/out.bam --quiet", "convert DIR/in.bam DIR/out.sam",
          "convert DIR/in.sam DIR/out.bam --exact --index",
          "convert DIR/in.bam DIR/out.sam --exact", "import DIR/in.fastq DIR/out.bam --quiet",
          "view DIR/sorted.bam chr1:1-200", "report DIR/in.bam DIR/out.html"}) {
        SCOPED_TRACE(line);
        FaultyRun const undisturbed = run_with_faults(place.words(line), "");
        expect_done(undisturbed.result);
        Strings const new_outputs = place.outputs();
        int n_failed = 0;
        for (std::uint64_t number = FIRST; number <= undisturbed.calls_of(Call::MALLOC);
             number += STEP) {
            for (bool const lasts : {false, true}) {
                std::string const fault =
                    fault_of(Call::MALLOC, number, ENOMEM) + (lasts ? "+" : "");
                SCOPED_TRACE(fault);
                place.restore_outputs();
                ProcessResult const result = run_with_faults(place.words(line), fault).result;
                EXPECT_EQ(result.signal, 0);
                EXPECT_EQ(place.outputs(), result.exit_status == 0 ? new_outputs : old_outputs);
                place.expect_tidy();
                if (result.exit_status == 0) continue;
                EXPECT_EQ(result.exit_status, 1);
                EXPECT_TRUE(is_message(result.errors)) << result.errors;
                ++n_failed;
            }
        }
        EXPECT_GT(n_failed, 5);
        place.restore_outputs();
    }
}

// --- Two faults ------------------------------------------------------------------

// Where there are no hard links, the old file is moved out of the way.
TEST_F(ToolFaults, PairWithoutHardLinks_AnyRenameFails_OldPairOrNewPair) {
    Place const place;
    Strings const old_outputs = place.outputs();
    Strings const arguments = place.words("convert DIR/in.sam DIR/out.bam --index");
    FaultyRun const undisturbed = run_with_faults(arguments, "link:1:1");
    expect_done(undisturbed.result);
    EXPECT_EQ(undisturbed.calls_of(Call::RENAME), 3U);
    Strings const new_outputs = place.outputs();
    for (std::uint64_t number = 1; number <= 3; ++number) {
        SCOPED_TRACE(number);
        place.restore_outputs();
        FaultyRun const run =
            run_with_faults(arguments, "link:1:1 " + fault_of(Call::RENAME, number, EACCES));
        EXPECT_EQ(run.result.exit_status, 1);
        expect_sound(place, run, undisturbed, old_outputs, new_outputs);
    }
}

// Without knowing whether there is an old file, it would be lost with the second fault.
TEST_F(ToolFaults, PairWhoseOldFileCannotBeExamined_IndexCannotBeRenamed_OldPairStays) {
    Place const place;
    Strings const old_outputs = place.outputs();
    FaultyRun const run = run_with_faults(place.words("convert DIR/in.sam DIR/out.bam --index"),
                                          "lstat:1:5 rename:2:5");
    expect_failure(run.result, 1,
                   "cannot replace " + place.file("out.bam") + ": Input/output error");
    EXPECT_EQ(place.outputs(), old_outputs);
    place.expect_tidy();
}

// --- Messages --------------------------------------------------------------------

struct MessageCase {
    char const* label;
    char const* line;
    char const* faults;
    char const* message;  // with DIR for the folder
};
constexpr MessageCase MESSAGES[] = {
    {"the old file's permissions are not known", "convert DIR/in.sam DIR/out.bam", "stat:2:5",
     "cannot set the permissions of DIR/out.bam: Input/output error"},
    {"the index cannot be read back", "convert DIR/in.sam DIR/out.bam --index", "read:3:5",
     "DIR/out.bam.bai: the index cannot be read: DIR/out.bam.bai"},
    {"the index cannot be read to its end", "convert DIR/in.sam DIR/out.bam --index --exact",
     "read:4:5", "DIR/out.bam.bai: the index cannot be read: DIR/out.bam.bai"},
    {"the system reports late that the index was not stored",
     "convert DIR/in.sam DIR/out.bam --index", "close:3:28",
     "cannot write to DIR/out.bam.bai: No space left on device"},
    {"the same", "convert DIR/in.sam DIR/out.bam --index --exact", "close:4:28",
     "cannot write to DIR/out.bam.bai: No space left on device"},
    {"an index cannot be read", "dump-index DIR/sorted.bam.bai", "read:1:5+",
     "cannot read DIR/sorted.bam.bai: Input/output error"},
};

TEST_F(ToolFaults, Faults_OfOtherFilesThanInputAndOutput_AreNamed) {
    Place const place;
    Strings const old_outputs = place.outputs();
    std::string const folder = place.file("");
    for (MessageCase const& c : MESSAGES) {
        SCOPED_TRACE(c.label);
        std::string message = c.message;
        for (std::size_t at = 0; (at = message.find("DIR/", at)) != std::string::npos;) {
            message.replace(at, 4, folder);
        }
        expect_failure(run_with_faults(place.words(c.line), c.faults).result, 1, message);
        EXPECT_EQ(place.outputs(), old_outputs);
        place.expect_tidy();
    }
}

// --- Folders, and files that nobody may touch ------------------------------------

struct InputCase {
    char const* line;  // with FILE for the input
    char const* folder_message;
    char const* closed_message;
};
constexpr char const* CANNOT_READ = "cannot read FILE: Is a directory";
constexpr char const* CANNOT_OPEN = "cannot open FILE: Permission denied";
constexpr InputCase INPUTS[] = {
    {"convert FILE DIR/out.bam", CANNOT_READ, CANNOT_OPEN},
    {"convert FILE DIR/out.bam --index", CANNOT_READ, CANNOT_OPEN},
    {"convert FILE DIR/out.bam --exact --from sam", "Cannot open file FILE",
     "Cannot open file FILE"},
    {"convert FILE DIR/out.sam --exact --from bam", "Cannot open file FILE",
     "Cannot open file FILE"},
    {"view FILE", CANNOT_READ, CANNOT_OPEN},
    {"view FILE chr1", CANNOT_READ, CANNOT_OPEN},
    {"info FILE", CANNOT_READ, CANNOT_OPEN},
    {"info FILE --exact --from bam", "Cannot open file FILE", "Cannot open file FILE"},
    {"dump-index FILE", "Cannot open index file FILE", "Cannot open index file FILE"},
    {"report FILE DIR/out.html", CANNOT_READ, CANNOT_OPEN},
    {"import FILE DIR/out.bam", CANNOT_READ, CANNOT_OPEN},
    {"annotate FILE DIR/out.sam --exact", CANNOT_READ, CANNOT_OPEN},
};

std::string with_input(std::string line, std::string const& path) {
    return line.replace(line.find("FILE"), 4, path);
}

TEST(ToolFiles, InputIsAFolder_AnyCommand_IsAnError) {
    Place const place;
    Strings const outputs = place.outputs();
    std::string const folder = place.file("tmp");
    for (InputCase const& c : INPUTS) {
        SCOPED_TRACE(c.line);
        expect_failure(run_tool(place.words(with_input(c.line, "DIR/tmp"))), 1,
                       with_input(c.folder_message, folder));
        EXPECT_EQ(place.outputs(), outputs);
    }
    ProcessResult const verdict = run_tool({"validate", folder});
    EXPECT_EQ(verdict.exit_status, 1);
    EXPECT_NE(verdict.output.find("error: cannot read " + folder + ": Is a directory\n"),
              std::string::npos);
    place.expect_tidy();
}

// Runs the tool without the superuser's right to read and write everything; false
// where that is not possible.
bool run_without_rights(Strings arguments, ProcessResult& result) {
    std::string command = "exec \"$0\" \"$@\"";
    if (::geteuid() == 0) {
        command = "exec setpriv --bounding-set=-dac_override,-dac_read_search \"$0\" \"$@\"";
    }
    if (run_shell(command, {"--version"}).exit_status != 0) return false;
    result = run_shell(command, std::move(arguments));
    return true;
}

TEST(ToolFiles, InputWithoutRights_AnyCommand_IsAnError) {
    Place const place;
    Strings const outputs = place.outputs();
    std::string const closed = place.file("in.sam");
    std::filesystem::permissions(closed, std::filesystem::perms::none);
    ProcessResult result;
    for (InputCase const& c : INPUTS) {
        SCOPED_TRACE(c.line);
        if (!run_without_rights(place.words(with_input(c.line, "DIR/in.sam")), result)) {
            GTEST_SKIP() << "cannot run with fewer rights";
        }
        expect_failure(result, 1, with_input(c.closed_message, closed));
        EXPECT_EQ(place.outputs(), outputs);
    }
    ASSERT_TRUE(run_without_rights({"validate", closed}, result));
    EXPECT_EQ(result.exit_status, 1);
    EXPECT_NE(result.output.find("error: cannot open " + closed + ": Permission denied\n"),
              std::string::npos);
    // An index is not needed.
    std::string const bai = place.file("sorted.bam.bai");
    Strings const view = place.words("view DIR/sorted.bam chr1:1-200 --count");
    std::string const n = run_tool(view).output;
    std::filesystem::permissions(bai, std::filesystem::perms::none);
    ASSERT_TRUE(run_without_rights(view, result));
    EXPECT_EQ(result.exit_status, 0);
    EXPECT_EQ(result.output, n);
    EXPECT_EQ(result.errors, "tesk-bam: note: cannot open " + bai +
                                 ": Permission denied; the whole file is read instead\n");
    place.expect_tidy();
}

TEST(ToolFiles, FolderWithoutRights_ForWhateverIsWritten_IsAnErrorAndOldFilesStay) {
    Place const place;
    std::string const closed = place.file("tmp");
    std::filesystem::remove(place.file("out.bam.bai"));
    std::filesystem::create_symlink("tmp/index", place.file("out.bam.bai"));
    std::filesystem::permissions(closed, std::filesystem::perms(0555));
    struct {
        char const* line;
        std::string message;
    } const cases[] = {
        {"convert DIR/in.sam DIR/tmp/out.bam",
         "cannot create a file beside " + closed + "/out.bam: Permission denied"},
        {"import DIR/in.fastq DIR/tmp/out.sam --exact",
         "cannot create a file beside " + closed + "/out.sam: Permission denied"},
        {"convert DIR/in.sam DIR/out.bam --sort --tmp DIR/tmp",
         "cannot write a temporary file in " + closed + ": Permission denied"},
        {"convert DIR/in.sam DIR/out.bam --index",
         "cannot create a file beside " + closed + "/index: Permission denied"},
        {"convert DIR/in.sam DIR/out.bam --index --exact",
         "cannot create a file beside " + closed + "/index: Permission denied"},
    };
    ProcessResult result;
    for (auto const& c : cases) {
        SCOPED_TRACE(c.line);
        if (!run_without_rights(place.words(c.line), result)) {
            GTEST_SKIP() << "cannot run with fewer rights";
        }
        expect_failure(result, 1, c.message);
        EXPECT_EQ(read_file(place.file("out.bam")), "old contents");
        place.expect_tidy();
    }
}

// --- Pipes -----------------------------------------------------------------------

// What is written is more than a pipe holds.
TEST(ToolFiles, OutputFifoWhoseReaderGoes_SignalIgnored_IsAnError) {
    TempDir const dir;
    std::string const in = dir.write("in.sam", large_sam(3000, 100));
    std::string const fifo = make_fifo(dir, "out");
    std::string const command =
        "head -c 10 \"$2\" > /dev/null & trap '' PIPE; exec \"$0\" convert \"$1\" \"$2\" $3 $4 $5";
    expect_failure(run_shell(command, {in, fifo, "--to", "sam"}), 1,
                   "cannot write to " + fifo + ": Broken pipe");
    expect_failure(run_shell(command, {in, fifo, "--to", "bam"}), 1,
                   "cannot write to " + fifo + ": Broken pipe");
    expect_failure(run_shell(command, {in, fifo, "--to", "sam", "--exact"}), 1,
                   "cannot write to " + fifo + ": Broken pipe");
    expect_failure(run_shell(command, {in, fifo, "--to", "bam", "--exact"}), 1,
                   "BAM file reported error on close " + fifo);
    EXPECT_EQ(names_in(dir.path()), (Names{"in.sam", "out"}));
}

TEST(ToolFiles, InputFifoWhoseWriterGoes_BamIsCutShort_IsAnErrorAndOldFileStays) {
    TempDir const dir;
    std::string const whole = sample_bam();
    std::string const in = dir.write("in.bam", whole);
    std::string const fifo = make_fifo(dir, "in");
    std::string const out = dir.write("out.sam", "old file");
    std::string const command = "head -c $4 \"$1\" > \"$2\" & exec \"$0\" convert \"$2\" \"$3\"";
    for (std::size_t const n : {std::size_t{1}, whole.size() / 2, whole.size() - 28}) {
        SCOPED_TRACE(n);
        ProcessResult const result = run_shell(command, {in, fifo, out, std::to_string(n)});
        EXPECT_EQ(result.exit_status, 1);
        EXPECT_EQ(result.errors.rfind("tesk-bam: " + fifo + ": ", 0), 0U) << result.errors;
        EXPECT_EQ(read_file(out), "old file");
    }
    expect_done(run_shell(command, {in, fifo, out, std::to_string(whole.size())}));
    EXPECT_EQ(read_file(out), sample_sam());
    EXPECT_EQ(names_in(dir.path()), (Names{"in", "in.bam", "out.sam"}));
}

}  // namespace
