#include "bench/heap.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>

extern "C" {
void* __libc_malloc(std::size_t size) noexcept;
void* __libc_calloc(std::size_t n, std::size_t size) noexcept;
void* __libc_realloc(void* memory, std::size_t size) noexcept;
void* __libc_memalign(std::size_t alignment, std::size_t size) noexcept;
void __libc_free(void* memory) noexcept;
}

namespace {

// The programs that count have one thread.
std::size_t in_use = 0;
std::size_t peak = 0;

// Counts what a call has handed out, and returns it.
void* count(void* memory) {
    in_use += malloc_usable_size(memory);  // 0 for null
    peak = std::max(peak, in_use);
    return memory;
}

}  // namespace

namespace tesk::bench {

std::size_t heap_in_use() { return in_use; }
std::size_t heap_peak() { return peak; }
void reset_heap_peak() { peak = in_use; }

}  // namespace tesk::bench

extern "C" {

void* malloc(std::size_t size) noexcept { return count(__libc_malloc(size)); }

void* calloc(std::size_t n, std::size_t size) noexcept { return count(__libc_calloc(n, size)); }

// What is moved counts twice at its peak, as both places are in use then.
void* realloc(void* memory, std::size_t size) noexcept {
    std::size_t const before = malloc_usable_size(memory);
    void* const moved = __libc_realloc(memory, size);
    if (moved == nullptr && size != 0) return nullptr;  // all is as it was
    if (moved == memory) in_use -= before;
    count(moved);
    if (moved != memory) in_use -= before;
    return moved;
}

void free(void* memory) noexcept {
    in_use -= malloc_usable_size(memory);
    __libc_free(memory);
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return count(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return memalign(alignment, size);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) noexcept {
    void* const aligned = memalign(alignment, size);
    if (aligned == nullptr) return ENOMEM;
    *memory = aligned;
    return 0;
}

}  // extern "C"
