// The work that nobody can do without who converts SAM and BAM, and nothing else:
// what the tool's time is held against. Plain code, independent of the libraries.
//
//     bench_floor sam-to-bam IN.sam PAYLOAD OUT LEVEL
//         looks for the tabs and newlines of IN.sam; compresses PAYLOAD, the inflated
//         bytes of the BAM file, in full blocks, each with its checksum; writes them
//     bench_floor bam-to-sam IN.bam TEXT OUT
//         inflates the blocks of IN.bam and checks them; copies TEXT, the SAM text, once;
//         writes it
//
// Prints the user CPU seconds of that. Inputs are in memory before: what reading
// them takes is not counted.

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "bench/blocks.h"

namespace {

using namespace tesk::bench;

constexpr std::size_t OUTPUT_BYTES = std::size_t{1} << 20;

// A file in memory, all of it.
class InputFile {
public:
    explicit InputFile(char const* path) {
        int const fd = open(path, O_RDONLY | O_CLOEXEC);
        struct stat status = {};
        if (fd < 0 || fstat(fd, &status) != 0 || status.st_size == 0) fail(path);
        size_ = static_cast<std::size_t>(status.st_size);
        place_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
        if (place_ == MAP_FAILED) fail(path);
        close(fd);
    }
    ~InputFile() { munmap(place_, size_); }
    InputFile(InputFile const&) = delete;
    InputFile& operator=(InputFile const&) = delete;

    std::string_view bytes() const { return {static_cast<char const*>(place_), size_}; }

private:
    [[noreturn]] static void fail(char const* path) {
        throw std::runtime_error(std::string("cannot read ") + path);
    }

    void* place_ = nullptr;
    std::size_t size_ = 0;
};

// A file that is written a megabyte at a time.
class OutputFile {
public:
    explicit OutputFile(char const* path)
        : fd_(open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)),
          buffer_(new char[OUTPUT_BYTES]) {
        if (fd_ < 0) throw std::runtime_error(std::string("cannot write ") + path);
        std::memset(buffer_.get(), 0, OUTPUT_BYTES);  // so that its pages are there
    }
    ~OutputFile() { close(fd_); }
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    // Where the next n bytes go.
    char* room_for(std::size_t n) {
        if (n > OUTPUT_BYTES - filled_) flush();
        return buffer_.get() + filled_;
    }
    void advance(std::size_t n) { filled_ += n; }
    void write(std::string_view bytes) {
        while (!bytes.empty()) {
            std::size_t const n = std::min(bytes.size(), OUTPUT_BYTES);
            std::memcpy(room_for(n), bytes.data(), n);
            advance(n);
            bytes.remove_prefix(n);
        }
    }
    void flush() {
        for (std::size_t done = 0; done < filled_;) {
            ssize_t const n = ::write(fd_, buffer_.get() + done, filled_ - done);
            if (n <= 0) throw std::runtime_error("writing failed");
            done += static_cast<std::size_t>(n);
        }
        filled_ = 0;
    }

private:
    int fd_;
    std::unique_ptr<char[]> buffer_;
    std::size_t filled_ = 0;
};

// Tabs and newlines, line by line, as a parser of fields finds them.
std::uint64_t count_fields(std::string_view text) {
    std::uint64_t n_fields = 0;
    char const* const end = text.data() + text.size();
    for (char const* line = text.data(); line < end;) {
        auto const* newline =
            static_cast<char const*>(std::memchr(line, '\n', static_cast<std::size_t>(end - line)));
        char const* const line_end = newline == nullptr ? end : newline;
        for (char const* field = line; field != nullptr; ++n_fields) {
            field = static_cast<char const*>(
                std::memchr(field, '\t', static_cast<std::size_t>(line_end - field)));
            if (field != nullptr) ++field;
        }
        line = line_end + 1;
    }
    return n_fields;
}

void compress_blocks(std::string_view payload, int level, OutputFile& out) {
    std::unique_ptr<libdeflate_compressor, decltype(&libdeflate_free_compressor)> const compressor(
        libdeflate_alloc_compressor(level), libdeflate_free_compressor);
    if (!compressor) throw std::runtime_error("LEVEL is 0 to 12");
    while (!payload.empty()) {
        std::string_view const data = payload.substr(0, FULL_PAYLOAD_BYTES);
        char* const block = out.room_for(MAX_BLOCK_BYTES);
        std::size_t const n = libdeflate_deflate_compress(
            compressor.get(), data.data(), data.size(), block + HEADER_BYTES,
            MAX_BLOCK_BYTES - HEADER_BYTES - FOOTER_BYTES);
        if (n == 0) throw std::runtime_error("a block does not fit");
        std::size_t const size = HEADER_BYTES + n + FOOTER_BYTES;
        std::memcpy(block, EOF_BLOCK, HEADER_BYTES);
        put(block + BSIZE_OFFSET, static_cast<std::uint16_t>(size - 1));
        put(block + HEADER_BYTES + n, libdeflate_crc32(0, data.data(), data.size()));
        put(block + HEADER_BYTES + n + 4, static_cast<std::uint32_t>(data.size()));
        out.advance(size);
        payload.remove_prefix(data.size());
    }
    out.write({EOF_BLOCK, sizeof EOF_BLOCK});
    out.flush();
}

// Inflates blocks, and writes as much of the text as is due after each.
void inflate_blocks(std::string_view file, std::string_view text, OutputFile& out) {
    std::unique_ptr<libdeflate_decompressor, decltype(&libdeflate_free_decompressor)> const
        decompressor(libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
    std::unique_ptr<char[]> const payload(new char[MAX_BLOCK_BYTES]);
    double const text_per_byte =
        static_cast<double>(text.size()) / static_cast<double>(file.size());
    std::size_t copied = 0;
    for (std::size_t at = 0; at < file.size();) {
        char const* const block = file.data() + at;
        std::size_t const left = file.size() - at;
        std::size_t const size =
            left < HEADER_BYTES ? 0 : get<std::uint16_t>(block + BSIZE_OFFSET) + std::size_t{1};
        if (size < HEADER_BYTES + FOOTER_BYTES || size > left) {
            throw std::runtime_error("IN.bam does not consist of BGZF blocks");
        }
        std::size_t n = 0;
        libdeflate_result const result = libdeflate_deflate_decompress(
            decompressor.get(), block + HEADER_BYTES, size - HEADER_BYTES - FOOTER_BYTES,
            payload.get(), MAX_BLOCK_BYTES, &n);
        if (result != LIBDEFLATE_SUCCESS || libdeflate_crc32(0, payload.get(), n) !=
                                                get<std::uint32_t>(block + size - FOOTER_BYTES)) {
            throw std::runtime_error("a block of IN.bam is damaged");
        }
        at += size;
        std::size_t const due =
            at == file.size() ? text.size()
                              : static_cast<std::size_t>(static_cast<double>(at) * text_per_byte);
        out.write(text.substr(copied, due - copied));
        copied = due;
    }
    out.flush();
}

double user_seconds() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec) * 1e-6;
}

// The user CPU seconds of the job that the arguments name.
double run(int argc, char** argv) {
    std::string_view const job = argc > 1 ? argv[1] : "";
    if (job == "sam-to-bam" && argc == 6) {
        InputFile const text(argv[2]);
        InputFile const payload(argv[3]);
        OutputFile out(argv[4]);
        double const begin = user_seconds();
        // Volatile, or the compiler might leave out the scan.
        [[maybe_unused]] std::uint64_t volatile const n_fields = count_fields(text.bytes());
        compress_blocks(payload.bytes(), std::atoi(argv[5]), out);
        return user_seconds() - begin;
    }
    if (job == "bam-to-sam" && argc == 5) {
        InputFile const file(argv[2]);
        InputFile const text(argv[3]);
        OutputFile out(argv[4]);
        double const begin = user_seconds();
        inflate_blocks(file.bytes(), text.bytes(), out);
        return user_seconds() - begin;
    }
    throw std::runtime_error("see the beginning of bench/tool_floor.cpp for its arguments");
}

}  // namespace

int main(int argc, char** argv) {
    try {
        std::printf("%.6f\n", run(argc, argv));
        return 0;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "bench_floor: %s\n", error.what());
        return 1;
    }
}
