#include "host/QORClientSession.h"

#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORFunctionality/QOROpFactory.h"

namespace QOR {
namespace {

/// Memory of a message that is kept for the next request. Little: there may be a thousand clients that do nothing
/// for hours, and rows leave a message as they are written.
constexpr std::size_t mostKeptMemory = std::size_t{32} << 10;
constexpr std::size_t mostKeptMessages = 2;

QORClientContextPtr makeContext(bool fullAccess, std::shared_ptr<const QORToken> token) {
    auto context = std::make_shared<QORClientContext>();
    context->fullAccess = fullAccess;
    context->token = std::move(token);
    return context;
}

}  // namespace

QORClientContextPtr fullAccessContext() {
    return makeContext(true, std::make_shared<QORToken>());
}

QORClientContextPtr noAccessContext() {
    return makeContext(false, std::make_shared<QORToken>());
}

QORClientContextPtr contextOf(const QORClientDescription& client) {
    QORSIDPtr own;
    QORToken::SidSet others;
    for (const auto& sid : client.sids) {
        QORSIDPtr local = std::make_shared<QORLocalSID>(sid.principalId, sid.principalType, sid.eid);
        if (own == nullptr) {
            own = std::move(local);
        } else {
            others.insert(std::move(local));
        }
    }
    return makeContext(client.fullAccess, std::make_shared<QORToken>(std::move(own), std::move(others)));
}

QORClientSession::QORClientSession(QORClientContextPtr own) : m_own(std::move(own)) {}

QORClientSession::~QORClientSession() {
    disconnect();
}

QORClientContextPtr QORClientSession::contextFor(const std::optional<QORClientDescription>& client) const {
    if (!client) return m_own;
    if (!QORAccessChecker::hasFullAccess(m_own)) {
        throw QORException(errBadRequest, "only a connection with full access may name a client", QOR_SOURCE_PATH);
    }
    return contextOf(*client);
}

QORPtr<QORAccesserPrototype> QORClientSession::accesserOf(const std::string& operatorName) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_gone) throw QORException(errFailure, "the client has disconnected", QOR_SOURCE_PATH);
    const auto found = m_accessers.find(operatorName);
    if (found != m_accessers.end()) return found->second;
    const QORPtr<QOROpFactory> factory = QOROpFactoryRegistry::instance().find(operatorName);
    if (!factory) return nullptr;
    const QORPtr<QOROperatorPrototype> op = factory->newOperator();
    QORPtr<QORAccesserPrototype> accesser = factory->newAccesser(op);
    {
        const std::lock_guard<std::mutex> call(op->callMutex());
        op->init();
    }
    m_accessers.emplace(operatorName, accesser);
    return accesser;
}

QORClientSession::Outcome QORClientSession::run(const QORClientContextPtr& identity, const std::string& operatorName,
                                                const std::string& requestName, QORMessageIterator& request,
                                                QORMessageIterator& response) {
    const QORClientContextScope scope(identity);
    const QORPtr<QORAccesserPrototype> accesser = accesserOf(operatorName);
    if (!accesser) return Outcome::UnknownOperator;
    return accesser->request(requestName, &request, &response) == 0 ? Outcome::Done : Outcome::UnknownRequest;
}

void QORClientSession::withMessage(const std::function<void(QORMessage&)>& use) {
    QORMessage message = [this] {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_messages.empty()) return QORMessage();
        QORMessage kept = std::move(m_messages.back());
        m_messages.pop_back();
        return kept;
    }();
    use(message);
    if (message.memory() > mostKeptMemory) return;
    message.clear();
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_gone && m_messages.size() < mostKeptMessages) m_messages.push_back(std::move(message));
}

void QORClientSession::disconnect() noexcept {
    std::map<std::string, QORPtr<QORAccesserPrototype>> accessers;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_gone = true;
        accessers.swap(m_accessers);
        m_messages.clear();
    }
    const QORClientContextScope scope(m_own);
    for (const auto& [name, accesser] : accessers) {
        try {
            const std::lock_guard<std::mutex> call(accesser->op()->callMutex());
            accesser->op()->disconnect(accesser.get());
        } catch (const std::exception& exception) {
            logMessage(0, "QORHost", QOR_SOURCE_PATH, "disconnect", "operator \"%s\": %s", name.c_str(),
                       exception.what());
        }
    }
}

}  // namespace QOR
