/// \file
/// The text of an answer that is kept until it is whole, and when one that is not leaves.
#pragma once

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "QORCommon/QORMemory.h"

namespace QOR {

/// Grows up to a bound; counts for the account of the thread that adds to it.
class QORAnswerText {
public:
    explicit QORAnswerText(std::size_t mostBytes) : m_most(mostBytes) {}

    /// \returns false when it does not fit any more; then nothing was added
    bool add(std::string_view block) {
        const std::size_t size = m_text.size() + block.size();
        if (size > m_most) return false;
        if (size > m_text.capacity()) {
            const std::size_t room = std::max(size, std::min(m_text.capacity() * 2, m_most));
            m_memory.add(room, "the answer");
            m_text.reserve(room);
            m_memory.set(room, "the answer");
        }
        m_text.append(block);
        return true;
    }
    std::size_t most() const noexcept { return m_most; }
    std::string takeText() { return std::move(m_text); }
    QORMemoryCharge takeMemory() { return std::move(m_memory); }

private:
    const std::size_t m_most;
    std::string m_text;
    QORMemoryCharge m_memory;
};

/// When what was made of a stream is to leave: blocks fill up fast or the rows are slow in coming, and then they are
/// not kept waiting for company.
class QORStreamPace {
public:
    /// After each row. \param rows so far
    bool isDue(std::int64_t rows) const { return rows == 1 || now() - m_lastLeft > patience; }
    /// Something has left.
    void left() { m_lastLeft = now(); }

private:
    static constexpr auto patience = std::chrono::milliseconds(20);

    /// Exact to some milliseconds, and read in a fraction of the time of the exact clock: every row asks.
    static std::chrono::nanoseconds now() {
        timespec time{};
        ::clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    }

    std::chrono::nanoseconds m_lastLeft = now();
};

}  // namespace QOR
