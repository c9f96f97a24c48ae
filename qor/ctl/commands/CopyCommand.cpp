#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>

#include "QORCommon/QORException.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "copy/QORDatabaseCopy.h"
#include "output/Output.h"
#include "process/Interrupt.h"
#include "rdbmspp/engine/AException.h"

namespace QOR {
namespace {

const char* nameOf(QORCopyProgress::Part part) {
    switch (part) {
        case QORCopyProgress::Part::Reading:
            return "reading the source";
        case QORCopyProgress::Part::Copying:
            return "copying";
        case QORCopyProgress::Part::Indexing:
            return "making indexes and triggers";
        case QORCopyProgress::Part::Checking:
            return "reading the copy back";
        default:
            return "checking counters";
    }
}

/// On a terminal one line that is written over; elsewhere, when asked for, a line now and then.
class CopyProgress {
public:
    explicit CopyProgress(bool asked) : m_terminal(::isatty(STDERR_FILENO) != 0), m_shows(asked || m_terminal) {}
    ~CopyProgress() { clear(); }
    CopyProgress(const CopyProgress&) = delete;
    CopyProgress& operator=(const CopyProgress&) = delete;

    void tell(const QORCopyProgress& progress) {
        if (!m_shows) return;
        const auto now = Clock::now();
        const bool begins = progress.part != m_part || !m_any;
        if (begins) m_began = now;
        const Clock::duration pace = m_terminal ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
        if (!begins && progress.records != progress.of && now - m_last < pace) return;
        m_part = progress.part;
        m_any = true;
        m_last = now;
        const std::string text = textOf(progress, std::chrono::duration<double>(now - m_began).count());
        std::cerr << (m_terminal ? "\r\x1b[K" : "") << text << (m_terminal ? "" : "\n") << std::flush;
    }
    void clear() {
        if (m_terminal && m_any) std::cerr << "\r\x1b[K" << std::flush;
        m_any = false;
    }

private:
    using Clock = std::chrono::steady_clock;

    static std::string textOf(const QORCopyProgress& progress, double seconds) {
        std::string text = nameOf(progress.part);
        if (progress.of == 0) return text;
        text += ": " + std::to_string(progress.records * 100 / progress.of) + "%, " + std::to_string(progress.records) +
                " of " + std::to_string(progress.of) + " records";
        const auto done = static_cast<double>(progress.records - progress.resumed);
        if (seconds <= 0 || done <= 0) return text;
        const double rate = done / seconds;
        const auto left = static_cast<std::uint64_t>(static_cast<double>(progress.of - progress.records) / rate);
        return text + ", " + std::to_string(static_cast<std::uint64_t>(rate)) + " a second, " + std::to_string(left) +
               " s left";
    }

    bool m_terminal;
    bool m_shows;
    bool m_any = false;
    QORCopyProgress::Part m_part{};
    Clock::time_point m_began;
    Clock::time_point m_last;
};

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

constexpr const char* goesOn = "what was copied stays, and the same command goes on where it stood";

std::unique_ptr<QORDatabaseCopy> open(QORCopyOptions options) {
    try {
        return std::make_unique<QORDatabaseCopy>(std::move(options));
    } catch (const std::exception& error) {
        throw CtlError::noConnection(error.what());
    }
}

QORCopyReport run(QORDatabaseCopy& copy) {
    try {
        return copy.run();
    } catch (const AException& error) {
        const bool isAway = error.failure() == ASFailure::Unreachable || error.failure() == ASFailure::Undecided;
        throw CtlError(isAway ? CtlExit::NoConnection : CtlExit::AnsweredError, error.text() + "; " + goesOn);
    } catch (const QORException& error) {
        throw CtlError(CtlExit::AnsweredError, error.message());
    }
}

void print(const QORCopyReport& report) {
    FileOutput out(STDOUT_FILENO);
    std::uint64_t records = 0;
    for (const QORCopiedTable& table : report.tables) {
        out << table.name + ": " + std::to_string(table.records) + " records, sha256 " + table.digest + "\n";
        records += table.records;
    }
    out << "copied: " + std::to_string(records) + " records, the same on both sides\n";
    out.flush();
}

}  // namespace

void runCopy(const CopyCommandOptions& options) {
    const Interrupt interrupt;
    CopyProgress progress(options.progress);
    QORCopyOptions copy;
    copy.from = options.from;
    copy.to = options.to;
    copy.progress = [&](const QORCopyProgress& now) { progress.tell(now); };
    copy.stop = [&] { return interrupt.isRequested(); };
    const QORCopyReport report = run(*open(std::move(copy)));
    progress.clear();
    if (report.stopped) throw CtlError(CtlExit::AnsweredError, std::string("stopped; ") + goesOn);
    print(report);
    if (!report.changed.empty())
        tellPerson("the source was written to meanwhile, and is not any more what was copied: " +
                   joined(report.changed));
    if (report.miscounted == 0) return;
    throw CtlError(
        CtlExit::AnsweredError,
        std::to_string(report.miscounted) +
            " groups of records are counted wrong, as they are in the source; \"qorctl check --mend\" counts "
            "them anew");
}

}  // namespace QOR
