/// \file
/// From the text of a request to the text of its answer.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "QORMessage/QORMessageStore.h"
#include "host/QORPriming.h"

namespace QOR {

class QORClientSession;

/// Reads requests, finds the operator, runs them and writes the answers. Thread-safe.
class QORRouter {
public:
    /// \param primed operators that must be asked before clients may ask them, as their factories say; those that
    /// come with no priming request are not
    explicit QORRouter(const std::vector<std::string>& primed = {}, const QORMessageLimits& limits = {});
    ~QORRouter();

    struct Answer {
        std::string text;      ///< message notation
        bool readable = true;  ///< false when the request was no request at all
    };
    /// Answers one request, an envelope in message notation. Never throws: every failure is an error of the answer.
    /// An operator or a request name that nobody serves is an error 400.
    Answer answer(QORClientSession& session, std::string_view json);
    /// The answer's text alone.
    std::string handle(QORClientSession& session, std::string_view json) { return answer(session, json).text; }

    /// Asks the priming requests that are still open. \returns what failed, one text an operator
    std::vector<std::string> prime();
    /// True when no operator's clients are kept waiting.
    bool isPrimed() const;

private:
    Answer answerOrThrow(QORClientSession& session, std::string_view json);
    void run(QORClientSession& session, QORRequestEnvelope& request, std::string& out);

    const QORMessageLimits m_limits;
    std::vector<std::unique_ptr<QORPriming>> m_priming;
};

}  // namespace QOR
