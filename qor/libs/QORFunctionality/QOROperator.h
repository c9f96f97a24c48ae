/// \file
/// Base classes of operators: objects that answer the requests of one client.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "QORCommon/QORExport.h"
#include "QORCommon/QORReferenceCounter.h"
#include "QORFunctionality/QORErrors.h"
#include "QORMessage/QORMessageIterator.h"

namespace QOR {

class QORAccesserPrototype;
class QORLocalAccess;

/// What the host knows of any operator. The host makes one object for each client, calls init() once, then routes
/// requests to it one at a time (callMutex() is held meanwhile), calls stopCallback() after each, and disconnect()
/// when the client goes. Reference-counted; the host holds the first reference.
class QOR_API QOROperatorPrototype : public virtual QORReferenceCounter {
public:
    ~QOROperatorPrototype() override;

    virtual void setName(const std::string& name) { m_name = name; }
    const std::string& getName() const noexcept { return m_name; }
    void setNamespace(int ns) noexcept { m_namespace = ns; }
    int getNamespace() const noexcept { return m_namespace; }

    /// Start-up, once, after the host has connected the operator.
    virtual void init() {}
    /// A request has ended; drop what belonged to it.
    virtual void stopCallback() {}
    /// The client behind the accessor has gone.
    virtual void disconnect(QORAccesserPrototype* accesser) { static_cast<void>(accesser); }

    /// Answers the request of that name: reads at `request`, writes at `response`. Failures become error entries of
    /// the response. \returns 0 when a handler ran, non-zero when there is none for the name
    virtual int call(const std::string& requestName, QORMessageIterator* request, QORMessageIterator* response) = 0;

    /// Held by whoever calls init, call, stopCallback or disconnect.
    std::mutex& callMutex() noexcept { return m_callMutex; }

protected:
    QOROperatorPrototype() = default;

private:
    std::string m_name;
    int m_namespace = 0;
    std::mutex m_callMutex;
};

/// An operator whose requests are methods, found by name in a map.
class QOR_API QOROperatorFunctionalPrototype : public QOROperatorPrototype {
public:
    ~QOROperatorFunctionalPrototype() override;

    using Handler = void (QOROperatorFunctionalPrototype::*)(QORMessageIterator* request, QORMessageIterator* response);

    /// One row of an operator's method table. A table ends with a row whose name is empty.
    struct MethodDescriptor {
        const char* name;
        Handler handler;
        /// Two numbers by which an operator may rank its requests. They are the operator's to give and to read: the
        /// host serves requests in the order in which they come.
        int first;
        int second;
    };

    /// Makes the row of a handler that a derived class declares.
    template <class Operator>
    static MethodDescriptor method(const char* name,
                                   void (Operator::*handler)(QORMessageIterator*, QORMessageIterator*), int first,
                                   int second) {
        return {name, static_cast<Handler>(handler), first, second};
    }

    int call(const std::string& requestName, QORMessageIterator* request, QORMessageIterator* response) override;

    /// Formats the table's text for `code` with the arguments (printf rules) and writes an error entry, tag::error
    /// with the code and the text, as a child of the response's current element. A code that the table lacks takes
    /// one text as argument and gives an entry with that code and that text.
    static void addError(QORMessageIterator* response, const QORErrorTable& table, int code, ...);

    const std::map<std::string, MethodDescriptor, std::less<>>& methods() const noexcept { return m_methods; }

protected:
    QOROperatorFunctionalPrototype() = default;
    /// Adds the rows of a method table up to the one with an empty name.
    void registerMethods(const MethodDescriptor* table);

private:
    std::map<std::string, MethodDescriptor, std::less<>> m_methods;
};

/// An operator that also reaches the host's services on behalf of its client.
class QOR_API QOROperatorAsyncPrototype : public QOROperatorFunctionalPrototype {
public:
    ~QOROperatorAsyncPrototype() override;

    /// The operator's local access handle, made at the first call and dropped by disconnect().
    QORPtr<QORLocalAccess> getLocalAccess();
    void disconnect(QORAccesserPrototype* accesser) override;

protected:
    QOROperatorAsyncPrototype();

private:
    QORPtr<QORLocalAccess> m_localAccess;
};

}  // namespace QOR
