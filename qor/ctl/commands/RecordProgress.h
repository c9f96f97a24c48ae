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
    /// \param unit what is counted
    explicit RecordProgress(bool asked, bool amongRows = false, const char* unit = "records");
    ~RecordProgress() { clear(); }
    RecordProgress(const RecordProgress&) = delete;
    RecordProgress& operator=(const RecordProgress&) = delete;

    /// \param part what is going on; another one begins anew \param of 0: nobody knows how many there
    /// are; with no records either there is nothing to count
    /// \param resumed those of `records` that earlier runs have done
    void tell(const std::string& part, std::uint64_t records, std::uint64_t of, std::uint64_t resumed);
    void clear();
    /// Takes the line from the terminal, for something else to be written; the next one goes on.
    void hide() const;
    bool isShown() const noexcept { return m_shows; }

private:
    using Clock = std::chrono::steady_clock;

    const char* const m_unit;
    bool m_terminal;
    bool m_shows;
    bool m_any = false;
    std::string m_part;
    Clock::time_point m_began;
    Clock::time_point m_last;
};

/// "12000 a second", and when all of them are known ", 3 s left"; empty before anything is done.
/// \param of 0: nobody knows
std::string describeRate(double done, double of, double seconds);

}  // namespace QOR
