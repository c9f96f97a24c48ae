/// \file
/// Many records on their way into the database: batches, progress, refused lines, counts at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "commands/Commands.h"

namespace QOR {

/// Sends records in batches and keeps the person informed on standard error. One run an object.
class RecordStream {
public:
    /// How much there is in all; 0 where nobody knows.
    struct Expected {
        std::uint64_t lines = 0;
        std::uint64_t bytes = 0;
    };
    RecordStream(Backend& backend, const ReportOptions& options, const Expected& expected);

    /// Adds a line; full batches are sent. False when the database refuses more, after which nothing more is taken.
    bool add(std::string_view line);
    /// Sends what is left.
    void finish();
    /// Prints the counts. \throws CtlError AnsweredError when anything was refused or not stored
    /// \param interrupted the person stopped it before the end
    void report(bool interrupted);

private:
    using Clock = std::chrono::steady_clock;

    bool send();
    void tellRefused(const QORIngestResult& result);
    void giveUpAfterRefusals(const QORIngestResult& result);
    void tellProgress(bool last);
    void clearProgress();

    Backend& m_backend;
    ReportOptions m_options;
    Expected m_expected;
    bool m_terminal;
    std::string m_batch;
    std::uint64_t m_linesInBatch = 0;
    std::uint64_t m_lines = 0;  ///< added so far
    std::uint64_t m_bytes = 0;  ///< in these
    Clock::time_point m_began = Clock::now();
    std::uint64_t m_refusedTold = 0;
    std::uint64_t m_refusedInARow = 0;
    QORIngestResult m_result;
    Clock::time_point m_lastProgress = Clock::now();
    bool m_progressShown = false;
};

/// The counts as lines: "operation: 5 added, 2 replaced".
std::string describeCounts(const QORIngestResult& result);

}  // namespace QOR
