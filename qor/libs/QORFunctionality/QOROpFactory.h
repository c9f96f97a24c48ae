/// \file
/// Operator factories and the registry by which the host finds them.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORFunctionality/QORAccesser.h"
#include "QORFunctionality/QOROperator.h"

namespace QOR {

/// Makes the operators of one name. Making the object makes it known to the registry, destroying it forgets it; both
/// happen while a plug-in is loaded or unloaded. Thread-safe.
class QOR_API QOROpFactory : public virtual QORReferenceCounter {
   public:
    ~QOROpFactory() override;
    QOROpFactory(const QOROpFactory&) = delete;
    QOROpFactory& operator=(const QOROpFactory&) = delete;

    /// A new operator for one client, named and numbered; the caller takes the first reference.
    virtual QORPtr<QOROperatorPrototype> newOperator() = 0;
    /// The accessor by which that client's requests reach the operator.
    virtual QORPtr<QORAccesserPrototype> newAccesser(const QORPtr<QOROperatorPrototype>& op) = 0;

    const std::string& name() const noexcept { return m_name; }
    /// The number given at registration; the host keeps it and attaches no meaning to it.
    int value() const noexcept { return m_value; }

   protected:
    /// \param name by which requests address the operator
    QOROpFactory(const char* name, int value);

   private:
    const std::string m_name;
    const int m_value;
};

/// All factories of the process, in the order in which they were made. Thread-safe.
class QOR_API QOROpFactoryRegistry {
   public:
    static QOROpFactoryRegistry& instance();
    /// The factory of that name (the first made, should there be several); null when there is none.
    QORPtr<QOROpFactory> find(const std::string& name) const;
    std::vector<std::string> names() const;

   private:
    friend class QOROpFactory;
    QOROpFactoryRegistry() = default;
    void add(QOROpFactory* factory);
    void remove(QOROpFactory* factory) noexcept;
    mutable std::mutex m_mutex;
    std::vector<QOROpFactory*> m_factories;
};

/// The factory of an operator class. `Pooled` selects accessors from a pool with the three limits.
template <class Operator, class Number, Number Idle, Number Most, Number Step, bool Pooled>
class QOROperatorFactory : public QOROpFactory {
    static_assert(Pooled, "operators are reached through pooled accessors");

   public:
    /// \param ns the namespace number given to every operator
    QOROperatorFactory(const char* name, int ns, int value) : QOROpFactory(name, value), m_ns(ns) {}

    QORPtr<QOROperatorPrototype> newOperator() override {
        QORPtr<QOROperatorPrototype> op(new Operator());
        op->setName(name());
        op->setNamespace(m_ns);
        return op;
    }

    QORPtr<QORAccesserPrototype> newAccesser(const QORPtr<QOROperatorPrototype>& op) override {
        return makeQORPtr<QORAccesserPoolPrototype>(op, QORPtr<QOROpFactory>(this), Idle, Most, Step);
    }

   private:
    int m_ns;
};

template <class Operator, int Idle, int Most, int Step, bool Pooled>
QORPtr<QOROpFactory> newOperatorFactory(const char* name, int ns, int value) {
    return makeQORPtr<QOROperatorFactory<Operator, int, Idle, Most, Step, Pooled>>(name, ns, value);
}

}  // namespace QOR
