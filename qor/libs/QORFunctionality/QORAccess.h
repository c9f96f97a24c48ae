/// \file
/// Handles by which an operator, or something it owns, reaches the host.
#pragma once

#include <memory>
#include <string>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORReferenceCounter.h"

namespace QOR {

class QORMessageIterator;
class QOROperatorPrototype;

/// Something that can ask the host for what a field or an object needs. Shared; its class says what it can do.
class QOR_API QORAccessProviderPrototype : public virtual QORReferenceCounter {
public:
    ~QORAccessProviderPrototype() override;

protected:
    QORAccessProviderPrototype() = default;
};

/// Calls an operator and waits for the answer. Holds no reference to the operator, which may own it; the operator
/// must outlive every call.
class QOR_API QOROpSyncAccessPrototype : public QORAccessProviderPrototype {
public:
    /// \param name of the operator to call, "" for the given one itself
    /// \returns null when no operator of that name is registered
    static QORPtr<QORAccessProviderPrototype> createInstance(const std::string& name, QOROperatorPrototype* op);
    ~QOROpSyncAccessPrototype() override;

    /// Must not be called from within a request of the same operator. \returns as QOROperatorPrototype::call
    int call(const std::string& requestName, QORMessageIterator* request, QORMessageIterator* response);

protected:
    explicit QOROpSyncAccessPrototype(QOROperatorPrototype* op) : m_operator(op) {}

private:
    QOROperatorPrototype* m_operator;
};

/// What local services (the log agents) are handed, so that they know for whom they work.
class QOR_API QORLocalAccess : public virtual QORReferenceCounter {
public:
    explicit QORLocalAccess(std::string operatorName) : m_operatorName(std::move(operatorName)) {}
    ~QORLocalAccess() override;
    const std::string& operatorName() const noexcept { return m_operatorName; }

private:
    std::string m_operatorName;
};

}  // namespace QOR
