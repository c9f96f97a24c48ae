/// \file
/// From the text of a request to the text of its answer.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "QORMessage/QORAnswer.h"
#include "QORMessage/QORMessageStore.h"
#include "host/QORPriming.h"

namespace QOR {

class QORClientSession;
struct QORRequestEnvelope;

/// How large an answer that is sent as a whole may be. Beyond, it is an error that says how to get the rest; answers
/// that are streamed have no such bound.
struct QORAnswerLimits {
    std::int64_t rows = 100'000;
    std::size_t bytes = std::size_t{64} << 20;  ///< of its text
};

/// Reads requests, finds the operator, runs them and writes the answers. Thread-safe.
class QORRouter {
public:
    /// \param primed operators that must be asked before clients may ask them, as their factories say; those that
    /// come with no priming request are not
    explicit QORRouter(const std::vector<std::string>& primed = {}, const QORMessageLimits& limits = {},
                       const QORAnswerLimits& answers = {});
    ~QORRouter();

    struct Answer {
        std::string text;        ///< message notation; empty when the answer was streamed
        bool readable = true;    ///< false when the request was no request at all
        QORMemoryCharge memory;  ///< what the text counts for the account of the calling thread
    };
    /// Answers one request, an envelope in message notation. Never throws: every failure is an error of the answer.
    /// An operator or a request name that nobody serves is an error 400. A request that has not been answered when the
    /// calling thread's QORRequestControl ends, or when the time has passed that it names itself (element 2404,
    /// milliseconds), is an error 408.
    Answer answer(QORClientSession& session, std::string_view json);

    struct Streamed {
        Answer answer;      ///< with a text when nothing has left through the output, which is then all there is
        bool whole = true;  ///< false when what left is no whole answer: it must not look like one to its reader
    };
    /// The same for an answer of any size, which leaves through `output` while it is made: its first row at once, then
    /// by and by. Each time something was taken, the deadline of the thread's request begins anew. An error after the
    /// first row stands behind the rows. \param output may wait for its reader
    Streamed stream(QORClientSession& session, std::string_view json, const QORAnswerOutput& output);
    /// Has an operator answer a request that is at hand as a tree. The answer goes to `format` while it is written, its
    /// errors to the format's end(); what format and `afterRow` throw is thrown.
    /// \throws QORException for a client that the request may not name, and for an operator that cannot be primed
    void ask(QORClientSession& session, QORRequestEnvelope& request, QORAnswerFormat& format,
             const QORAnswerWriter::AfterRow& afterRow);
    /// The answer's text alone.
    std::string handle(QORClientSession& session, std::string_view json) { return answer(session, json).text; }

    /// For answers that begin from now on. Any thread.
    void setAnswerLimits(const QORAnswerLimits& limits) noexcept;
    QORAnswerLimits answerLimits() const noexcept;

    /// Asks the priming requests that are still open. \returns what failed, one text an operator
    std::vector<std::string> prime();
    /// True when no operator's clients are kept waiting.
    bool isPrimed() const;

private:
    class Whole;
    class Stream;
    class Direct;
    /// What becomes of an answer that is being written.
    class Destination;

    void serve(QORClientSession& session, std::string_view json, Destination& destination);
    void run(QORClientSession& session, QORRequestEnvelope& request, Destination& destination);

    const QORMessageLimits m_limits;
    std::atomic<std::int64_t> m_answerRows;
    std::atomic<std::size_t> m_answerBytes;
    std::vector<std::unique_ptr<QORPriming>> m_priming;
};

}  // namespace QOR
