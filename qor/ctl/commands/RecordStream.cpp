#include "commands/RecordStream.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

#include "commands/Printing.h"
#include "commands/RecordProgress.h"

namespace QOR {
namespace {

constexpr std::uint64_t batchLines = 1000;
constexpr std::size_t batchBytes = 8 * 1024 * 1024;
constexpr std::uint64_t refusedToldAtMost = 20;
constexpr auto terminalPace = std::chrono::milliseconds(100);
constexpr auto logPace = std::chrono::seconds(1);

}  // namespace

RecordStream::RecordStream(Backend& backend, const ReportOptions& options, const Expected& expected)
    : m_backend(backend), m_options(options), m_expected(expected), m_terminal(::isatty(STDERR_FILENO) != 0) {}

bool RecordStream::add(std::string_view line) {
    ++m_lines;
    m_bytes += line.size() + 1;
    ++m_linesInBatch;
    m_batch.append(line) += '\n';
    return m_linesInBatch < batchLines && m_batch.size() < batchBytes ? true : send();
}

void RecordStream::finish() {
    if (m_linesInBatch > 0 && !m_result.failure) send();
    tellProgress(true);
    clearProgress();
}

bool RecordStream::send() {
    QORIngestResult result = m_backend.importBatch(m_batch, m_lines - m_linesInBatch + 1);
    m_batch.clear();
    m_linesInBatch = 0;
    tellRefused(result);
    result.refusedLines.clear();  // told; a long import would gather them without end
    m_result.merge(result);
    giveUpAfterRefusals(result);
    tellProgress(false);
    return !m_result.failure;
}

/// What a batch's own bound on bad lines is for one batch. With a good line among them a batch begins anew.
void RecordStream::giveUpAfterRefusals(const QORIngestResult& result) {
    m_refusedInARow = result.accepted() > 0 ? 0 : m_refusedInARow + result.refused;
    if (m_refusedInARow < QORIngestOptions().refusedInARow || m_result.failure) return;
    m_result.failure = QORIngestFailure{
        m_lines + 1, m_lines + 1,
        "the " + std::to_string(m_refusedInARow) + " lines before it are no records; the rest was not read"};
}

void RecordStream::tellRefused(const QORIngestResult& result) {
    for (const QORRefusedLine& refused : result.refusedLines) {
        if (!m_options.verbose && m_refusedTold == refusedToldAtMost) return;
        clearProgress();
        tellPerson("line " + std::to_string(refused.line) + ": " + refused.reason);
        ++m_refusedTold;
    }
}

/// On a terminal one line that is written over; elsewhere, when asked for, a line now and then.
void RecordStream::tellProgress(bool last) {
    if (!m_terminal && !m_options.progress) return;
    const auto now = Clock::now();
    if (!last && now - m_lastProgress < (m_terminal ? Clock::duration(terminalPace) : Clock::duration(logPace))) return;
    m_lastProgress = now;
    // By lines where they are known, or else by bytes: of the last line the end may be missing.
    const std::uint64_t done = m_expected.lines > 0 ? m_lines : std::min(m_bytes, m_expected.bytes);
    const std::uint64_t of = m_expected.lines > 0 ? m_expected.lines : m_expected.bytes;
    std::string text;
    if (of > 0) text += std::to_string(done * 100 / of) + "%, ";
    text += std::to_string(m_lines);
    if (m_expected.lines > 0) text += " of " + std::to_string(m_expected.lines);
    text +=
        " lines, " + std::to_string(m_result.accepted()) + " stored, " + std::to_string(m_result.refused) + " refused";
    const double lines = static_cast<double>(m_lines);
    const double all = done > 0 ? lines * static_cast<double>(of) / static_cast<double>(done) : 0;
    const std::string rate = describeRate(lines, all, std::chrono::duration<double>(now - m_began).count());
    if (!rate.empty()) text += ", " + rate;
    std::cerr << (m_terminal ? "\r\x1b[K" : "") << text << (m_terminal ? "" : "\n") << std::flush;
    m_progressShown = m_terminal;
}

void RecordStream::clearProgress() {
    if (m_progressShown) std::cerr << "\r\x1b[K" << std::flush;
    m_progressShown = false;
}

void RecordStream::report(bool interrupted) {
    if (m_result.refused > m_refusedTold)
        tellPerson("and " + std::to_string(m_result.refused - m_refusedTold) +
                   " refused lines more (--verbose names them all)");
    FileOutput out(STDOUT_FILENO);
    out << describeCounts(m_result);
    out.flush();
    if (m_result.failure)
        throw CtlError::answered(1, "records from line " + std::to_string(m_result.failure->firstLine) +
                                        " on are not stored: " + m_result.failure->reason);
    if (interrupted) throw CtlError(CtlExit::Interrupted, "interrupted; the counts are what is stored");
    if (m_result.refused > 0)
        throw CtlError(CtlExit::AnsweredError, std::to_string(m_result.refused) +
                                                   (m_result.refused == 1 ? " line was" : " lines were") +
                                                   " refused; the others are stored");
}

std::string describeCounts(const QORIngestResult& result) {
    std::string text;
    for (std::size_t index = 0; index < recordKindCount; ++index) {
        const QORIngestCounts& counts = result.counts[index];
        text.append(recordKindName(static_cast<QORRecordKind>(index))) +=
            ": " + std::to_string(counts.added) + " added, " + std::to_string(counts.replaced) + " replaced";
        if (counts.unchanged > 0) text += ", " + std::to_string(counts.unchanged) + " unchanged";
        text += '\n';
    }
    return text + "refused: " + std::to_string(result.refused) + "\n";
}

}  // namespace QOR
