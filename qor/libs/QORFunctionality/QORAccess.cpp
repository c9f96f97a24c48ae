#include "QORFunctionality/QORAccess.h"

#include "QORFunctionality/QOROpFactory.h"

namespace QOR {

QORAccessProviderPrototype::~QORAccessProviderPrototype() = default;
QORLocalAccess::~QORLocalAccess() = default;
QOROpSyncAccessPrototype::~QOROpSyncAccessPrototype() = default;

namespace {

/// Synchronous access to another operator by name: it owns an operator of its own.
class NamedOperatorAccess final : public QOROpSyncAccessPrototype {
public:
    explicit NamedOperatorAccess(QORPtr<QOROperatorPrototype> op)
        : QOROpSyncAccessPrototype(op.get()), m_owned(std::move(op)) {}

private:
    QORPtr<QOROperatorPrototype> m_owned;
};

}  // namespace

QORPtr<QORAccessProviderPrototype> QOROpSyncAccessPrototype::createInstance(const std::string& name,
                                                                            QOROperatorPrototype* op) {
    if (name.empty()) return QORPtr<QORAccessProviderPrototype>(new QOROpSyncAccessPrototype(op));
    const auto factory = QOROpFactoryRegistry::instance().find(name);
    if (!factory) return nullptr;
    auto other = factory->newOperator();
    {
        const std::lock_guard<std::mutex> lock(other->callMutex());
        other->init();
    }
    return makeQORPtr<NamedOperatorAccess>(std::move(other));
}

int QOROpSyncAccessPrototype::call(const std::string& requestName, QORMessageIterator* request,
                                   QORMessageIterator* response) {
    const std::lock_guard<std::mutex> lock(m_operator->callMutex());
    const int result = m_operator->call(requestName, request, response);
    m_operator->stopCallback();
    return result;
}

}  // namespace QOR
