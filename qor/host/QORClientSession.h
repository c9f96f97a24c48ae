/// \file
/// A client of the host: who it is, and its own operator objects.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORReferenceCounter.h"
#include "QORFunctionality/QORAccesser.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORNotation.h"

namespace QOR {

/// The context of a client that may see everything.
QORClientContextPtr fullAccessContext();
/// The context of a client that stands for no environment and has no full access.
QORClientContextPtr noAccessContext();
/// The context that a request describes: the first identity is the client's own, the others are its set.
QORClientContextPtr contextOf(const QORClientDescription& client);

/// One client, usually one connection. Operator objects are made when the first request for their name comes, belong
/// to this client alone and live until it disconnects. Requests for one operator run one at a time, whatever
/// identity they run as; those for different operators may run at once. Thread-safe. Must be gone before the plug-ins
/// are unloaded.
class QORClientSession {
public:
    /// \param own what the client itself may see; with full access it may also have requests run as another client
    explicit QORClientSession(QORClientContextPtr own);
    /// Disconnects.
    ~QORClientSession();
    QORClientSession(const QORClientSession&) = delete;
    QORClientSession& operator=(const QORClientSession&) = delete;

    const QORClientContextPtr& context() const noexcept { return m_own; }

    /// The identity that a request runs as.
    /// \throws QORException 400 when a client is named and this one has no full access
    QORClientContextPtr contextFor(const std::optional<QORClientDescription>& client) const;

    enum class Outcome { Done, UnknownOperator, UnknownRequest };
    /// Runs one request as `identity` and waits for it. Errors of the request are entries of the response.
    /// \param request stands on the element that the handler reads
    /// \param response stands where the handler writes
    /// \throws whatever making and starting the operator throws; QORException once the client is disconnected
    Outcome run(const QORClientContextPtr& identity, const std::string& operatorName, const std::string& requestName,
                QORMessageIterator& request, QORMessageIterator& response);

    /// Lends an empty message to `use`. Its memory serves the session's next request unless it has become large.
    void withMessage(const std::function<void(QORMessage&)>& use);

    /// Tells the operators that the client has gone and drops them; waits for requests that still run. Later requests
    /// fail. Calling it again does nothing.
    void disconnect() noexcept;

private:
    QORPtr<QORAccesserPrototype> accesserOf(const std::string& operatorName);

    const QORClientContextPtr m_own;
    std::mutex m_mutex;
    std::map<std::string, QORPtr<QORAccesserPrototype>> m_accessers;  // guarded by m_mutex
    bool m_gone = false;                                              // guarded by m_mutex
    std::vector<QORMessage> m_messages;                               // idle ones, guarded by m_mutex
};

}  // namespace QOR
