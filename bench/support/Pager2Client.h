/// \file
/// One client of operator "pager2" in this process, its requests read into trees beforehand.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/OperatorClient.h"

namespace QOR::bench {

class Pager2Client {
public:
    /// \param requests select elements in message notation
    Pager2Client(QORClientContextPtr context, const std::vector<std::string>& requests)
        : m_requests(requests.size()), m_context(std::move(context)) {
        for (std::size_t index = 0; index < requests.size(); ++index)
            readElement(requests[index], m_requests[index]);
    }

    /// The answer's tree takes the place of the one before.
    const QORMessage& ask(std::size_t request) { return m_client.answerTo(m_requests[request], m_context); }

    /// The same in message notation.
    std::string answer(std::size_t request) {
        std::string text;
        writeResponse(ask(request), text);
        return text;
    }

private:
    std::vector<QORMessage> m_requests;
    QORClientContextPtr m_context;
    test::OperatorClient m_client{"pager2"};
};

}  // namespace QOR::bench
