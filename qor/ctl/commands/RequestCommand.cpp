#include <unistd.h>

#include <string_view>
#include <utility>

#include "commands/Commands.h"
#include "commands/Printing.h"
#include "output/ManyRows.h"

namespace QOR {
namespace {

/// Passes an answer on to the output while somebody reads it: each piece when it has been read.
class EchoingSource final : public AnswerSource {
public:
    EchoingSource(AnswerSource& source, Output& out) : m_source(source), m_out(out) {}
    std::string_view read() override {
        pass();
        return m_piece = m_source.read();
    }
    /// The last piece that was read.
    void pass() { m_out << std::exchange(m_piece, {}); }

private:
    std::string_view m_piece;
    AnswerSource& m_source;
    Output& m_out;
};

/// Only counts rows: they are shown as the answer has them.
class CountedRows final : public RowSink {
public:
    CountedRows(ManyRows& many, Output& out) : m_many(many), m_out(out) {}
    void begin(std::span<const std::string>) override {}
    void row(std::span<const Cell>) override { m_many.row(m_out); }
    void end(const std::optional<RowCounts>&) override {}

private:
    ManyRows& m_many;
    Output& m_out;
};

void runOne(Backend& backend, const std::string& request, ManyRows& many, Output& out) {
    const auto answer = backend.ask(request);
    EchoingSource echo(*answer, out);
    CountedRows rows(many, out);
    const auto error = readAnswer(echo, rows);
    echo.pass();
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
    if (options.lines) return runLines(*backend, input, out);
    ManyRows many(asksBeforeMany(options.asks));
    runOne(*backend, request, many, out);
}

}  // namespace QOR
