/// \file
/// QORChangeWatch: wakes those who follow the sequence of changed records when it has grown.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <stop_token>
#include <thread>

#include "QORCommon/QORExport.h"
#include "QORLibAgent/QORRecordChanges.h"

namespace QOR {

/// One thread looks for all, while anybody waits: at once when this process has stored something, and several times a
/// second for what others do. Thread-safe. Records that lie with several servers are looked for at each of them.
class QOR_API QORChangeWatch {
public:
    QORChangeWatch();
    ~QORChangeWatch();
    QORChangeWatch(const QORChangeWatch&) = delete;
    QORChangeWatch& operator=(const QORChangeWatch&) = delete;

    /// What is known now; ask before you read.
    std::uint64_t seen() const;
    /// Waits until something has been committed behind what was `seen`, or for that long; it may also return for
    /// nothing. What cannot be looked for, as when the database is away, is told by whoever reads.
    void await(std::uint64_t seen, std::chrono::milliseconds atMost);
    /// Ends all waiting, for good.
    void stop();

    /// This process has committed something. Any thread.
    static void noteStored();

private:
    void look(const std::stop_token& stop);

    mutable std::mutex m_mutex;
    std::condition_variable_any m_changed;
    std::uint64_t m_seen = 0;  // guarded by m_mutex
    unsigned m_waiting = 0;    // guarded by m_mutex
    bool m_stopped = false;    // guarded by m_mutex
    std::jthread m_thread;
};

}  // namespace QOR
