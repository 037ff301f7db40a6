#include "interop/coordinate_sorter.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

// Records are collected in an arena. Where it cannot take one more, its records are
// sorted and appended to a temporary file as a run, and the arena starts anew. In
// the end, what fitted the arena is handed out from there; otherwise the last
// records become a run, too, and the arena turns into reading buffers from which
// the runs are merged. Where they are too many for this, several runs at a time
// are merged into one of a second file first.

namespace tesk::interop {

namespace {

constexpr std::size_t PAGE_BYTES = 4096;
// A run is read in pieces of at least this size, so that seeking costs little.
constexpr std::size_t MIN_SHARE_BYTES = std::size_t{64} << 10;
// Larger pieces gain nothing, and leave the processor's caches earlier.
constexpr std::size_t MAX_SHARE_BYTES = std::size_t{4} << 20;
constexpr std::size_t WRITE_BUFFER_BYTES = std::size_t{256} << 10;

// A number that grows in coordinate order: as unsigned, refID -1 comes last; with
// its sign bit flipped, pos -1 comes first.
std::uint64_t order_of(RecordView record) {
    constexpr std::uint32_t SIGN_BIT = 0x80000000U;
    std::uint64_t const refID = static_cast<std::uint32_t>(record.refID());
    return refID << 32 | (static_cast<std::uint32_t>(record.pos()) ^ SIGN_BIT);
}

// ---------------------------------------------------------------------------
// The arena
// ---------------------------------------------------------------------------

// Where a record of the arena is. Offsets grow in the order of arrival and are
// unique, so that any sort of keys is stable.
struct Key {
    std::uint64_t order;
    std::uint64_t offset;

    bool operator<(Key const& other) const {
        return order != other.order ? order < other.order : offset < other.offset;
    }
};

// Memory of a fixed size, of which only what is used takes up any. Records grow from
// its front, their keys from its end downwards: the first key is the last in memory.
class Arena {
public:
    Arena() = default;
    ~Arena() { unmap(); }
    Arena(Arena const&) = delete;
    Arena& operator=(Arena const&) = delete;

    // Replaces the memory by as much as the system gives, at least one number of
    // bytes and at most another one.
    bool map(std::size_t least, std::size_t most);

    char* data() { return data_; }
    std::size_t size() const { return size_; }
    bool empty() const { return n_bytes_ == 0; }
    bool is_in_order() const { return is_in_order_; }
    std::size_t largest_record() const { return largest_record_; }
    std::string_view records() const { return {data_, n_bytes_}; }

    // Bytes of an arena that can take one record.
    static std::size_t size_for(std::size_t record_bytes) { return record_bytes + sizeof(Key); }

    // Copies a record of `n` bytes; false where there is no room.
    bool append(RecordView record, std::size_t n);
    void clear();

    // Orders the keys, not the records.
    void sort();
    // Calls `take` with each record in the order of the keys while it returns true.
    template <typename Take>
    bool visit(Take const& take) const;

private:
    void unmap();
    Key* keys_end() const { return reinterpret_cast<Key*>(data_ + size_); }

    char* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t n_bytes_ = 0;
    std::size_t largest_record_ = 0;
    Key* last_key_ = nullptr;  // the lowest in memory
    bool is_in_order_ = true;
};

bool Arena::map(std::size_t least, std::size_t most) {
    unmap();
    for (std::size_t wanted = std::max(least, most); wanted >= least; wanted /= 2) {
        if (wanted > SIZE_MAX - PAGE_BYTES) continue;
        std::size_t const n = (wanted + PAGE_BYTES - 1) / PAGE_BYTES * PAGE_BYTES;
        void* const place = mmap(nullptr, n, PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (place == MAP_FAILED) continue;
        // Records are visited out of order, and small pages make that slow. Systems
        // without large ones refuse, which does no harm.
        madvise(place, n, MADV_HUGEPAGE);
        data_ = static_cast<char*>(place);
        size_ = n;
        clear();
        return true;
    }
    return false;
}

void Arena::unmap() {
    if (data_ != nullptr) munmap(data_, size_);
    data_ = nullptr;
    size_ = 0;
}

bool Arena::append(RecordView record, std::size_t n) {
    std::size_t const n_keys_bytes = static_cast<std::size_t>(keys_end() - last_key_) * sizeof(Key);
    if (size_for(n) > size_ - n_bytes_ - n_keys_bytes) return false;
    Key const key{order_of(record), n_bytes_};
    is_in_order_ = is_in_order_ && (last_key_ == keys_end() || last_key_->order <= key.order);
    last_key_ = new (last_key_ - 1) Key(key);
    std::memcpy(data_ + n_bytes_, record.bytes(), n);
    n_bytes_ += n;
    largest_record_ = std::max(largest_record_, n);
    return true;
}

void Arena::clear() {
    n_bytes_ = 0;
    largest_record_ = 0;
    last_key_ = keys_end();
    is_in_order_ = true;
}

void Arena::sort() {
    if (is_in_order_) return;
    std::sort(std::make_reverse_iterator(keys_end()), std::make_reverse_iterator(last_key_));
}

template <typename Take>
bool Arena::visit(Take const& take) const {
    // The next records are seldom neighbours: they are fetched while others are used.
    constexpr std::ptrdiff_t N_AHEAD = 8;
    constexpr std::size_t CACHE_LINE_BYTES = 64;
    for (Key const* key = keys_end(); key != last_key_;) {
        --key;
        if (!is_in_order_ && key - last_key_ >= N_AHEAD) {
            char const* const ahead = data_ + (key - N_AHEAD)->offset;
            for (std::size_t line = 0; line < 4; ++line) {
                __builtin_prefetch(ahead + line * CACHE_LINE_BYTES);
            }
        }
        if (!take(RecordView(data_ + key->offset))) return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// The temporary file
// ---------------------------------------------------------------------------

// Makes a file without a name in a folder; -1 and errno where that fails.
int open_unnamed(std::string const& folder) {
    int const fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) return fd;
    // Not every file system can do that. Signals wait until the name is gone again.
    std::string path = folder + "/tesk-bam-XXXXXX";
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    int const named_fd = mkostemp(path.data(), O_CLOEXEC);
    int const error = errno;
    if (named_fd >= 0) unlink(path.c_str());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return named_fd;
}

// A file without a name, written at its end and read anywhere.
class TempFile {
public:
    explicit TempFile(std::string folder) : folder_(std::move(folder)) {}
    ~TempFile() {
        if (fd_ >= 0) close(fd_);
    }
    TempFile(TempFile const&) = delete;
    TempFile& operator=(TempFile const&) = delete;

    std::string error_message;

    std::uint64_t size() const { return size_; }
    // Creates the file on the first call.
    bool append(std::string_view bytes);
    bool read(std::uint64_t offset, char* place, std::size_t n);
    bool fail_to_read(std::string const& reason) {
        error_message = "cannot read a temporary file in " + folder_ + ": " + reason;
        return false;
    }

private:
    bool fail_to_write(int code) {
        error_message = "cannot write a temporary file in " + folder_ + ": " +
                        std::generic_category().message(code);
        return false;
    }

    std::string folder_;
    int fd_ = -1;
    std::uint64_t size_ = 0;
};

bool TempFile::append(std::string_view bytes) {
    if (fd_ < 0 && (fd_ = open_unnamed(folder_)) < 0) return fail_to_write(errno);
    while (!bytes.empty()) {
        ssize_t const n = write(fd_, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return fail_to_write(n < 0 ? errno : EIO);
        bytes.remove_prefix(static_cast<std::size_t>(n));
        size_ += static_cast<std::uint64_t>(n);
    }
    return true;
}

bool TempFile::read(std::uint64_t offset, char* place, std::size_t n) {
    while (n > 0) {
        ssize_t const got = pread(fd_, place, n, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return fail_to_read(std::generic_category().message(errno));
        if (got == 0) return fail_to_read("it ends too early");
        place += got;
        offset += static_cast<std::uint64_t>(got);
        n -= static_cast<std::size_t>(got);
    }
    return true;
}

// Appends records to a file, many at a time.
class RecordWriter {
public:
    explicit RecordWriter(TempFile& file) : file_(file) {}

    bool write(RecordView record) {
        std::string_view const bytes(record.bytes(), record.size());
        if (bytes.size() >= WRITE_BUFFER_BYTES) return flush() && file_.append(bytes);
        buffer_.append(bytes);
        return buffer_.size() < WRITE_BUFFER_BYTES || flush();
    }
    bool flush() {
        bool const is_written = file_.append(buffer_.view());
        buffer_.clear();
        return is_written;
    }

private:
    TempFile& file_;
    ByteBuffer buffer_;
};

// ---------------------------------------------------------------------------
// Merging
// ---------------------------------------------------------------------------

// Sorted records in the temporary file.
struct Run {
    std::uint64_t beg = 0;
    std::uint64_t end = 0;
    std::size_t largest_record = 0;

    // The least memory to read it with: any of its records fits.
    std::size_t min_buffer() const {
        std::uint64_t const wanted = std::max(MIN_SHARE_BYTES, largest_record);
        return static_cast<std::size_t>(std::min(wanted, end - beg));
    }
};
using Runs = std::vector<Run>;
using RunIterator = Runs::const_iterator;

std::size_t min_buffers(RunIterator run, RunIterator end) {
    std::size_t sum = 0;
    for (; run != end; ++run) sum += run->min_buffer();
    return sum;
}

// Where the group of runs ends that begins at `run` and can be merged at once with
// so much memory: two of them at least, or merging would lead nowhere.
RunIterator end_of_group(RunIterator run, RunIterator end, std::size_t memory_bytes) {
    std::size_t sum = 0;
    for (std::size_t n = 0; run != end; ++run, ++n) {
        sum += run->min_buffer();
        if (n >= 2 && sum > memory_bytes) break;
    }
    return run;
}

// Reads the records of one run.
class RunReader {
public:
    // `buffer` holds the largest record at least.
    RunReader(TempFile& file, Run const& run, char* buffer, std::size_t capacity)
        : file_(&file), offset_(run.beg), end_(run.end), buffer_(buffer), capacity_(capacity) {}

    // Goes to the next record, which is_at_end() says there is none of.
    bool advance();
    bool is_at_end() const { return size_ == 0; }
    RecordView record() const { return RecordView(buffer_ + at_); }

private:
    bool holds_record() const {
        return filled_ - at_ >= sizeof(std::uint32_t) && record().size() <= filled_ - at_;
    }
    bool refill();

    TempFile* file_;
    std::uint64_t offset_;  // of what is to be read next
    std::uint64_t end_;
    char* buffer_;
    std::size_t capacity_;
    std::size_t at_ = 0;      // the present record
    std::size_t size_ = 0;    // its bytes; 0 before the first and after the last one
    std::size_t filled_ = 0;  // bytes in the buffer
};

bool RunReader::advance() {
    at_ += size_;
    size_ = 0;
    if (!holds_record()) {
        if (!refill()) return false;
        if (filled_ == 0) return true;
        if (!holds_record()) return file_->fail_to_read("its contents have changed");
    }
    size_ = record().size();
    return true;
}

bool RunReader::refill() {
    std::memmove(buffer_, buffer_ + at_, filled_ - at_);
    filled_ -= at_;
    at_ = 0;
    std::uint64_t const left = end_ - offset_;
    std::size_t const n =
        static_cast<std::size_t>(std::min<std::uint64_t>(capacity_ - filled_, left));
    if (!file_->read(offset_, buffer_ + filled_, n)) return false;
    offset_ += n;
    filled_ += n;
    return true;
}

// The present record of a run. Of equal ones, that of the earlier run comes first.
struct Head {
    std::uint64_t order;
    std::size_t run;

    bool operator<(Head const& other) const {
        return order != other.order ? order < other.order : run < other.run;
    }
};

// A heap whose least element stands first, after that one has changed.
void restore_heap(std::vector<Head>& heap) {
    Head const moved = heap.front();
    std::size_t at = 0;
    for (std::size_t child = 1; child < heap.size(); child = 2 * at + 1) {
        if (child + 1 < heap.size() && heap[child + 1] < heap[child]) ++child;
        if (!(heap[child] < moved)) break;
        heap[at] = heap[child];
        at = child;
    }
    heap[at] = moved;
}

// Readers of runs, which share the arena.
std::vector<RunReader> open_readers(TempFile& file, RunIterator begin, RunIterator end,
                                    Arena& arena) {
    std::size_t const n_runs = static_cast<std::size_t>(end - begin);
    std::size_t const extra = (arena.size() - min_buffers(begin, end)) / n_runs;
    std::vector<RunReader> readers;
    readers.reserve(n_runs);
    char* buffer = arena.data();
    for (RunIterator run = begin; run != end; ++run) {
        std::size_t const share =
            std::max(run->min_buffer(), std::min(run->min_buffer() + extra, MAX_SHARE_BYTES));
        readers.emplace_back(file, *run, buffer, share);
        buffer += share;
    }
    return readers;
}

// Calls `take` with the records of runs in order while it returns true.
template <typename Take>
bool merge(TempFile& file, RunIterator begin, RunIterator end, Arena& arena, Take const& take) {
    std::vector<RunReader> readers = open_readers(file, begin, end, arena);
    std::vector<Head> heap;
    for (std::size_t run = 0; run < readers.size(); ++run) {
        if (!readers[run].advance()) return false;
        if (!readers[run].is_at_end()) heap.push_back({order_of(readers[run].record()), run});
    }
    std::sort(heap.begin(), heap.end());  // which makes it a heap
    while (!heap.empty()) {
        RunReader& reader = readers[heap.front().run];
        if (!take(reader.record()) || !reader.advance()) return false;
        if (reader.is_at_end()) {
            heap.front() = heap.back();
            heap.pop_back();
            if (heap.empty()) break;
        } else {
            heap.front().order = order_of(reader.record());
        }
        restore_heap(heap);
    }
    return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// The sorter
// ---------------------------------------------------------------------------

struct CoordinateSorter::State {
    explicit State(SorterOptions sorter_options)
        : options(std::move(sorter_options)), file(std::make_unique<TempFile>(options.folder)) {}

    bool add(RecordView record);
    bool drain(std::function<bool(RecordView)> const& take);
    void note_end(RecordView record);
    bool spill();
    bool spill_alone(RecordView record);
    bool make_room_to_merge(RunIterator begin, RunIterator end);
    bool merge_to_one_group();
    bool merge_groups(std::size_t memory_bytes);
    bool fail_for_memory(std::size_t record_bytes);

    SorterOptions options;
    Arena arena;
    std::unique_ptr<TempFile> file;
    Runs runs;
    std::uint64_t n_records = 0;
    std::size_t n_runs_spilled = 0;
    std::int64_t max_end = 0;
    std::string max_end_name;
    std::string error_message;  // empty where `file` has it
    bool is_over = false;       // a call has failed, or is under way
};

bool CoordinateSorter::State::add(RecordView record) {
    std::size_t const n = record.size();
    std::size_t const needed = Arena::size_for(n);
    if (arena.size() == 0 && !arena.map(PAGE_BYTES, options.memory_bytes)) {
        return fail_for_memory(n);
    }
    if (!arena.append(record, n)) {
        if (!arena.empty() && !spill()) return false;
        if (needed > arena.size() ? !spill_alone(record) : !arena.append(record, n)) return false;
    }
    ++n_records;
    if (record.refID() >= 0) note_end(record);
    return true;
}

void CoordinateSorter::State::note_end(RecordView record) {
    std::int64_t const end = record.end_pos();
    if (end <= max_end) return;
    max_end = end;
    max_end_name = record.read_name();
}

bool CoordinateSorter::State::fail_for_memory(std::size_t record_bytes) {
    error_message = "not enough memory for a record of " + std::to_string(record_bytes) + " bytes";
    return false;
}

// Makes the arena's records a run.
bool CoordinateSorter::State::spill() {
    Run run;
    run.beg = file->size();
    run.largest_record = arena.largest_record();
    if (arena.is_in_order()) {
        if (!file->append(arena.records())) return false;
    } else {
        arena.sort();
        RecordWriter writer(*file);
        if (!arena.visit([&](RecordView record) { return writer.write(record); })) return false;
        if (!writer.flush()) return false;
    }
    run.end = file->size();
    runs.push_back(run);
    ++n_runs_spilled;
    arena.clear();
    return true;
}

// Makes a run of a record that is larger than the arena, which is empty.
bool CoordinateSorter::State::spill_alone(RecordView record) {
    std::uint64_t const beg = file->size();
    if (!file->append({record.bytes(), record.size()})) return false;
    runs.push_back({beg, file->size(), record.size()});
    ++n_runs_spilled;
    return true;
}

// The arena is large enough for all but runs with huge records.
bool CoordinateSorter::State::make_room_to_merge(RunIterator begin, RunIterator end) {
    std::size_t const needed = min_buffers(begin, end);
    if (needed <= arena.size() || arena.map(needed, needed)) return true;
    std::size_t largest = 0;
    for (RunIterator run = begin; run != end; ++run) {
        largest = std::max(largest, run->largest_record);
    }
    return fail_for_memory(largest);
}

// Makes fewer runs of many, until all of them can be merged at once.
bool CoordinateSorter::State::merge_to_one_group() {
    std::size_t const memory_bytes = arena.size();
    while (end_of_group(runs.begin(), runs.end(), memory_bytes) != runs.end()) {
        if (!merge_groups(memory_bytes)) return false;
    }
    return make_room_to_merge(runs.begin(), runs.end());
}

// Makes one run of each group of runs, in a new file.
bool CoordinateSorter::State::merge_groups(std::size_t memory_bytes) {
    auto merged_file = std::make_unique<TempFile>(options.folder);
    Runs merged_runs;
    for (RunIterator begin = runs.begin(); begin != runs.end();) {
        RunIterator const end = end_of_group(begin, runs.end(), memory_bytes);
        Run run;
        run.beg = merged_file->size();
        RecordWriter writer(*merged_file);
        auto const write = [&](RecordView record) {
            run.largest_record = std::max(run.largest_record, record.size());
            return writer.write(record);
        };
        if (!make_room_to_merge(begin, end)) return false;
        if (!merge(*file, begin, end, arena, write) || !writer.flush()) {
            error_message = merged_file->error_message;
            return false;
        }
        run.end = merged_file->size();
        merged_runs.push_back(run);
        begin = end;
    }
    file = std::move(merged_file);
    runs = std::move(merged_runs);
    return true;
}

bool CoordinateSorter::State::drain(std::function<bool(RecordView)> const& take) {
    if (runs.empty()) {
        arena.sort();
        return arena.visit(take);
    }
    if (!arena.empty() && !spill()) return false;
    return merge_to_one_group() && merge(*file, runs.begin(), runs.end(), arena, take);
}

CoordinateSorter::CoordinateSorter(SorterOptions options)
    : state_(std::make_unique<State>(std::move(options))) {}
CoordinateSorter::~CoordinateSorter() = default;

std::uint64_t CoordinateSorter::n_records() const { return state_->n_records; }
std::size_t CoordinateSorter::n_runs() const { return state_->n_runs_spilled; }
std::int64_t CoordinateSorter::max_end() const { return state_->max_end; }
std::string const& CoordinateSorter::max_end_name() const { return state_->max_end_name; }

bool CoordinateSorter::fail() {
    error_message =
        state_->error_message.empty() ? state_->file->error_message : state_->error_message;
    return false;
}

// Makes a call of the state, unless one before it has failed, be it by an exception.
bool CoordinateSorter::complete(std::function<bool(State&)> const& call) {
    if (!state_->is_over) {
        state_->is_over = true;
        state_->is_over = !call(*state_);
        return !state_->is_over || fail();
    }
    fail();
    if (error_message.empty()) error_message = "an earlier call was not completed";
    return false;
}

bool CoordinateSorter::add(RecordBatch const& batch) {
    return complete([&](State& state) {
        bool is_added = true;
        for_each_record(batch.records.view(),
                        [&](RecordView record) { is_added = is_added && state.add(record); });
        return is_added;
    });
}

bool CoordinateSorter::drain(std::function<bool(RecordView)> const& take) {
    return complete([&](State& state) { return state.drain(take); });
}

}  // namespace tesk::interop
