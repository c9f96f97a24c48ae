#include "host/QORRouter.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "host/QORClientSession.h"

namespace QOR {
namespace {

std::string errorText(int code, std::string_view message) {
    std::string text;
    writeErrorResponse(code, message, text);
    return text;
}

/// What is left to say when there is no memory to say more.
constexpr const char* outOfMemory = R"({"response":[],"error":{"code":1,"message":"out of memory"}})";

}  // namespace

QORRouter::QORRouter(const std::vector<std::string>& primed, const QORMessageLimits& limits) : m_limits(limits) {
    for (const std::string& operatorName : primed)
        m_priming.push_back(std::make_unique<QORPriming>(operatorName));
}

QORRouter::~QORRouter() = default;

QORRouter::Answer QORRouter::answer(QORClientSession& session, std::string_view json) {
    try {
        return answerOrThrow(session, json);
    } catch (const std::bad_alloc&) {
        return {outOfMemory, true};
    } catch (const QORException& exception) {
        return {errorText(exception.code(), exception.message()), true};
    } catch (const std::exception& exception) {
        return {errorText(errFailure, exception.what()), true};
    } catch (...) {
        return {errorText(errFailure, "unknown failure"), true};
    }
}

QORRouter::Answer QORRouter::answerOrThrow(QORClientSession& session, std::string_view json) {
    QORRequestEnvelope request;
    try {
        request = readRequest(json, m_limits);
    } catch (const QORException& exception) {
        return {errorText(exception.code(), exception.message()), false};
    }
    Answer answer;
    run(session, request, answer.text);
    return answer;
}

void QORRouter::run(QORClientSession& session, QORRequestEnvelope& request, std::string& out) {
    const QORClientContextPtr identity = session.contextFor(request.client);
    for (const auto& priming : m_priming) {
        if (priming->operatorName() != request.operatorName) continue;
        if (const auto error = priming->ensure()) throw QORException(error->code, error->message);
    }
    session.withMessage([&](QORMessage& message) {
        QORBinaryIterator in = request.body.root();
        in.firstChild();
        QORBinaryIterator response = message.root();
        switch (session.run(identity, request.operatorName, request.requestName, in, response)) {
            case QORClientSession::Outcome::Done:
                writeResponse(message, out);
                return;
            case QORClientSession::Outcome::UnknownOperator:
                throw QORException(errBadRequest, "unknown operator " + quoteText(request.operatorName));
            case QORClientSession::Outcome::UnknownRequest:
                throw QORException(errBadRequest, "unknown request " + quoteText(request.requestName) +
                                                      " of operator " + quoteText(request.operatorName));
        }
    });
}

std::vector<std::string> QORRouter::prime() {
    std::vector<std::string> failures;
    for (const auto& priming : m_priming) {
        const auto error = priming->ensure();
        if (error) failures.push_back("operator \"" + priming->operatorName() + "\": " + error->message);
    }
    return failures;
}

bool QORRouter::isPrimed() const {
    return std::none_of(m_priming.begin(), m_priming.end(), [](const auto& priming) { return priming->isPending(); });
}

}  // namespace QOR
