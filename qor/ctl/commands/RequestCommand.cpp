#include <unistd.h>

#include "commands/Commands.h"
#include "commands/Printing.h"

namespace QOR {
namespace {

/// Passes an answer on to the output while somebody reads it.
class EchoingSource final : public QORAnswerSource {
public:
    EchoingSource(QORAnswerSource& source, QOROutput& out) : m_source(source), m_out(out) {}
    std::string_view read() override {
        const std::string_view piece = m_source.read();
        m_out << piece;
        return piece;
    }

private:
    QORAnswerSource& m_source;
    QOROutput& m_out;
};

class NoRows final : public QORRowSink {
public:
    void begin(std::span<const std::string>) override {}
    void row(std::span<const QORCell>) override {}
    void end(const std::optional<QORRowCounts>&) override {}
};

void runOne(QORBackend& backend, const std::string& request, QOROutput& out) {
    const auto answer = backend.ask(request);
    EchoingSource echo(*answer, out);
    NoRows rows;
    const auto error = readAnswer(echo, rows);
    out << "\n";
    out.flush();
    if (error) throw QORCtlError::answered(error->code, error->message);
}

/// Errors are answers among the others here, for the reader of the lines to see.
void runLines(QORBackend& backend, const QORInputFile& input, QOROutput& out) {
    backend.answerLines(input.descriptor(), [&](std::string_view answer, bool idle) {
        out.buffer().append(answer) += '\n';
        if (idle)
            out.flush();
        else
            out.settle();
    });
    out.flush();
}

}  // namespace

void runRequest(const QORConnectionOptions& connection, const QORRequestOptions& options) {
    const QORInputFile input(options.file);
    const std::string request = options.lines ? std::string() : input.readAll(QORBackend::requestLimit);
    const auto backend = makeBackend(connection, QORBackendUse::Ask);
    tellOfNoEnvironment(*backend, {});
    QORFileOutput out(STDOUT_FILENO);
    if (options.lines)
        runLines(*backend, input, out);
    else
        runOne(*backend, request, out);
}

}  // namespace QOR
