#include "commands/Commands.h"
#include "commands/RecordStream.h"
#include "process/Interrupt.h"
#include "process/LineInput.h"

namespace QOR {
namespace {

/// One byte more than a record may have, so that a line that is cut here is still refused there as too long.
constexpr std::size_t lineLimit = QORIngestOptions{}.maxLineBytes + 1;

}  // namespace

void runImport(const ConnectionOptions& connection, const ImportOptions& options) {
    const InputFile input(options.file);
    const auto backend = makeBackend(connection, BackendUse::Store);
    const Interrupt interrupt;
    LineInput lines(input.descriptor(), interrupt.descriptor(), lineLimit);
    RecordStream records(*backend, options.report, 0);
    while (!interrupt.isRequested() && lines.next() == LineInput::Got::Line)
        if (!records.add(lines.line())) break;
    records.finish();
    records.report(interrupt.isRequested());
}

}  // namespace QOR
