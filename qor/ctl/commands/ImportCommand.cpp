#include "commands/Commands.h"
#include "commands/RecordStream.h"
#include "process/Interrupt.h"
#include "process/LineInput.h"

namespace QOR {
namespace {

/// One byte more than a record may have, so that a line that is cut here is still refused there as too long.
constexpr std::size_t lineLimit = QORIngestOptions{}.maxLineBytes + 1;

}  // namespace

void runImport(const QORConnectionOptions& connection, const QORImportOptions& options) {
    const QORInputFile input(options.file);
    const auto backend = makeBackend(connection, QORBackendUse::Store);
    const QORInterrupt interrupt;
    QORLineInput lines(input.descriptor(), interrupt.descriptor(), lineLimit);
    QORRecordStream records(*backend, options.report, 0);
    while (!interrupt.isRequested() && lines.next() == QORLineInput::Got::Line)
        if (!records.add(lines.line())) break;
    records.finish();
    records.report(interrupt.isRequested());
}

}  // namespace QOR
