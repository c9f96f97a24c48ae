#include <fcntl.h>
#include <unistd.h>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "commands/Commands.h"
#include "commands/RecordStream.h"
#include "process/Interrupt.h"

namespace QOR {
namespace {

constexpr mode_t outputMode = 0666;  // less the person's umask

/// A file opened for writing.
QORFileDescriptor openOutput(const std::string& path) {
    try {
        return openOwnFile(path, O_WRONLY | O_CREAT | O_TRUNC, outputMode);
    } catch (const QORException& error) {
        throw QORCtlError::usage("cannot write " + path + ": " + error.message());
    }
}

void writeSample(QORSampleData& sample, const std::string& path) {
    const QORFileDescriptor file = path == "-" ? QORFileDescriptor() : openOutput(path);
    QORFileOutput out(path == "-" ? STDOUT_FILENO : file.get());
    for (std::string line; sample.next(line);)
        out << line << "\n";
    out.flush();
}

}  // namespace

void runSample(const QORConnectionOptions& connection, const QORSampleCommandOptions& options) {
    QORSampleData sample(options.sample);
    if (sample.total() == 0)
        throw QORCtlError::usage("say how much: --environments N, --operations N, --events N, --backups N");
    if (options.output) return writeSample(sample, *options.output);
    const auto backend = makeBackend(connection, QORBackendUse::Store);
    const QORInterrupt interrupt;
    QORRecordStream records(*backend, options.report, sample.total());
    std::string line;
    while (!interrupt.isRequested() && sample.next(line))
        if (!records.add(line)) break;
    records.finish();
    records.report(interrupt.isRequested());
}

}  // namespace QOR
