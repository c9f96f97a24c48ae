/// \file
/// How far the moving of records is, for a person who waits.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace QOR {

/// On a terminal one line that is written over; elsewhere, when asked for, a line now and then. To standard error.
class RecordProgress {
public:
    /// \param asked also where there is no terminal
    /// \param amongRows the records themselves are shown on the terminal, where no line can be written over
    explicit RecordProgress(bool asked, bool amongRows = false);
    ~RecordProgress() { clear(); }
    RecordProgress(const RecordProgress&) = delete;
    RecordProgress& operator=(const RecordProgress&) = delete;

    /// \param part what is going on; another one begins anew \param of 0: nobody knows how many there
    /// are; with no records either there is nothing to count
    /// \param resumed those of `records` that earlier runs have done
    void tell(const std::string& part, std::uint64_t records, std::uint64_t of, std::uint64_t resumed);
    void clear();

private:
    using Clock = std::chrono::steady_clock;

    bool m_terminal;
    bool m_shows;
    bool m_any = false;
    std::string m_part;
    Clock::time_point m_began;
    Clock::time_point m_last;
};

}  // namespace QOR
