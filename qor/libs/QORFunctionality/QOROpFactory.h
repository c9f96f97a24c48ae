/// \file
/// Operator factories and the registry by which the host finds them.
#pragma once

#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORFunctionality/QORAccesser.h"
#include "QORFunctionality/QOROperator.h"
#include "QORLibLocal/QORVocabularyRules.h"

namespace QOR {

/// What the host asks an operator before any client does, and how it reads the answer. What an operator learns once for
/// the whole process may depend on who asks first: the host asks as a client that may see nothing, so that the answer
/// to "who was first" is always the careful one.
struct QOROpPriming {
    enum class Result {
        Learned,       ///< settled for the life of the process, whatever the answer says
        NothingThere,  ///< nothing to learn yet: clients need not wait, and it is asked again before each of them
        Failed,        ///< clients have to wait until it can be answered
    };
    const char* request;  ///< the name of the request
    const char* body;     ///< one element in message notation
    /// Called after each answer, on the thread that asked. \param error the text of its error entry; "" for none
    Result (*judge)(const std::string& error);
};

/// A field that requests to an operator may name, for whoever lists fields or explains them.
struct QOROpField {
    std::string name;
    std::string_view source;  ///< what its rows are: "operations"; of static storage, as all views here
    std::string_view title;   ///< where they come from, for people: "operation log"
    std::string_view type;    ///< "string", "int", "boolean", "time", "date" or "ipaddress"
    bool list = false;        ///< a row may have several values
    bool prefix = false;      ///< every name that begins so is such a field
};

/// Makes the operators of one name. Making the object makes it known to the registry, destroying it forgets it; both
/// happen while a plug-in is loaded or unloaded. Thread-safe.
class QOR_API QOROpFactory : public virtual QORReferenceCounter {
public:
    // In the order of their slots, which plug-ins are compiled against.
    /// A new operator for one client, named and numbered; the caller takes the first reference.
    virtual QORPtr<QOROperatorPrototype> newOperator() = 0;
    /// The accessor by which that client's requests reach the operator.
    virtual QORPtr<QORAccesserPrototype> newAccesser(const QORPtr<QOROperatorPrototype>& op) = 0;
    ~QOROpFactory() override;

    QOROpFactory(const QOROpFactory&) = delete;
    QOROpFactory& operator=(const QOROpFactory&) = delete;

    const std::string& name() const noexcept { return m_name; }
    /// The number given at registration, for those who list factories: requests name operators by their names alone.
    int value() const noexcept { return m_value; }
    /// What the operator is to be asked before any client asks; null when it does not matter who is first. Lives as
    /// long as the plug-in.
    const QOROpPriming* priming() const noexcept { return m_priming; }
    /// What the operator reads from the configuration vocabulary. Lives as long as the plug-in.
    std::span<const QORVocCategoryRule> vocabulary() const noexcept { return m_vocabulary; }
    /// The fields that its requests may name with the vocabulary as it is now, by name, then the prefixes; none for an
    /// operator that has no fields of its own. Only while the plug-in is loaded.
    std::vector<QOROpField> fields() const { return m_fields == nullptr ? std::vector<QOROpField>() : m_fields(); }

protected:
    using FieldLister = std::vector<QOROpField> (*)();

    /// \param name by which requests address the operator
    QOROpFactory(const char* name, int value);
    void setPriming(const QOROpPriming* priming) noexcept { m_priming = priming; }
    void setVocabulary(std::span<const QORVocCategoryRule> rules) noexcept { m_vocabulary = rules; }
    void setFields(FieldLister lister) noexcept { m_fields = lister; }

private:
    const std::string m_name;
    const int m_value;
    const QOROpPriming* m_priming = nullptr;
    std::span<const QORVocCategoryRule> m_vocabulary;
    FieldLister m_fields = nullptr;
};

/// All factories of the process, in the order in which they were made. Thread-safe.
class QOR_API QOROpFactoryRegistry {
public:
    static QOROpFactoryRegistry& instance();
    /// The factory of that name (the first made, should there be several); null when there is none.
    QORPtr<QOROpFactory> find(const std::string& name) const;
    std::vector<std::string> names() const;
    /// The vocabulary rules of all of them, in the order of the factories.
    std::vector<QORVocCategoryRule> vocabulary() const;

private:
    friend class QOROpFactory;
    QOROpFactoryRegistry() = default;
    void add(QOROpFactory* factory);
    void remove(QOROpFactory* factory) noexcept;
    mutable std::mutex m_mutex;
    std::vector<QOROpFactory*> m_factories;
};

/// The factory of an operator class. `Pooled` selects accessors from a pool with the three limits. A class that has a
/// static member `priming` is registered with it, and so is one with static functions `vocabulary()` and
/// `listFields()`.
template <class Operator, class Number, Number Idle, Number Most, Number Step, bool Pooled>
class QOROperatorFactory : public QOROpFactory {
    static_assert(Pooled, "operators are reached through pooled accessors");

public:
    /// \param ns the namespace number given to every operator
    QOROperatorFactory(const char* name, int ns, int value) : QOROpFactory(name, value), m_ns(ns) {
        if constexpr (requires { Operator::priming; }) setPriming(&Operator::priming);
        if constexpr (requires { Operator::vocabulary(); }) setVocabulary(Operator::vocabulary());
        if constexpr (requires { Operator::listFields(); }) setFields(&Operator::listFields);
    }

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
