/// \file
/// Gives memory that requests have used back to the system.
#pragma once

#include <cstddef>
#include <thread>

namespace QOR {

/// An allocator keeps what was freed, in case it is wanted again; after a storm of requests that may be most of the
/// process. Large buffers go back as soon as they are freed. For the rest a thread of this object looks every two
/// seconds whether the process is larger than it was and has worked, and has the allocator give back what is free. A
/// process that is small or rests costs nothing but the look. One object a process: it sets the allocator's bounds, for
/// good.
class MemoryKeeper {
public:
    MemoryKeeper();
    /// Ends the thread.
    ~MemoryKeeper();
    MemoryKeeper(const MemoryKeeper&) = delete;
    MemoryKeeper& operator=(const MemoryKeeper&) = delete;

    /// Bytes of the process that are in memory; 0 when the system does not tell.
    static std::size_t residentBytes();

private:
    std::jthread m_thread;
};

}  // namespace QOR
