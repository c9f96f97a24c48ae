/// \file
/// The request that an operator must have answered before any client's.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORMessage/QORNotation.h"

namespace QOR {

class QORClientSession;

/// The priming of one operator, made after its plug-in was loaded and gone before it is unloaded. Thread-safe.
class QORPriming {
public:
    /// \param operatorName whose factory may come with a priming request, or with none
    explicit QORPriming(std::string operatorName);
    ~QORPriming();

    const std::string& operatorName() const noexcept { return m_operatorName; }
    bool isDone() const noexcept { return m_state.load(std::memory_order_acquire) == State::Done; }
    /// True while clients must wait: the operator is there and has not answered yet.
    bool isPending() const;

    using Error = QORResponse::Error;
    /// Makes sure that the request has been answered, asking when it has not. Callers that come while it is being
    /// asked wait and share the outcome. \returns the error on which clients must wait; empty when they may go on,
    /// and when there is no such operator
    std::optional<Error> ensure();

private:
    enum class State { Unanswered, NothingThere, Done };

    std::optional<Error> attempt();
    bool isServed() const;
    QOROpPriming::Result ask(std::optional<Error>& error);

    const std::string m_operatorName;
    const QOROpPriming* m_request = nullptr;  // of the factory; null when its operator needs no priming
    std::atomic<State> m_state{State::Unanswered};
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_running = false;                       // guarded by m_mutex
    unsigned m_attempts = 0;                      // guarded by m_mutex
    std::optional<Error> m_outcome;               // of the last attempt, guarded by m_mutex
    std::unique_ptr<QORClientSession> m_session;  // used by the attempt that runs
};

}  // namespace QOR
