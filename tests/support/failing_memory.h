// Memory that runs out on request. A program that failing_memory.cpp is linked into has
// its own operators new and delete; without the sanitizers, which have their own, also
// its own malloc(), through which the C libraries get theirs.

#pragma once

#include <cstdint>
#include <limits>

namespace tesk::test {

/// Which requests for memory fail, of all threads together.
struct MemoryFault {
    std::uint64_t number = std::numeric_limits<std::uint64_t>::max();  // of the first, from 1
    bool lasts = false;                                                // so do all later ones
};

/// A fault that lasts as long as the object.
class MemoryFaultScope {
public:
    explicit MemoryFaultScope(MemoryFault fault);
    ~MemoryFaultScope();
    MemoryFaultScope(MemoryFaultScope const&) = delete;
    MemoryFaultScope& operator=(MemoryFaultScope const&) = delete;

    /// Whether any request has failed.
    bool has_struck() const;
};

/// Number of blocks that were handed out and not given back.
std::int64_t n_live_blocks();

}  // namespace tesk::test
