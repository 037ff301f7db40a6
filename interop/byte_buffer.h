// Bytes that grow at their end, without being set to zero first.

#pragma once

#include <cstddef>
#include <string_view>

#include "util/bam/export.h"

namespace tesk::interop {

/// A growing array of bytes.
class TESK_BAM_EXPORT ByteBuffer {
public:
    ByteBuffer() = default;
    ~ByteBuffer();
    /// Takes the bytes over; the other buffer is empty then.
    ByteBuffer(ByteBuffer&& other) noexcept;
    /// The same, in the place of what was there.
    ByteBuffer& operator=(ByteBuffer&& other) noexcept;
    ByteBuffer(ByteBuffer const&) = delete;
    ByteBuffer& operator=(ByteBuffer const&) = delete;

    char* data() { return data_; }              ///< its first byte; null before there was any
    char const* data() const { return data_; }  ///< the same, to read
    std::size_t size() const { return size_; }  ///< number of bytes
    bool empty() const { return size_ == 0; }   ///< whether there are none
    std::string_view view() const { return {data_, size_}; }  ///< all bytes

    /// Makes room for n more bytes and returns where they begin: the end of what
    /// is there. They count only once they are taken by set_end(). Pointers into
    /// the buffer are void afterwards.
    /// @throws std::bad_alloc
    char* room_for(std::size_t n) {
        if (n > capacity_ - size_) grow(n);
        return data_ + size_;
    }

    /// Makes the buffer end at a place inside the room.
    void set_end(char const* end) { size_ = static_cast<std::size_t>(end - data_); }

    /// Appends a copy of bytes that are not in this buffer.
    void append(std::string_view bytes);

    /// Drops the first n bytes; the others move to the front.
    void drop_front(std::size_t n);

    /// Drops all bytes from place n on.
    void cut(std::size_t n) { size_ = n; }

    /// Drops all bytes; keeps the room.
    void clear() { size_ = 0; }

private:
    void grow(std::size_t n);

    char* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

}  // namespace tesk::interop
