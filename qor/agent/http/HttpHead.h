/// \file
/// The head of a reply, as it stands on the wire.
#pragma once

#include <boost/beast/http/status.hpp>
#include <string>
#include <string_view>

namespace QOR {

/// Writes one head into a text. What is added are the program's own words, which hold no ends of lines.
class HttpHead {
public:
    /// \param text is overwritten, and outlives this \param version of HTTP, 10 or 11
    HttpHead(std::string& text, unsigned status, unsigned version) : m_text(text), m_version(version) {
        namespace http = boost::beast::http;
        const auto reason = http::obsolete_reason(static_cast<http::status>(status));
        m_text.assign(version >= 11 ? "HTTP/1.1 " : "HTTP/1.0 ").append(std::to_string(status)).append(" ");
        m_text.append(reason.data(), reason.size()).append(lineEnd);
        add("Server", "qor-agent");
    }

    void add(std::string_view name, std::string_view value) {
        m_text.append(name).append(": ").append(value).append(lineEnd);
    }
    /// Whether another request may follow: said where it is not what the version does by itself.
    void setKeepAlive(bool keepAlive) {
        const bool usual = m_version >= 11;
        if (keepAlive != usual) add("Connection", keepAlive ? "keep-alive" : "close");
    }
    /// Nothing may be added any more.
    void end() { m_text.append(lineEnd); }

private:
    static constexpr std::string_view lineEnd = "\r\n";

    std::string& m_text;
    unsigned m_version;
};

}  // namespace QOR
