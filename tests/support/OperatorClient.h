/// \file
/// Asks an operator in this process, through its factory, as a session of the host does.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "QORFunctionality/QOROpFactory.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "support/ClientContexts.h"

namespace QOR::test {

/// One client of an operator, with an operator object of its own. One thread at a time.
class OperatorClient {
public:
    explicit OperatorClient(const std::string& name) : m_factory(QOROpFactoryRegistry::instance().find(name)) {
        if (!m_factory) throw std::runtime_error("no factory of " + name);
        m_operator = m_factory->newOperator();
        m_operator->init();
        m_accesser = m_factory->newAccesser(m_operator);
    }

    /// \param request its root's only child is the select element \returns the answer, which takes the place of the one
    /// before, whose memory is kept, as a host does between requests
    const QORMessage& answerTo(QORMessage& request, const QORClientContextPtr& as) {
        const QORClientContextScope scope(as);
        m_response.clear();
        QORBinaryIterator in = request.root();
        in.firstChild();
        QORBinaryIterator out = m_response.root();
        m_accesser->request("select", &in, &out);
        return m_response;
    }

    /// \param body the select element in message notation \returns the answer in message notation
    std::string ask(std::string_view body, const QORClientContextPtr& as = fullAccess()) {
        QORMessage request;
        readElement(body, request);
        std::string text;
        writeResponse(answerTo(request, as), text);
        return text;
    }

    /// The code and the text of the error in the answer; "" when there is none.
    std::string errorOf(std::string_view body, const QORClientContextPtr& as = fullAccess()) {
        const QORResponse response = readResponse(ask(body, as));
        return response.error ? std::to_string(response.error->code) + " " + response.error->message : std::string();
    }

    QOROperatorPrototype& object() { return *m_operator; }
    void disconnect() { m_operator->disconnect(m_accesser.get()); }

private:
    QORPtr<QOROpFactory> m_factory;
    QORPtr<QOROperatorPrototype> m_operator;
    QORPtr<QORAccesserPrototype> m_accesser;
    QORMessage m_response;
};

/// One client of "pager2".
class Pager2Client : public OperatorClient {
public:
    Pager2Client() : OperatorClient("pager2") {}
};

}  // namespace QOR::test
