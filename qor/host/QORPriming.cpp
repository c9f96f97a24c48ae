#include "host/QORPriming.h"

#include <utility>

#include "QORCommon/QORLogger.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORMessage/QORBinaryIterator.h"
#include "host/QORClientSession.h"

namespace QOR {
namespace {

constexpr const char* module = "QORHost";
constexpr const char* sourcePath = "qor/host/QORPriming";

/// The error entry of a response, if it has one.
std::optional<QORPriming::Error> errorOf(QORMessage& response) {
    QORBinaryIterator at = response.root();
    if (at.seek(tag::error) != 0) return std::nullopt;
    QORPriming::Error error{errFailure, {}};
    at.getValue(error.code, tag::errorCode);
    at.getValue(error.message, tag::message);
    return error;
}

}  // namespace

QORPriming::QORPriming(QORPrimingRequest request) : m_request(std::move(request)) {
    readElement(m_request.body, m_body);
}

QORPriming::~QORPriming() = default;

bool QORPriming::isPending() const {
    return m_state.load(std::memory_order_acquire) == State::Unanswered &&
           QOROpFactoryRegistry::instance().find(m_request.operatorName) != nullptr;
}

std::optional<QORPriming::Error> QORPriming::ensure() {
    if (isDone() || !QOROpFactoryRegistry::instance().find(m_request.operatorName)) return std::nullopt;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_running) {
        m_ended.wait(lock, [this, seen = m_attempts] { return m_attempts != seen; });
        return m_outcome;
    }
    if (isDone()) return std::nullopt;
    m_running = true;
    lock.unlock();
    std::optional<Error> outcome = attempt();
    lock.lock();
    m_running = false;
    ++m_attempts;
    m_outcome = outcome;
    m_ended.notify_all();
    return outcome;
}

std::optional<QORPriming::Error> QORPriming::attempt() {
    std::optional<Error> error;
    try {
        error = ask();
    } catch (const std::exception& exception) {
        error = Error{errFailure, exception.what()};
    }
    if (!error) {
        m_session.reset();
        m_state.store(State::Done, std::memory_order_release);
        return std::nullopt;
    }
    if (error->message == m_request.tolerated) {
        m_state.store(State::Tolerated, std::memory_order_release);
        return std::nullopt;
    }
    m_state.store(State::Unanswered, std::memory_order_release);
    logMessage(1, module, sourcePath, "attempt", "operator \"%s\" cannot be primed yet: %s",
               m_request.operatorName.c_str(), error->message.c_str());
    return error;
}

std::optional<QORPriming::Error> QORPriming::ask() {
    if (!m_session) m_session = std::make_unique<QORClientSession>(noAccessContext());
    QORBinaryIterator request = m_body.root();
    request.firstChild();
    QORMessage answer;
    QORBinaryIterator response = answer.root();
    const auto outcome =
        m_session->run(m_session->context(), m_request.operatorName, m_request.requestName, request, response);
    if (outcome != QORClientSession::Outcome::Done) return Error{errFailure, "it does not know the priming request"};
    return errorOf(answer);
}

}  // namespace QOR
