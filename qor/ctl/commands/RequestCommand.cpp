#include <unistd.h>

#include "commands/Commands.h"
#include "commands/Printing.h"

namespace QOR {
namespace {

/// Passes an answer on to the output while somebody reads it.
class EchoingSource final : public AnswerSource {
public:
    EchoingSource(AnswerSource& source, Output& out) : m_source(source), m_out(out) {}
    std::string_view read() override {
        const std::string_view piece = m_source.read();
        m_out << piece;
        return piece;
    }

private:
    AnswerSource& m_source;
    Output& m_out;
};

class NoRows final : public RowSink {
public:
    void begin(std::span<const std::string>) override {}
    void row(std::span<const Cell>) override {}
    void end(const std::optional<RowCounts>&) override {}
};

void runOne(Backend& backend, const std::string& request, Output& out) {
    const auto answer = backend.ask(request);
    EchoingSource echo(*answer, out);
    NoRows rows;
    const auto error = readAnswer(echo, rows);
    out << "\n";
    out.flush();
    if (error) throw CtlError::answered(error->code, error->message);
}

/// A line for each answer. Errors are answers among the others here, for the reader of the lines to see.
class AnswerLines final : public Backend::LineAnswers {
public:
    explicit AnswerLines(Output& out) : m_out(out) {}
    void piece(std::string_view text) override { m_out << text; }
    void end(bool idle) override {
        m_out << "\n";
        if (idle) m_out.flush();
    }

private:
    Output& m_out;
};

void runLines(Backend& backend, const InputFile& input, Output& out) {
    AnswerLines answers(out);
    backend.answerLines(input.descriptor(), answers);
    out.flush();
}

}  // namespace

void runRequest(const ConnectionOptions& connection, const RequestOptions& options) {
    const InputFile input(options.file);
    const std::string request = options.lines ? std::string() : input.readAll(Backend::requestLimit);
    const auto backend = makeBackend(connection, BackendUse::Ask);
    tellOfNoEnvironment(*backend, {});
    FileOutput out(STDOUT_FILENO);
    if (options.lines)
        runLines(*backend, input, out);
    else
        runOne(*backend, request, out);
}

}  // namespace QOR
