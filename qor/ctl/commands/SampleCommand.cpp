#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "commands/RecordStream.h"
#include "output/ManyRows.h"
#include "process/Interrupt.h"

namespace QOR {
namespace {

constexpr mode_t outputMode = 0666;  // less the person's umask

/// A file opened for writing.
QORFileDescriptor openOutput(const std::string& path) {
    try {
        return openOwnFile(path, O_WRONLY | O_CREAT | O_TRUNC, outputMode);
    } catch (const QORException& error) {
        throw CtlError::usage("cannot write " + path + ": " + error.message());
    }
}

void writeSample(QORSampleData& sample, const std::string& path, bool mayAsk) {
    if (path == "-") ManyRows(asksBeforeMany(mayAsk)).expect(static_cast<std::int64_t>(sample.total()));
    const QORFileDescriptor file = path == "-" ? QORFileDescriptor() : openOutput(path);
    FileOutput out(path == "-" ? STDOUT_FILENO : file.get());
    for (std::string line; sample.next(line);)
        out << line << "\n";
    out.flush();
}

}  // namespace

void runSample(const ConnectionOptions& connection, const SampleCommandOptions& options) {
    QORSampleData sample(options.sample);
    if (sample.total() == 0)
        throw CtlError::usage("say how much: --environments N, --operations N, --events N, --backups N");
    if (options.output) return writeSample(sample, *options.output, options.asks);
    const auto backend = makeBackend(connection, BackendUse::Store);
    const Interrupt interrupt;
    RecordStream records(*backend, options.report, {.lines = sample.total()});
    std::string line;
    while (!interrupt.isRequested() && sample.next(line))
        if (!records.add(line)) break;
    records.finish();
    records.report(interrupt.isRequested());
}

}  // namespace QOR
