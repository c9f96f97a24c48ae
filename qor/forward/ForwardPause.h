/// \file
/// How long is waited before something is tried again.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>

namespace QOR {

/// Twice as long each time, up to a bound, and by chance up to a half shorter: those that have lost the same agent do
/// not all come back at once. A value; used by one thread.
class ForwardPause {
public:
    /// \param longest of the pauses that nobody has asked for
    explicit ForwardPause(std::chrono::milliseconds longest) : m_longest(longest), m_random(std::random_device{}()) {}

    /// \param asked seconds that the other side wants to be left alone for, 0 for none
    std::chrono::milliseconds next(std::uint64_t asked) {
        constexpr std::uint64_t mostAsked = 3600;
        const auto most = std::min(m_next, m_longest);
        m_next = std::min(m_next * 2, m_longest);
        std::uniform_int_distribution<std::chrono::milliseconds::rep> part(most.count() / 2, most.count());
        const std::chrono::milliseconds own(part(m_random));
        return std::max<std::chrono::milliseconds>(own, std::chrono::seconds(std::min(asked, mostAsked)));
    }
    /// It has worked.
    void reset() noexcept { m_next = first; }

private:
    static constexpr std::chrono::milliseconds first{250};

    const std::chrono::milliseconds m_longest;
    std::chrono::milliseconds m_next = first;
    std::minstd_rand m_random;
};

}  // namespace QOR
