/// \file
/// Reading what files hold through memory, though they may be cut meanwhile.
#pragma once

#include <atomic>
#include <csignal>

namespace QOR {

/// While it lives, its thread survives reading what a mapped file has no more, or what its disk does not give: instead
/// of ending the process (SIGBUS), the page becomes one of zeros. What was read since then is not to be believed.
/// Nothing else than the mapped files is to be touched meanwhile: to a file that is written through memory zeros would
/// be worse than the end. The first one puts a handler of the signal in place, which stays and passes on what is none
/// of its threads' business. Lives on the stack; several of a thread within each other.
class MappedReading {
public:
    MappedReading();
    ~MappedReading();
    MappedReading(const MappedReading&) = delete;
    MappedReading& operator=(const MappedReading&) = delete;

    bool hasFailed() const noexcept {
        std::atomic_signal_fence(std::memory_order_seq_cst);  // what was read before it is asked is not read after
        return m_failed != 0;
    }

private:
    static bool handleSignal();
    static void takeSignal(int number, siginfo_t* info, void* context);

    MappedReading* const m_outer;
    volatile std::sig_atomic_t m_failed = 0;
};

}  // namespace QOR
