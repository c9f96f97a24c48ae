#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Interrupt.h"
#include "commands/Commands.h"
#include "commands/RecordStream.h"

namespace QOR {
namespace {

/// A file opened for writing, or standard output for "-".
class OutputFile {
public:
    explicit OutputFile(const std::string& path) {
        if (path == "-") return;
        m_descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (m_descriptor < 0)
            throw QORCtlError::usage("cannot write " + path + ": " + std::generic_category().message(errno));
    }
    ~OutputFile() {
        if (m_descriptor != STDOUT_FILENO) ::close(m_descriptor);
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    int descriptor() const noexcept { return m_descriptor; }

private:
    int m_descriptor = STDOUT_FILENO;
};

void writeSample(QORSampleData& sample, const std::string& path) {
    const OutputFile file(path);
    QORFileOutput out(file.descriptor());
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
