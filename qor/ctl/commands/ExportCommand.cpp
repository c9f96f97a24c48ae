#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "commands/Commands.h"
#include "commands/ExportFile.h"
#include "commands/Printing.h"
#include "commands/RecordProgress.h"
#include "output/ManyRows.h"
#include "output/Output.h"
#include "process/Interrupt.h"

namespace QOR {
namespace {

QORExportQuestion questionOf(const ExportOptions& options) {
    QORExportQuestion question;
    for (const std::string& word : options.kinds) {
        const auto kind = recordKindOfPlural(word);
        if (kind && std::find(question.kinds.begin(), question.kinds.end(), *kind) == question.kinds.end())
            question.kinds.push_back(*kind);
    }
    std::sort(question.kinds.begin(), question.kinds.end());
    const std::int64_t now = currentTime();
    question.from = secondsOf("--since", options.bounds.since, now);
    question.to = secondsOf("--until", options.bounds.until, now);
    if (!options.environment.empty() && !question.environment.fromString(options.environment))
        throw CtlError::usage("--environment " + quoteText(options.environment) + " is no identifier of one");
    return question;
}

/// A time that is told from now is another one by the time that an export is gone on with.
bool isSameTime(const std::optional<std::int64_t>& begun, const std::optional<std::int64_t>& asked,
                const std::optional<std::string>& written) {
    const bool isToldFromNow = written && !parseTime(*written);
    return isToldFromNow ? begun.has_value() : begun == asked;
}

bool isSame(const QORExportQuestion& begun, const QORExportQuestion& asked, const TimeBounds& written) {
    return begun.kinds == asked.kinds && begun.environment == asked.environment &&
           isSameTime(begun.from, asked.from, written.since) && isSameTime(begun.to, asked.to, written.until);
}

/// Where an export is written, and up to where it is there.
class ExportTarget {
public:
    explicit ExportTarget(const ExportOptions& options) : m_path(options.file == "-" ? "" : options.file) {
        if (options.resumes && m_path.empty())
            throw CtlError::usage("--resume goes on with a file; name it with --output FILE");
        m_position = QORExportPosition(questionOf(options));
        if (options.resumes) {
            resume(options.bounds);
        } else if (!m_path.empty()) {
            checkReplaced(m_path);
        }
    }

    bool isWhole() const { return m_there.hasEnded(); }
    const QORExportPosition& position() const noexcept { return m_position; }

    /// Only when there is something to write: nothing is lost where nobody answers. Identities hide records from each
    /// other, so a new file is for this user alone.
    void open() {
        if (m_path.empty()) return;
        try {
            m_file = openOwnFile(m_path, O_WRONLY | O_CREAT);
        } catch (const QORException& error) {
            throw CtlError::usage("cannot write " + m_path + ": " + error.message());
        }
        struct stat found {};
        m_isRegular = ::fstat(m_file.get(), &found) == 0 && S_ISREG(found.st_mode);
        if (m_isRegular && (::ftruncate(m_file.get(), m_there.positionEnd()) != 0 ||
                            ::lseek(m_file.get(), m_there.positionEnd(), SEEK_SET) < 0))
            throw CtlError::usage("cannot write " + m_path + ": " + std::generic_category().message(errno));
    }
    /// When everything is written: it is on the disk then. \throws CtlError
    void close() {
        if (m_path.empty()) return;
        if ((m_isRegular && ::fsync(m_file.get()) != 0) || ::close(m_file.release()) != 0)
            throw CtlError(CtlExit::AnsweredError,
                           "cannot write " + m_path + " to the disk: " + std::generic_category().message(errno))
                .advised("it may look whole; export it anew, without --resume");
    }
    bool isStandardOutput() const { return m_path.empty(); }
    int descriptor() const { return m_path.empty() ? STDOUT_FILENO : m_file.get(); }

    /// What helps whose export has broken off.
    std::string advice() const {
        return m_path.empty() ? "what came of it is not whole"
                              : "the same command with --resume goes on where " + m_path + " ends";
    }

private:
    void resume(const TimeBounds& written) {
        m_there = readExportFile(m_path);
        if (!m_there.position()) return;
        if (!isSame(m_there.position()->question, m_position.question, written))
            throw CtlError::usage(m_path +
                                  " is an export of something else; --resume goes on with the same --kinds, --since, "
                                  "--until and --environment");
        m_position = *m_there.position();
    }

    const std::string m_path;  ///< empty: standard output
    QORExportPosition m_position;
    ExportLines m_there{false};
    QORFileDescriptor m_file;
    bool m_isRegular = false;
};

/// Writes what comes. \returns its lines
ExportLines writeAll(AnswerSource& records, ExportTarget& target, ManyRows& many, RecordProgress& progress) {
    const std::uint64_t resumed = target.position().records();
    std::string_view piece = records.read();
    target.open();
    endOnInterrupt("interrupted; " + target.advice());
    FileOutput out(target.descriptor());
    ExportLines lines(target.position().begun);
    try {
        for (std::uint64_t before = 0; !piece.empty(); piece = records.read()) {
            const bool any = lines.take(piece) && lines.position();
            const std::uint64_t done = any ? lines.position()->records() : before;
            const auto of = any ? lines.position()->of : std::nullopt;
            if (of) many.expect(static_cast<std::int64_t>(*of));
            many.row(out, static_cast<std::int64_t>(done - std::exchange(before, done)));
            out << piece;
            if (!any) continue;
            progress.tell("exporting", done, of ? std::max(*of, done) : 0, resumed);
        }
        out.flush();
    } catch (const CtlError& error) {
        out.flush();
        progress.clear();
        throw error.advised(target.advice());
    }
    progress.clear();
    return lines;
}

}  // namespace

void runExport(const ConnectionOptions& connection, const ExportOptions& options) {
    ExportTarget target(options);
    if (target.isWhole()) return tellNote(options.file + " is whole already");
    const auto backend = makeBackend(connection, BackendUse::Inspect);
    const auto records = backend->exportRecords(target.position());
    RecordProgress progress(options.progress, target.isStandardOutput() && ::isatty(STDOUT_FILENO) != 0);
    ManyRows many(target.isStandardOutput() && asksBeforeMany(options.asks));
    const ExportLines lines = writeAll(*records, target, many, progress);
    if (!lines.hasEnded()) throw CtlError(CtlExit::AnsweredError, "the export has no end").advised(target.advice());
    target.close();
    endOnInterrupt();
    if (lines.unreadable() > 0)
        tellPerson(std::to_string(lines.unreadable()) +
                   " records lack a document, which cannot be read in the database; \"qorctl check\" names them");
}

}  // namespace QOR
