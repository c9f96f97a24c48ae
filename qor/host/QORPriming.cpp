#include "host/QORPriming.h"

#include <utility>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORMessage/QORBinaryIterator.h"
#include "host/QORClientSession.h"

namespace QOR {
namespace {

constexpr auto longestAttempt = std::chrono::seconds(30);
/// How soon one who waits for another's attempt finds out that its own request has ended.
constexpr auto lookInterval = std::chrono::milliseconds(50);

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

QORPriming::QORPriming(std::string operatorName) : m_operatorName(std::move(operatorName)) {
    const QORPtr<QOROpFactory> factory = QOROpFactoryRegistry::instance().find(m_operatorName);
    if (factory) m_request = factory->priming();
}

QORPriming::~QORPriming() = default;

/// Whether there is a factory, and one that has a priming request.
bool QORPriming::isServed() const {
    return m_request != nullptr && QOROpFactoryRegistry::instance().find(m_operatorName) != nullptr;
}

bool QORPriming::isPending() const {
    return m_state.load(std::memory_order_acquire) == State::Unanswered && isServed();
}

std::optional<QORPriming::Error> QORPriming::ensure() {
    if (isDone() || !isServed()) return std::nullopt;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_running) {
        const auto ended = [this, seen = m_attempts] { return m_attempts != seen; };
        while (!m_ended.wait_for(lock, lookInterval, ended))
            QORRequestControl::checkCurrent();
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
    // The answer is everybody's, and so ends neither with the client that happens to ask nor at its deadline.
    const QORRequestScope scope(std::make_shared<QORRequestControl>(longestAttempt));
    std::optional<Error> error;
    QOROpPriming::Result result = QOROpPriming::Result::Failed;
    try {
        result = ask(error);
    } catch (const std::exception& exception) {
        error = Error{errFailure, exception.what()};
    }
    switch (result) {
        case QOROpPriming::Result::Learned:
            m_session.reset();
            m_state.store(State::Done, std::memory_order_release);
            return std::nullopt;
        case QOROpPriming::Result::NothingThere:
            m_state.store(State::NothingThere, std::memory_order_release);
            return std::nullopt;
        case QOROpPriming::Result::Failed:
            break;
    }
    if (!error) error = Error{errFailure, "its answer settles nothing"};
    m_state.store(State::Unanswered, std::memory_order_release);
    logMessage(1, "QORHost", QOR_SOURCE_PATH, "attempt", "operator \"%s\" cannot be primed yet: %s",
               m_operatorName.c_str(), error->message.c_str());
    return error;
}

QOROpPriming::Result QORPriming::ask(std::optional<Error>& error) {
    if (!m_session) m_session = std::make_unique<QORClientSession>(noAccessContext());
    QORMessage body;
    readElement(m_request->body, body);
    QORBinaryIterator request = body.root();
    request.firstChild();
    QORMessage answer;
    QORBinaryIterator response = answer.root();
    const auto outcome = m_session->run(m_session->context(), m_operatorName, m_request->request, request, response);
    if (outcome != QORClientSession::Outcome::Done) {
        error = Error{errFailure, "it does not know its priming request"};
        return QOROpPriming::Result::Failed;
    }
    error = errorOf(answer);
    return m_request->judge(error ? error->message : std::string());
}

}  // namespace QOR
