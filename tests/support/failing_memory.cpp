#include "tests/support/failing_memory.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "tests/support/sanitized.h"

namespace tesk::test {

namespace {

std::atomic<bool> is_limited{false};
std::atomic<std::uint64_t> n_requests{0};
MemoryFault present;

std::atomic<std::int64_t> n_live{0};

bool fails() {
    if (!is_limited) return false;
    std::uint64_t const number = ++n_requests;
    return number == present.number || (present.lasts && number > present.number);
}

}  // namespace

MemoryFaultScope::MemoryFaultScope(MemoryFault fault) {
    present = fault;
    n_requests = 0;
    is_limited = true;
}

MemoryFaultScope::~MemoryFaultScope() { is_limited = false; }

bool MemoryFaultScope::has_struck() const { return n_requests >= present.number; }

std::int64_t n_live_blocks() { return n_live; }

}  // namespace tesk::test

// --- malloc() and the like -------------------------------------------------------

#ifndef TESK_TEST_SANITIZED

// NOLINTBEGIN(bugprone-reserved-identifier): the names of the C library
extern "C" {

void* __libc_malloc(std::size_t n);
void* __libc_calloc(std::size_t n, std::size_t size);
void* __libc_realloc(void* block, std::size_t n);
void* __libc_memalign(std::size_t alignment, std::size_t n);
void __libc_free(void* block);

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

void* counted(void* block) {
    if (block != nullptr) ++tesk::test::n_live;
    return block;
}

void* no_memory() {
    errno = ENOMEM;
    return nullptr;
}

}  // namespace

extern "C" {

void* malloc(std::size_t n) noexcept {
    return tesk::test::fails() ? no_memory() : counted(__libc_malloc(n));
}

void* calloc(std::size_t n, std::size_t size) noexcept {
    return tesk::test::fails() ? no_memory() : counted(__libc_calloc(n, size));
}

void* realloc(void* block, std::size_t n) noexcept {
    if (tesk::test::fails()) return no_memory();
    if (block == nullptr) return counted(__libc_malloc(n));
    void* const grown = __libc_realloc(block, n);
    if (grown == nullptr && n == 0) --tesk::test::n_live;
    return grown;
}

void* memalign(std::size_t alignment, std::size_t n) noexcept {
    return tesk::test::fails() ? no_memory() : counted(__libc_memalign(alignment, n));
}

void* aligned_alloc(std::size_t alignment, std::size_t n) noexcept {
    return memalign(alignment, n);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t n) noexcept {
    void* const found = memalign(alignment, n);
    if (found == nullptr) return ENOMEM;
    *block = found;
    return 0;
}

void free(void* block) noexcept {
    if (block != nullptr) --tesk::test::n_live;
    __libc_free(block);
}

}  // extern "C"

#endif

// --- new and delete --------------------------------------------------------------

namespace {

// Blocks are counted by malloc() and free() where these are our own.
void* new_block(std::size_t n, std::size_t alignment) noexcept {
#ifdef TESK_TEST_SANITIZED
    if (tesk::test::fails()) return nullptr;
#endif
    n = std::max<std::size_t>(n, 1);
    void* const block =
        alignment <= alignof(std::max_align_t)
            ? std::malloc(n)
            : std::aligned_alloc(alignment, (n + alignment - 1) / alignment * alignment);
#ifdef TESK_TEST_SANITIZED
    if (block != nullptr) ++tesk::test::n_live;
#endif
    return block;
}

void* new_block_or_throw(std::size_t n, std::size_t alignment) {
    void* const block = new_block(n, alignment);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

void delete_block(void* block) noexcept {
#ifdef TESK_TEST_SANITIZED
    if (block != nullptr) --tesk::test::n_live;
#endif
    std::free(block);
}

constexpr std::size_t USUAL = alignof(std::max_align_t);

std::size_t number_of(std::align_val_t alignment) { return static_cast<std::size_t>(alignment); }

}  // namespace

void* operator new(std::size_t n) { return new_block_or_throw(n, USUAL); }
void* operator new[](std::size_t n) { return new_block_or_throw(n, USUAL); }
void* operator new(std::size_t n, std::nothrow_t const&) noexcept { return new_block(n, USUAL); }
void* operator new[](std::size_t n, std::nothrow_t const&) noexcept { return new_block(n, USUAL); }
void* operator new(std::size_t n, std::align_val_t alignment) {
    return new_block_or_throw(n, number_of(alignment));
}
void* operator new[](std::size_t n, std::align_val_t alignment) {
    return new_block_or_throw(n, number_of(alignment));
}
void* operator new(std::size_t n, std::align_val_t alignment, std::nothrow_t const&) noexcept {
    return new_block(n, number_of(alignment));
}
void* operator new[](std::size_t n, std::align_val_t alignment, std::nothrow_t const&) noexcept {
    return new_block(n, number_of(alignment));
}

void operator delete(void* block) noexcept { delete_block(block); }
void operator delete[](void* block) noexcept { delete_block(block); }
void operator delete(void* block, std::size_t /*n*/) noexcept { delete_block(block); }
void operator delete[](void* block, std::size_t /*n*/) noexcept { delete_block(block); }
void operator delete(void* block, std::nothrow_t const&) noexcept { delete_block(block); }
void operator delete[](void* block, std::nothrow_t const&) noexcept { delete_block(block); }
void operator delete(void* block, std::align_val_t /*alignment*/) noexcept { delete_block(block); }
void operator delete[](void* block, std::align_val_t /*alignment*/) noexcept {
    delete_block(block);
}
void operator delete(void* block, std::size_t /*n*/, std::align_val_t /*alignment*/) noexcept {
    delete_block(block);
}
void operator delete[](void* block, std::size_t /*n*/, std::align_val_t /*alignment*/) noexcept {
    delete_block(block);
}
void operator delete(void* block, std::align_val_t /*alignment*/, std::nothrow_t const&) noexcept {
    delete_block(block);
}
void operator delete[](void* block, std::align_val_t /*alignment*/,
                       std::nothrow_t const&) noexcept {
    delete_block(block);
}
