/// \file
/// Requests that an operator must have answered before any client's.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QORMessage/QORNotation.h"

namespace QOR {

class QORClientSession;

/// What an operator learns once for the whole process may depend on who asks first. A priming request is the host's
/// own first request, asked as a client that may see nothing, so that the answer to "who was first" is always the
/// careful one.
struct QORPrimingRequest {
    std::string operatorName;
    std::string requestName;
    std::string body;       ///< one element in message notation
    std::string tolerated;  ///< an error text that keeps no client waiting but settles nothing: asked again next time
};

/// The priming of one operator. Thread-safe.
class QORPriming {
public:
    /// \throws QORException 400 when the body cannot be read
    explicit QORPriming(QORPrimingRequest request);
    ~QORPriming();

    const QORPrimingRequest& request() const noexcept { return m_request; }
    bool isDone() const noexcept { return m_state.load(std::memory_order_acquire) == State::Done; }
    /// True while clients must wait: the operator is there and has not answered yet.
    bool isPending() const;

    using Error = QORResponse::Error;
    /// Makes sure that the request has been answered, asking when it has not. Callers that come while it is being
    /// asked wait and share the outcome. \returns the error on which clients must wait; empty when they may go on,
    /// and when there is no such operator
    std::optional<Error> ensure();

private:
    enum class State { Unanswered, Tolerated, Done };

    std::optional<Error> attempt();
    std::optional<Error> ask();

    const QORPrimingRequest m_request;
    QORMessage m_body;
    std::atomic<State> m_state{State::Unanswered};
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_running = false;                       // guarded by m_mutex
    unsigned m_attempts = 0;                      // guarded by m_mutex
    std::optional<Error> m_outcome;               // of the last attempt, guarded by m_mutex
    std::unique_ptr<QORClientSession> m_session;  // used by the attempt that runs
};

}  // namespace QOR
