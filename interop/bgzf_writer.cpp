#include "interop/bgzf_writer.h"

#include <libdeflate.h>
#include <pthread.h>
#include <csignal>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "interop/byte_buffer.h"
#include "interop/output_stream.h"

namespace tesk::interop {

namespace {

// A block: gzip header with the extra field BC, deflate stream, CRC32, ISIZE.
constexpr char BLOCK_HEAD[] = {'\x1f', '\x8b', '\x08', '\x04', 0,   0,   0, 0,
                               0,      '\xff', 6,      0,      'B', 'C', 2, 0};
constexpr std::size_t BSIZE_OFFSET = sizeof BLOCK_HEAD;  // u16, block size - 1
constexpr std::size_t CDATA_OFFSET = BSIZE_OFFSET + sizeof(std::uint16_t);
constexpr std::size_t TAIL_BYTES = 2 * sizeof(std::uint32_t);
constexpr std::size_t MAX_BLOCK_BYTES = 65536;
constexpr std::size_t MAX_CDATA_BYTES = MAX_BLOCK_BYTES - CDATA_OFFSET - TAIL_BYTES;

// A stored deflate block: a byte that says so and that it is the last, LEN, and
// LEN inverted.
constexpr std::size_t STORED_HEAD_BYTES = 1 + 2 * sizeof(std::uint16_t);
static_assert(BgzfWriter::PAYLOAD_BYTES + STORED_HEAD_BYTES <= MAX_CDATA_BYTES,
              "a stored payload fits a block");

// The deflate stream of no data: an empty block with fixed codes.
constexpr char EMPTY_CDATA[] = {3, 0};

constexpr int MAX_LEVEL = 12;
// More threads than this only take memory.
constexpr unsigned MAX_THREADS = 128;

template <typename Number>
char* put(char* to, Number value) {
    std::memcpy(to, &value, sizeof value);
    return to + sizeof value;
}

// The deflate stream that holds a payload as it is.
std::size_t store(std::string_view payload, char* cdata) {
    auto const length = static_cast<std::uint16_t>(payload.size());
    char* at = put(cdata, char{1});
    at = put(at, length);
    at = put(at, static_cast<std::uint16_t>(~length));
    std::memcpy(at, payload.data(), payload.size());
    return STORED_HEAD_BYTES + payload.size();
}

// Adds head and tail to a block whose deflate stream is in place. Returns its end.
char* complete_block(char* block, std::size_t cdata_bytes, std::uint32_t crc, std::size_t isize) {
    std::size_t const size = CDATA_OFFSET + cdata_bytes + TAIL_BYTES;
    std::memcpy(block, BLOCK_HEAD, sizeof BLOCK_HEAD);
    put(block + BSIZE_OFFSET, static_cast<std::uint16_t>(size - 1));
    char* const tail = put(block + CDATA_OFFSET + cdata_bytes, crc);
    return put(tail, static_cast<std::uint32_t>(isize));
}

char* write_empty_block(char* block) {
    std::memcpy(block + CDATA_OFFSET, EMPTY_CDATA, sizeof EMPTY_CDATA);
    return complete_block(block, sizeof EMPTY_CDATA, 0, 0);
}

// Makes blocks; each thread has one of its own.
class Deflater {
public:
    explicit Deflater(int level) : compressor_(libdeflate_alloc_compressor(level)) {
        if (!compressor_) throw std::bad_alloc();
    }

    // Writes the block of a payload into MAX_BLOCK_BYTES bytes. Returns its end.
    char* write_block(std::string_view payload, char* block) const {
        std::size_t cdata_bytes =
            libdeflate_deflate_compress(compressor_.get(), payload.data(), payload.size(),
                                        block + CDATA_OFFSET, MAX_CDATA_BYTES);
        if (cdata_bytes == 0) cdata_bytes = store(payload, block + CDATA_OFFSET);
        std::uint32_t const crc = libdeflate_crc32(0, payload.data(), payload.size());
        return complete_block(block, cdata_bytes, crc, payload.size());
    }

private:
    struct Free {
        void operator()(libdeflate_compressor* compressor) const {
            libdeflate_free_compressor(compressor);
        }
    };
    std::unique_ptr<libdeflate_compressor, Free> compressor_;
};

// While it lives, threads start with every signal blocked: signals stay with the
// threads of the caller, who may have set something up for them.
class SignalsBlocked {
public:
    SignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(SignalsBlocked const&) = delete;
    SignalsBlocked& operator=(SignalsBlocked const&) = delete;

private:
    sigset_t before_;
};

// A ring of payloads and of the blocks they become. The caller fills payloads and
// takes finished blocks out in the same order; workers, and the caller when the
// ring is full, compress what lies between.
class BlockQueue {
public:
    BlockQueue(int level, unsigned threads) : slots_(4 * std::size_t{threads} + 4) {
        for (Slot& slot : slots_) {
            slot.payload.room_for(BgzfWriter::PAYLOAD_BYTES);
            slot.block.room_for(MAX_BLOCK_BYTES);
        }
        for (unsigned i = 1; i < threads; ++i) deflaters_.emplace_back(level);
        start_workers();
    }

    ~BlockQueue() {
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            stopping_ = true;
        }
        work_.notify_all();
        for (std::thread& worker : workers_) worker.join();
    }
    BlockQueue(BlockQueue const&) = delete;
    BlockQueue& operator=(BlockQueue const&) = delete;

    // Where the next payload goes; to be asked for only while the ring is not full.
    ByteBuffer& next_payload() { return slot(n_filled_).payload; }

    // Hands the next payload over to whoever compresses it.
    void push() {
        {
            std::lock_guard<std::mutex> const lock(mutex_);
            ++n_filled_;
        }
        work_.notify_one();
    }

    bool full() const { return n_filled_ - n_popped_ == slots_.size(); }
    bool empty() const { return n_filled_ == n_popped_; }

    // Brings the oldest block to its end, compressing others meanwhile.
    std::string_view front(Deflater const& deflater) {
        std::unique_lock<std::mutex> lock(mutex_);
        Slot const& oldest = slot(n_popped_);
        while (!oldest.done) {
            if (n_taken_ < n_filled_) {
                compress_next(lock, deflater);
            } else {
                done_.wait(lock);
            }
        }
        return oldest.block.view();
    }

    bool front_is_done() {
        std::lock_guard<std::mutex> const lock(mutex_);
        return !empty() && slot(n_popped_).done;
    }

    void pop() {
        Slot& oldest = slot(n_popped_++);
        oldest.done = false;
        oldest.payload.clear();
    }

private:
    struct Slot {
        ByteBuffer payload;
        ByteBuffer block;
        bool done = false;
    };

    Slot& slot(std::uint64_t number) { return slots_[number % slots_.size()]; }

    // Fewer workers than wanted take longer, but make the same file. Nothing else may
    // fail once there is one: a thread that nobody joins ends the process.
    void start_workers() {
        workers_.reserve(deflaters_.size());
        SignalsBlocked const blocked;
        try {
            for (Deflater const& deflater : deflaters_) {
                workers_.emplace_back([this, &deflater] { work(deflater); });
            }
        } catch (std::exception const&) {  // no thread or no memory
            return;
        }
    }

    void work(Deflater const& deflater) {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            work_.wait(lock, [this] { return stopping_ || n_taken_ < n_filled_; });
            if (stopping_) return;
            compress_next(lock, deflater);
        }
    }

    // Compresses the oldest payload that nobody has taken yet, unlocked meanwhile.
    void compress_next(std::unique_lock<std::mutex>& lock, Deflater const& deflater) {
        Slot& taken = slot(n_taken_++);
        lock.unlock();
        taken.block.clear();
        char* const block = taken.block.room_for(MAX_BLOCK_BYTES);
        taken.block.set_end(deflater.write_block(taken.payload.view(), block));
        lock.lock();
        taken.done = true;
        done_.notify_one();
    }

    std::vector<Slot> slots_;
    std::vector<Deflater> deflaters_;
    std::mutex mutex_;
    std::condition_variable work_;  // there is a payload, or it is time to stop
    std::condition_variable done_;  // a block is done
    bool stopping_ = false;
    // Numbers of payloads since the beginning: handed over, taken by whoever
    // compresses them, and gone as blocks. Only the caller changes the first and
    // the last one.
    std::uint64_t n_filled_ = 0;
    std::uint64_t n_taken_ = 0;
    std::uint64_t n_popped_ = 0;
    std::vector<std::thread> workers_;  // last: they use all the others
};

}  // namespace

struct BgzfWriter::State {
    State(int fd, std::string name, int level, unsigned threads)
        : out(fd, std::move(name)), deflater(level) {
        if (threads > 1) {
            queue = std::make_unique<BlockQueue>(level, std::min(threads, MAX_THREADS));
        } else {
            payload.room_for(PAYLOAD_BYTES);
        }
    }

    bool write(std::string_view bytes);
    bool end_block();
    bool write_block(std::string_view whole_payload);
    bool write_front_of_queue();
    bool close();

    OutputStream out;
    Deflater deflater;
    ByteBuffer payload;                 // of the block to come, without a queue
    std::unique_ptr<BlockQueue> queue;  // where several threads compress
    std::vector<std::uint64_t> begins;  // where each block begins, the empty one included
    std::uint64_t n_bytes = 0;          // given to write()
    bool closed = false;
};

bool BgzfWriter::State::write(std::string_view bytes) {
    n_bytes += bytes.size();
    while (!bytes.empty()) {
        ByteBuffer& next = queue ? queue->next_payload() : payload;
        if (!queue && next.empty() && bytes.size() >= PAYLOAD_BYTES) {
            // Straight from the caller's bytes.
            if (!write_block(bytes.substr(0, PAYLOAD_BYTES))) return false;
            bytes.remove_prefix(PAYLOAD_BYTES);
            continue;
        }
        std::size_t const n = std::min(bytes.size(), PAYLOAD_BYTES - next.size());
        next.append(bytes.substr(0, n));
        bytes.remove_prefix(n);
        if (next.size() == PAYLOAD_BYTES && !end_block()) return false;
    }
    return true;
}

// Writes the payload, or hands it over and sees to it that there is a place for the
// next one.
bool BgzfWriter::State::end_block() {
    if (!queue) {
        bool const done = write_block(payload.view());
        payload.clear();
        return done;
    }
    queue->push();
    if (!queue->full()) return true;
    do {
        if (!write_front_of_queue()) return false;
    } while (queue->front_is_done());
    return true;
}

bool BgzfWriter::State::write_block(std::string_view whole_payload) {
    begins.push_back(out.offset());
    return out.take(deflater.write_block(whole_payload, out.room_for(MAX_BLOCK_BYTES)));
}

bool BgzfWriter::State::write_front_of_queue() {
    begins.push_back(out.offset());
    bool const done = out.append(queue->front(deflater));
    queue->pop();
    return done;
}

bool BgzfWriter::State::close() {
    bool const partial = !(queue ? queue->next_payload() : payload).empty();
    if (partial && !end_block()) return false;
    while (queue && !queue->empty()) {
        if (!write_front_of_queue()) return false;
    }
    begins.push_back(out.offset());
    return out.take(write_empty_block(out.room_for(MAX_BLOCK_BYTES))) && out.flush();
}

BgzfWriter::BgzfWriter() = default;
BgzfWriter::~BgzfWriter() = default;

bool BgzfWriter::open(int fd, std::string name, int level, unsigned threads) {
    state_.reset();
    if (level < 0 || level > MAX_LEVEL) {
        error_message =
            "cannot write to " + name + ": there is no compression level " + std::to_string(level);
        return false;
    }
    state_ = std::make_unique<State>(fd, std::move(name), level, threads);
    return true;
}

bool BgzfWriter::write(std::string_view bytes) {
    if (!state_ || state_->closed) {
        error_message = "cannot write: no file is open";
        return false;
    }
    state_->closed = true;  // for good, where memory runs out
    bool const done = state_->out.error_message.empty() && state_->write(bytes);
    state_->closed = false;
    if (!done) error_message = state_->out.error_message;
    return done;
}

std::uint64_t BgzfWriter::tell() const { return state_ ? state_->n_bytes : 0; }

bool BgzfWriter::close() {
    if (!state_ || state_->closed) {
        error_message = "cannot write: no file is open";
        return false;
    }
    state_->closed = true;
    bool const done = state_->out.error_message.empty() && state_->close();
    if (!done) error_message = state_->out.error_message;
    state_->queue.reset();
    return done;
}

std::uint64_t BgzfWriter::virtual_offset(std::uint64_t place) const {
    constexpr int BLOCK_SHIFT = 16;
    return state_->begins.at(place / PAYLOAD_BYTES) << BLOCK_SHIFT | place % PAYLOAD_BYTES;
}

}  // namespace tesk::interop
