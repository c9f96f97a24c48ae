/// \file
/// Exact requests of operator "pager", and what their answers say besides rows.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "plugins/QORPager/Operators/Pager/PagerAnswer.h"
#include "support/ClientContexts.h"

namespace QOR::test {

constexpr const char* exact = ",[2405]";

inline std::string pageOf(int size) {
    return ",[1377,[[1024,\"" + std::to_string(size) + "\"]]]";
}

/// The text of an element of the row set; "" for one without a text, nothing where there is none.
inline std::optional<std::string> told(const std::string& answer, QORTag what) {
    QORResponse response = readResponse(answer);
    QORBinaryIterator it = response.response.root();
    if (it.firstChild(tag::rowSet) != 0 || it.firstChild(what) != 0) return std::nullopt;
    std::string text;
    return it.getValue(text) == 0 ? text : std::string();
}

/// Goes through the pages of a question by their tokens.
template <class Client>
class PageWalk {
public:
    PageWalk(Client& client, Ask ask, int size, QORClientContextPtr as = fullAccess())
        : m_client(client), m_ask(std::move(ask)), m_size(size), m_as(std::move(as)) {}

    /// Asks for the next page. \returns false after the last one, or where the answer is an error
    bool next() {
        if (m_ended) return false;
        Ask ask = m_ask;
        ask.more += pageOf(m_size);
        if (m_token) ask.more += ",[2402,\"" + *m_token + "\"]";
        m_text = m_client.ask(ask.body(), m_as);
        m_answer = readAnswer(m_text);
        m_token = told(m_text, tag::next);
        m_ended = !m_token || m_token->empty();
        ++m_pages;
        return m_answer.error.empty();
    }
    void setSize(int size) { m_size = size; }

    const Answer& answer() const { return m_answer; }
    const std::string& text() const { return m_text; }
    const std::optional<std::string>& token() const { return m_token; }
    std::size_t pages() const { return m_pages; }
    bool ended() const { return m_ended; }

private:
    Client& m_client;
    Ask m_ask;
    int m_size;
    QORClientContextPtr m_as;
    std::string m_text;
    Answer m_answer;
    std::optional<std::string> m_token;
    std::size_t m_pages = 0;
    bool m_ended = false;
};

}  // namespace QOR::test
