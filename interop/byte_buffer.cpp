#include "interop/byte_buffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace tesk::interop {

ByteBuffer::~ByteBuffer() { std::free(data_); }

ByteBuffer::ByteBuffer(ByteBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

ByteBuffer& ByteBuffer::operator=(ByteBuffer&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
    return *this;
}

void ByteBuffer::append(std::string_view bytes) {
    if (bytes.empty()) return;
    char* const place = room_for(bytes.size());
    std::memcpy(place, bytes.data(), bytes.size());
    set_end(place + bytes.size());
}

void ByteBuffer::drop_front(std::size_t n) {
    if (n == 0) return;
    std::memmove(data_, data_ + n, size_ - n);
    size_ -= n;
}

// Large blocks grow in place or by moving pages, so realloc() beats copying.
void ByteBuffer::grow(std::size_t n) {
    constexpr std::size_t LEAST_BYTES = 4096;
    if (n > std::numeric_limits<std::size_t>::max() / 2 - size_) throw std::bad_alloc();
    std::size_t const wanted = std::max({LEAST_BYTES, size_ + n, capacity_ + capacity_ / 2});
    void* const grown = std::realloc(data_, wanted);
    if (grown == nullptr) throw std::bad_alloc();
    data_ = static_cast<char*>(grown);
    capacity_ = wanted;
}

}  // namespace tesk::interop
