/// \file
/// One client of operator "pager2" in this process, its requests read into trees beforehand.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"

namespace QOR::bench {

class Pager2Client {
public:
    /// \param requests select elements in message notation
    Pager2Client(QORClientContextPtr context, const std::vector<std::string>& requests)
        : m_requests(requests.size()), m_context(std::move(context)) {
        const auto factory = QOROpFactoryRegistry::instance().find("pager2");
        m_accesser = factory->newAccesser(factory->newOperator());
        for (std::size_t index = 0; index < requests.size(); ++index)
            readElement(requests[index], m_requests[index]);
    }

    /// The answer's tree takes the place of the one before, whose memory is kept, as a host does between requests.
    const QORMessage& ask(std::size_t request) {
        const QORClientContextScope scope(m_context);
        m_response.clear();
        QORBinaryIterator in = m_requests[request].root();
        in.firstChild();
        QORBinaryIterator out = m_response.root();
        m_accesser->request("select", &in, &out);
        return m_response;
    }

    /// The same in message notation.
    std::string answer(std::size_t request) {
        std::string text;
        writeResponse(ask(request), text);
        return text;
    }

private:
    std::vector<QORMessage> m_requests;
    QORClientContextPtr m_context;
    QORPtr<QORAccesserPrototype> m_accesser;
    QORMessage m_response;
};

}  // namespace QOR::bench
