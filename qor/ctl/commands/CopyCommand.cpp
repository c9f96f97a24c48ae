#include <unistd.h>

#include "QORCommon/QORText.h"
#include "commands/Commands.h"
#include "commands/MovingErrors.h"
#include "commands/Printing.h"
#include "commands/RecordProgress.h"
#include "copy/QORDatabaseCopy.h"
#include "output/Output.h"
#include "process/Interrupt.h"

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

constexpr const char* copyGoesOn = "what was copied stays, and the same command goes on where it stood";

std::unique_ptr<QORDatabaseCopy> open(QORCopyOptions options) {
    try {
        return std::make_unique<QORDatabaseCopy>(std::move(options));
    } catch (const std::exception& error) {
        throw CtlError::noConnection(error.what());
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
    RecordProgress progress(options.progress);
    QORCopyOptions copy;
    copy.from = options.from;
    copy.to = options.to;
    copy.progress = [&](const QORCopyProgress& now) {
        progress.tell(nameOf(now.part), now.records, now.of, now.resumed);
    };
    copy.stop = [&] { return interrupt.isRequested(); };
    const QORCopyReport report = [&] {
        const auto opened = open(std::move(copy));
        return endingWell(copyGoesOn, [&] { return opened->run(); });
    }();
    progress.clear();
    if (report.stopped) throw CtlError(CtlExit::Interrupted, std::string("stopped; ") + copyGoesOn);
    print(report);
    if (!report.changed.empty())
        tellPerson("the source was written to meanwhile, and is not any more what was copied: " +
                   joinTexts(report.changed));
    if (report.miscounted == 0) return;
    throw CtlError(
        CtlExit::AnsweredError,
        std::to_string(report.miscounted) +
            " groups of records are counted wrong, as they are in the source; \"qorctl check --mend\" counts "
            "them anew");
}

}  // namespace QOR
