// Sorting by coordinate, in memory and beyond it. The linker sends the library's
// calls of open(), write(), pread() and mmap() here (--wrap), where they are counted
// and can be told to fail.

#include "interop/coordinate_sorter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bam_encoder.h"
#include "tests/support/temp_file.h"

namespace {

// What calls of the system do, as long as a SystemScope lives.
struct System {
    bool has_unnamed_files = true;        // else open() refuses O_TMPFILE
    int write_error = 0;                  // of every write(), where not 0
    int read_error = 0;                   // of every pread(), where not 0
    bool reads_nothing = false;           // pread() is at the file's end
    bool reads_other_bytes = false;       // pread() gives bytes 0xFF
    bool is_slow = false;                 // few bytes at a time, every other call interrupted
    std::size_t memory_limit = SIZE_MAX;  // mmap() refuses more

    int n_unnamed_files = 0;       // opened
    std::size_t largest_mmap = 0;  // that succeeded
    bool interrupts_next = false;
};

System* present_system = nullptr;

class SystemScope {
public:
    SystemScope() { present_system = &system; }
    ~SystemScope() { present_system = nullptr; }
    SystemScope(SystemScope const&) = delete;
    SystemScope& operator=(SystemScope const&) = delete;

    System system;
};

bool is_interrupted() {
    if (!present_system->is_slow) return false;
    present_system->interrupts_next = !present_system->interrupts_next;
    errno = EINTR;
    return present_system->interrupts_next;
}

std::size_t cut_size(std::size_t n) {
    constexpr std::size_t FEW_BYTES = 700;
    return present_system->is_slow ? std::min(n, FEW_BYTES) : n;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker prescribes these names
extern "C" {

int __real_open(char const* path, int flags, mode_t mode);
ssize_t __real_write(int fd, void const* bytes, std::size_t n);
ssize_t __real_pread(int fd, void* place, std::size_t n, off_t offset);
void* __real_mmap(void* place, std::size_t n, int protection, int flags, int fd, off_t offset);

int __wrap_open(char const* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (present_system != nullptr && (flags & O_TMPFILE) == O_TMPFILE) {
        ++present_system->n_unnamed_files;
        if (!present_system->has_unnamed_files) {
            errno = EOPNOTSUPP;
            return -1;
        }
    }
    return __real_open(path, flags, mode);
}

ssize_t __wrap_write(int fd, void const* bytes, std::size_t n) {
    if (present_system == nullptr) return __real_write(fd, bytes, n);
    if (is_interrupted()) return -1;
    errno = present_system->write_error;
    if (errno != 0) return -1;
    return __real_write(fd, bytes, cut_size(n));
}

ssize_t __wrap_pread(int fd, void* place, std::size_t n, off_t offset) {
    if (present_system == nullptr) return __real_pread(fd, place, n, offset);
    if (is_interrupted()) return -1;
    errno = present_system->read_error;
    if (errno != 0) return -1;
    if (present_system->reads_nothing) return 0;
    ssize_t const got = __real_pread(fd, place, cut_size(n), offset);
    if (present_system->reads_other_bytes) std::fill_n(static_cast<char*>(place), got, '\xFF');
    return got;
}

void* __wrap_mmap(void* place, std::size_t n, int protection, int flags, int fd, off_t offset) {
    if (present_system != nullptr && n > present_system->memory_limit) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    void* const memory = __real_mmap(place, n, protection, flags, fd, offset);
    if (present_system != nullptr && memory != MAP_FAILED) {
        present_system->largest_mmap = std::max(present_system->largest_mmap, n);
    }
    return memory;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using tesk::interop::CoordinateSorter;
using tesk::interop::RecordBatch;
using tesk::interop::RecordView;
using tesk::interop::SorterOptions;
using tesk::test::RawBamRecord;
using tesk::test::TempDir;

constexpr std::size_t PAGE_BYTES = 4096;
constexpr std::size_t KEY_BYTES = 16;
constexpr char const* NO_FOLDER = "/no/such/folder";

// A record whose name tells it from others.
RawBamRecord record_at(std::int32_t refID, std::int32_t pos, std::string name) {
    RawBamRecord record;
    record.refID = refID;
    record.pos = pos;
    record.read_name = std::move(name);
    return record;
}

// The same with so many bytes in all.
RawBamRecord record_of_size(std::int32_t pos, std::string name, std::size_t n_bytes) {
    RawBamRecord record = record_at(0, pos, std::move(name));
    record.aux = tesk::test::bam_aux("XZ", 'Z', std::string(1, '\0'));
    std::string const filling(n_bytes - record.bytes().size(), 'x');
    record.aux = tesk::test::bam_aux("XZ", 'Z', filling + '\0');
    return record;
}

RecordBatch batch_of(std::vector<RawBamRecord> const& records) {
    RecordBatch batch;
    for (RawBamRecord const& record : records) batch.records.append(record.bytes());
    batch.n_records = records.size();
    return batch;
}

std::string joined(std::vector<RawBamRecord> const& records) {
    std::string bytes;
    for (RawBamRecord const& record : records) bytes += record.bytes();
    return bytes;
}

// Field by field, as one would say it.
bool comes_before(RawBamRecord const& a, RawBamRecord const& b) {
    bool const a_is_placed = a.refID != -1;
    bool const b_is_placed = b.refID != -1;
    if (a_is_placed != b_is_placed) return a_is_placed;
    if (a.refID != b.refID) return a.refID < b.refID;
    return a.pos < b.pos;
}

std::vector<RawBamRecord> sorted(std::vector<RawBamRecord> records) {
    std::stable_sort(records.begin(), records.end(), comes_before);
    return records;
}

// Records of many sizes, with as many equal coordinates as unequal ones.
std::vector<RawBamRecord> random_records(std::size_t n, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<RawBamRecord> records;
    for (std::size_t i = 0; i < n; ++i) {
        auto const refID = static_cast<std::int32_t>(random() % 4) - 1;
        auto const pos = static_cast<std::int32_t>(random() % (n / 8 + 2)) - 1;
        records.push_back(record_at(refID, pos, "r" + std::to_string(i)));
        records.back().aux = std::string(random() % 300, 'x');
    }
    return records;
}

// Adds records, some at a time.
bool add_all(CoordinateSorter& sorter, std::vector<RawBamRecord> const& records) {
    constexpr std::size_t N_AT_A_TIME = 100;
    for (std::size_t i = 0; i < records.size(); i += N_AT_A_TIME) {
        RecordBatch batch;
        for (std::size_t k = i; k < std::min(i + N_AT_A_TIME, records.size()); ++k) {
            batch.records.append(records[k].bytes());
            ++batch.n_records;
        }
        if (!sorter.add(batch)) return false;
    }
    return true;
}

bool drain_to(CoordinateSorter& sorter, std::string& bytes) {
    return sorter.drain([&](RecordView record) {
        bytes.append(record.bytes(), record.size());
        return true;
    });
}

std::string drained(CoordinateSorter& sorter) {
    std::string bytes;
    EXPECT_TRUE(drain_to(sorter, bytes)) << sorter.error_message;
    return bytes;
}

SorterOptions options_of(std::size_t memory_bytes, std::string folder) {
    SorterOptions options;
    options.memory_bytes = memory_bytes;
    options.folder = std::move(folder);
    return options;
}

// --- Order -----------------------------------------------------------------

TEST(CoordinateSorter, Drain_NothingAdded_TakesNothing) {
    CoordinateSorter sorter(options_of(PAGE_BYTES, NO_FOLDER));
    EXPECT_EQ(drained(sorter), "");
    EXPECT_EQ(sorter.n_records(), 0U);
    EXPECT_EQ(sorter.n_runs(), 0U);
}

TEST(CoordinateSorter, Drain_EmptyBatchAdded_TakesNothing) {
    CoordinateSorter sorter(options_of(PAGE_BYTES, NO_FOLDER));
    EXPECT_TRUE(sorter.add(RecordBatch()));
    EXPECT_EQ(drained(sorter), "");
    EXPECT_EQ(sorter.n_records(), 0U);
}

TEST(CoordinateSorter, Drain_OneRecord_IsThatRecord) {
    std::vector<RawBamRecord> const records = {record_at(3, 17, "only")};
    CoordinateSorter sorter(options_of(PAGE_BYTES, NO_FOLDER));
    ASSERT_TRUE(sorter.add(batch_of(records))) << sorter.error_message;
    EXPECT_EQ(sorter.n_records(), 1U);
    EXPECT_EQ(drained(sorter), joined(records));
}

TEST(CoordinateSorter, Drain_EveryKindOfPlace_ComesInCoordinateOrder) {
    constexpr std::int32_t MAX = 2147483647;
    std::vector<RawBamRecord> const in_order = {
        record_at(0, -1, "a"),  record_at(0, 0, "b"),     record_at(0, MAX, "c"),
        record_at(1, -1, "d"),  record_at(1, -1, "e"),    record_at(1, 5, "f"),
        record_at(256, 0, "g"), record_at(MAX, MAX, "h"), record_at(-1, -1, "i"),
        record_at(-1, -1, "j"), record_at(-1, 0, "k"),    record_at(-1, MAX, "l"),
    };
    std::vector<RawBamRecord> mixed = in_order;
    std::reverse(mixed.begin(), mixed.end());
    std::swap(mixed[2], mixed[3]);  // "i" before "j" again
    std::swap(mixed[7], mixed[8]);  // "d" before "e"
    for (std::vector<RawBamRecord> const& records : {in_order, mixed}) {
        CoordinateSorter sorter(options_of(PAGE_BYTES, NO_FOLDER));
        ASSERT_TRUE(sorter.add(batch_of(records))) << sorter.error_message;
        EXPECT_EQ(drained(sorter), joined(in_order));
    }
}

struct AmountCase {
    const char* label;
    std::size_t n_records;
    std::size_t memory_bytes;
    std::size_t least_runs;
    std::size_t most_runs;
    // One, and one more for each pass before the last: a share of 64 KiB for each run
    // in the memory says how many runs a pass merges into one, two at least.
    int n_files;
};
constexpr AmountCase AMOUNT_CASES[] = {
    {"fits", 20000, std::size_t{8} << 20, 0, 0, 0},
    {"two runs", 20000, std::size_t{3} << 20, 2, 2, 1},
    {"over 20 runs, by two", 20000, std::size_t{180} << 10, 20, 30, 5},
    {"over 20 runs at once", 150000, std::size_t{1500} << 10, 20, 22, 1},
    {"no memory at all", 3000, 0, 130, 250, 8},
    {"thousands of runs", 40000, PAGE_BYTES, 2050, 4000, 12},
};

TEST(CoordinateSorter, Drain_RandomRecords_EqualsStableSort) {
    for (AmountCase const& c : AMOUNT_CASES) {
        SCOPED_TRACE(c.label);
        std::vector<RawBamRecord> const records = random_records(c.n_records, 1);
        TempDir const folder;
        SystemScope const scope;
        CoordinateSorter sorter(options_of(c.memory_bytes, folder.path()));
        ASSERT_TRUE(add_all(sorter, records)) << sorter.error_message;
        EXPECT_TRUE(drained(sorter) == joined(sorted(records)));
        EXPECT_EQ(sorter.n_records(), c.n_records);
        EXPECT_GE(sorter.n_runs(), c.least_runs);
        EXPECT_LE(sorter.n_runs(), c.most_runs);
        EXPECT_EQ(scope.system.n_unnamed_files, c.n_files);
    }
}

TEST(CoordinateSorter, Drain_RecordsInOrderAlready_KeepsThem) {
    std::vector<RawBamRecord> const records = sorted(random_records(2000, 2));
    for (std::size_t const memory_bytes : {std::size_t{1} << 20, std::size_t{64} << 10}) {
        TempDir const folder;
        CoordinateSorter sorter(options_of(memory_bytes, folder.path()));
        ASSERT_TRUE(add_all(sorter, records)) << sorter.error_message;
        EXPECT_TRUE(drained(sorter) == joined(records));
    }
}

TEST(CoordinateSorter, Drain_EqualCoordinatesAcrossRuns_KeepTheirOrder) {
    std::vector<RawBamRecord> records;
    for (int i = 0; i < 3000; ++i) records.push_back(record_at(1, 7, "r" + std::to_string(i)));
    TempDir const folder;
    CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
    ASSERT_TRUE(add_all(sorter, records)) << sorter.error_message;
    EXPECT_TRUE(drained(sorter) == joined(records));
    EXPECT_GE(sorter.n_runs(), 40U);
}

// --- Memory ----------------------------------------------------------------

struct FillCase {
    const char* label;
    std::size_t last_record_bytes;
    std::size_t n_runs;
};
constexpr FillCase FILL_CASES[] = {
    {"one byte is left", 1007, 0},
    {"exactly full", 1008, 0},
    {"one byte too many", 1009, 1},
};

TEST(CoordinateSorter, Add_MemoryAlmostFull_SpillsOnlyWhatDoesNotFit) {
    constexpr std::size_t N_RECORDS = 4;
    for (FillCase const& c : FILL_CASES) {
        SCOPED_TRACE(c.label);
        std::vector<RawBamRecord> records;
        for (std::size_t i = 0; i < N_RECORDS; ++i) {
            std::size_t const n_bytes =
                i + 1 < N_RECORDS ? PAGE_BYTES / N_RECORDS - KEY_BYTES : c.last_record_bytes;
            records.push_back(record_of_size(9 - static_cast<std::int32_t>(i), "r", n_bytes));
            ASSERT_EQ(records.back().bytes().size(), n_bytes);
        }
        TempDir const folder;
        CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
        ASSERT_TRUE(sorter.add(batch_of(records))) << sorter.error_message;
        EXPECT_EQ(sorter.n_runs(), c.n_runs);
        EXPECT_EQ(drained(sorter), joined(sorted(records)));
    }
}

struct LargeCase {
    const char* label;
    std::vector<std::size_t> sizes;  // of the records, which come in falling order
};

TEST(CoordinateSorter, Add_RecordLargerThanMemory_IsSortedLikeOthers) {
    std::vector<LargeCase> const cases = {
        {"just fits", {PAGE_BYTES - KEY_BYTES}},
        {"a byte too large", {PAGE_BYTES - KEY_BYTES + 1}},
        {"alone", {3000000}},
        {"first", {3000000, 100, 200}},
        {"between others", {100, 200, 3000000, 300, 400}},
        {"last", {100, 200, 3000000}},
        {"many", {70000, 100, 3000000, 500000, 100, 70000, 70000, 1000000, 262144, 262143}},
    };
    for (LargeCase const& c : cases) {
        SCOPED_TRACE(c.label);
        std::vector<RawBamRecord> records;
        for (std::size_t const size : c.sizes) {
            auto const n = static_cast<std::int32_t>(records.size());
            records.push_back(record_of_size(100 - n, "r" + std::to_string(n), size));
        }
        TempDir const folder;
        CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
        ASSERT_TRUE(sorter.add(batch_of(records))) << sorter.error_message;
        EXPECT_EQ(sorter.n_records(), records.size());
        EXPECT_TRUE(drained(sorter) == joined(sorted(records)));
    }
}

TEST(CoordinateSorter, Drain_ManyRunsToMerge_TakesNoMoreMemory) {
    constexpr std::size_t MEMORY_BYTES = std::size_t{300} << 10;
    TempDir const folder;
    SystemScope const scope;
    std::vector<RawBamRecord> const records = random_records(40000, 3);
    CoordinateSorter sorter(options_of(MEMORY_BYTES, folder.path()));
    ASSERT_TRUE(add_all(sorter, records)) << sorter.error_message;
    EXPECT_TRUE(drained(sorter) == joined(sorted(records)));
    EXPECT_GE(sorter.n_runs(), 20U);
    EXPECT_EQ(scope.system.largest_mmap, MEMORY_BYTES);
}

TEST(CoordinateSorter, Add_SystemHasLessMemory_MakesDoWithIt) {
    SystemScope scope;
    scope.system.memory_limit = std::size_t{1} << 20;
    TempDir const folder;
    std::vector<RawBamRecord> const records = random_records(10000, 4);
    CoordinateSorter sorter(options_of(std::size_t{64} << 20, folder.path()));
    ASSERT_TRUE(add_all(sorter, records)) << sorter.error_message;
    EXPECT_TRUE(drained(sorter) == joined(sorted(records)));
    EXPECT_EQ(scope.system.largest_mmap, std::size_t{1} << 20);
    EXPECT_GE(sorter.n_runs(), 2U);
}

TEST(CoordinateSorter, Add_SystemHasNoMemory_Fails) {
    SystemScope scope;
    scope.system.memory_limit = 0;
    CoordinateSorter sorter(options_of(std::size_t{1} << 20, NO_FOLDER));
    EXPECT_FALSE(sorter.add(batch_of({record_of_size(1, "r", 1234)})));
    EXPECT_EQ(sorter.error_message, "not enough memory for a record of 1234 bytes");
}

TEST(CoordinateSorter, Drain_NoMemoryToMergeHugeRecord_Fails) {
    TempDir const folder;
    SystemScope scope;
    CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
    ASSERT_TRUE(sorter.add(batch_of({record_of_size(2, "a", 99), record_of_size(1, "b", 123456)})));
    scope.system.memory_limit = 100000;
    std::string bytes;
    EXPECT_FALSE(drain_to(sorter, bytes));
    EXPECT_EQ(sorter.error_message, "not enough memory for a record of 123456 bytes");
    EXPECT_EQ(bytes, "");
}

// --- Handing out -----------------------------------------------------------

TEST(CoordinateSorter, Drain_TakeReturnsFalse_StopsWithoutMessage) {
    std::vector<RawBamRecord> const records = random_records(500, 5);
    // In memory, merging at once, and in a first pass.
    for (std::size_t const memory_bytes :
         {std::size_t{1} << 20, std::size_t{70} << 10, PAGE_BYTES}) {
        TempDir const folder;
        CoordinateSorter sorter(options_of(memory_bytes, folder.path()));
        ASSERT_TRUE(add_all(sorter, records)) << sorter.error_message;
        std::string bytes;
        int n_taken = 0;
        EXPECT_FALSE(sorter.drain([&](RecordView record) {
            bytes.append(record.bytes(), record.size());
            return ++n_taken < 3;
        }));
        EXPECT_EQ(sorter.error_message, "");
        std::vector<RawBamRecord> first = sorted(records);
        first.resize(3);
        EXPECT_EQ(bytes, joined(first));
    }
}

// An operation of a CIGAR, by its place in "MIDNSHP=X".
std::uint32_t operation(std::uint32_t length, std::uint32_t code) { return length << 4 | code; }

TEST(CoordinateSorter, MaxEnd_Records_IsOfTheOneThatEndsLast) {
    RawBamRecord spliced = record_at(1, 100, "spliced");  // 10M1000N5I3D20S: ends at 1113
    spliced.cigar = {operation(10, 0), operation(1000, 3), operation(5, 1), operation(3, 2),
                     operation(20, 4)};
    RawBamRecord same_end = record_at(0, 1012, "same_end");
    same_end.cigar = {operation(101, 7)};
    std::vector<RawBamRecord> const records = {record_at(0, 500, "before"), spliced, same_end,
                                               record_at(0, 1111, "shorter"),
                                               record_at(-1, 5000, "no_reference")};

    CoordinateSorter sorter(options_of(PAGE_BYTES, NO_FOLDER));
    EXPECT_EQ(sorter.max_end(), 0);
    EXPECT_EQ(sorter.max_end_name(), "");
    ASSERT_TRUE(sorter.add(batch_of(records)));
    EXPECT_EQ(sorter.max_end(), 1113);
    EXPECT_EQ(sorter.max_end_name(), "spliced");
    ASSERT_TRUE(sorter.add(batch_of({record_at(0, 1113, "last")})));
    EXPECT_EQ(sorter.max_end(), 1114);
    EXPECT_EQ(sorter.max_end_name(), "last");
}

// --- The temporary file ----------------------------------------------------

TEST(CoordinateSorter, Add_FolderMissing_FailsWhereItIsNeeded) {
    std::vector<RawBamRecord> const records = random_records(1000, 6);
    CoordinateSorter sorter(options_of(PAGE_BYTES, NO_FOLDER));
    EXPECT_TRUE(sorter.add(batch_of({records[0]})));
    EXPECT_FALSE(add_all(sorter, records));
    EXPECT_EQ(sorter.error_message,
              "cannot write a temporary file in /no/such/folder: No such file or directory");
}

TEST(CoordinateSorter, Spill_AnyTime_LeavesNothingInTheFolder) {
    for (bool const has_unnamed_files : {true, false}) {
        SCOPED_TRACE(has_unnamed_files);
        TempDir const folder;
        SystemScope scope;
        scope.system.has_unnamed_files = has_unnamed_files;
        std::vector<RawBamRecord> const records = random_records(3000, 7);
        CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
        for (RawBamRecord const& record : records) {
            ASSERT_TRUE(sorter.add(batch_of({record}))) << sorter.error_message;
            ASSERT_TRUE(std::filesystem::is_empty(folder.path()));
        }
        EXPECT_GE(sorter.n_runs(), 100U);
        std::string bytes;
        EXPECT_TRUE(sorter.drain([&](RecordView record) {
            bytes.append(record.bytes(), record.size());
            return std::filesystem::is_empty(folder.path());
        })) << sorter.error_message;
        EXPECT_TRUE(bytes == joined(sorted(records)));
        EXPECT_GE(scope.system.n_unnamed_files, 2);
    }
}

// The following two are for processes of their own.

void spill_until_killed(std::string const& folder) {
    std::vector<RawBamRecord> const records = random_records(1000, 8);
    CoordinateSorter sorter(options_of(PAGE_BYTES, folder));
    while (sorter.n_runs() < 10 && add_all(sorter, records)) {
    }
    if (sorter.n_runs() >= 10) raise(SIGKILL);
}

void spill_beyond_limit(std::string const& folder) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit const limit = {50000, 50000};
    setrlimit(RLIMIT_FSIZE, &limit);
    CoordinateSorter sorter(options_of(PAGE_BYTES, folder));
    bool const fails = !add_all(sorter, random_records(1000, 9));
    bool const says_why =
        sorter.error_message == "cannot write a temporary file in " + folder + ": File too large";
    _exit(fails && says_why && sorter.n_runs() > 5 && std::filesystem::is_empty(folder) ? 0 : 1);
}

TEST(CoordinateSorter, Spill_ProcessKilled_LeavesNothingInTheFolder) {
    TempDir const folder;
    EXPECT_EXIT(spill_until_killed(folder.path()), testing::KilledBySignal(SIGKILL), "");
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(CoordinateSorter, Spill_FileSizeLimit_FailsAndLeavesNothing) {
    TempDir const folder;
    EXPECT_EXIT(spill_beyond_limit(folder.path()), testing::ExitedWithCode(0), "");
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(CoordinateSorter, Spill_DiskFull_Fails) {
    TempDir const folder;
    SystemScope scope;
    scope.system.write_error = ENOSPC;
    CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
    EXPECT_FALSE(add_all(sorter, random_records(100, 10)));
    EXPECT_EQ(sorter.error_message, "cannot write a temporary file in " + folder.path().string() +
                                        ": No space left on device");
}

// Even where there is room again: a record is lost.
TEST(CoordinateSorter, Drain_AfterAFailure_FailsToo) {
    TempDir const folder;
    SystemScope scope;
    scope.system.write_error = ENOSPC;
    CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
    EXPECT_FALSE(add_all(sorter, random_records(100, 10)));
    scope.system.write_error = 0;
    std::string const message = sorter.error_message;
    std::string bytes;
    EXPECT_FALSE(drain_to(sorter, bytes));
    EXPECT_EQ(sorter.error_message, message);
    EXPECT_EQ(bytes, "");
}

TEST(CoordinateSorter, Drain_DiskFull_Fails) {
    // In the first of several passes.
    TempDir const folder;
    SystemScope scope;
    CoordinateSorter sorter(options_of(PAGE_BYTES, folder.path()));
    ASSERT_TRUE(add_all(sorter, random_records(2000, 11))) << sorter.error_message;
    // Goes beyond the memory and spills, so that nothing is left but to merge.
    ASSERT_TRUE(sorter.add(batch_of({record_of_size(1, "r", PAGE_BYTES)})));
    scope.system.write_error = ENOSPC;
    std::string bytes;
    EXPECT_FALSE(drain_to(sorter, bytes));
    EXPECT_EQ(sorter.error_message, "cannot write a temporary file in " + folder.path().string() +
                                        ": No space left on device");
    EXPECT_EQ(bytes, "");
}

struct ReadFaultCase {
    const char* label;
    std::size_t memory_bytes;
    int read_error;
    bool reads_nothing;
    bool reads_other_bytes;
    const char* reason;
};
constexpr ReadFaultCase READ_FAULT_CASES[] = {
    {"error", 100000, EIO, false, false, "Input/output error"},
    {"error in a first pass", PAGE_BYTES, EIO, false, false, "Input/output error"},
    {"end of file", 100000, 0, true, false, "it ends too early"},
    {"other bytes", 100000, 0, false, true, "its contents have changed"},
};

TEST(CoordinateSorter, Drain_FileCannotBeRead_Fails) {
    for (ReadFaultCase const& c : READ_FAULT_CASES) {
        SCOPED_TRACE(c.label);
        TempDir const folder;
        SystemScope scope;
        CoordinateSorter sorter(options_of(c.memory_bytes, folder.path()));
        ASSERT_TRUE(add_all(sorter, random_records(1000, 12))) << sorter.error_message;
        scope.system.read_error = c.read_error;
        scope.system.reads_nothing = c.reads_nothing;
        scope.system.reads_other_bytes = c.reads_other_bytes;
        std::string bytes;
        EXPECT_FALSE(drain_to(sorter, bytes));
        EXPECT_EQ(sorter.error_message,
                  "cannot read a temporary file in " + folder.path().string() + ": " + c.reason);
        EXPECT_EQ(bytes, "");
    }
}

TEST(CoordinateSorter, Drain_SlowInterruptedSystem_LosesNothing) {
    TempDir const folder;
    SystemScope scope;
    scope.system.is_slow = true;
    std::vector<RawBamRecord> const records = random_records(5000, 13);
    CoordinateSorter sorter(options_of(std::size_t{150} << 10, folder.path()));
    ASSERT_TRUE(add_all(sorter, records)) << sorter.error_message;
    EXPECT_TRUE(drained(sorter) == joined(sorted(records)));
    EXPECT_GE(sorter.n_runs(), 5U);
}

}  // namespace
