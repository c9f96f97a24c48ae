#include "agent/http/HttpOrigins.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

constexpr unsigned noContent = 204;

bool isHostCharacter(char c) {
    return isDigitChar(c) || isLowerChar(c) || std::string_view("-._:[]").find(c) != std::string_view::npos;
}

/// As browsers write it: without a path, in lower case.
bool isOrigin(std::string_view text) {
    constexpr std::string_view plain = "http://";
    constexpr std::string_view secure = "https://";
    const std::string_view scheme = text.starts_with(secure) ? secure : plain;
    if (!text.starts_with(scheme)) return false;
    text.remove_prefix(scheme.size());
    return !text.empty() && std::all_of(text.begin(), text.end(), isHostCharacter);
}

}  // namespace

void HttpOrigins::add(const std::string& origin) {
    if (!isOrigin(origin)) {
        throw QORException(errBadRequest, quoteText(origin) +
                                              " is no origin: one is written https://host or https://host:port, in "
                                              "lower case and without a path, and each is named by itself");
    }
    if (std::find(m_origins.begin(), m_origins.end(), origin) == m_origins.end()) m_origins.push_back(origin);
}

bool HttpOrigins::lists(const HttpRequest& head) const {
    const std::string_view origin = head.field("Origin");
    return std::find(m_origins.begin(), m_origins.end(), origin) != m_origins.end();
}

HttpFields HttpOrigins::fieldsFor(const HttpRequest& head) const {
    if (m_origins.empty()) return {};
    HttpFields fields{{"Vary", "Origin"}};
    if (!lists(head)) return fields;
    fields.emplace_back("Access-Control-Allow-Origin", head.field("Origin"));
    fields.emplace_back("Access-Control-Allow-Credentials", "true");
    fields.emplace_back("Access-Control-Expose-Headers", "Allow, ETag, Retry-After, WWW-Authenticate");
    return fields;
}

std::optional<HttpReply> HttpOrigins::preflight(const HttpRequest& head) const {
    if (head.method != "OPTIONS" || head.field("Access-Control-Request-Method").empty() || !lists(head))
        return std::nullopt;
    HttpReply reply{noContent, {}};
    // The same for every path, so that nobody learns which there are.
    reply.fields = {{"Access-Control-Allow-Methods", "GET, HEAD, POST, DELETE, OPTIONS"},
                    {"Access-Control-Allow-Headers",
                     "Accept, Authorization, Content-Type, Idempotency-Key, If-None-Match, Last-Event-ID, X-Qor-As, "
                     "X-Qor-Csrf"},
                    {"Access-Control-Max-Age", "600"}};
    return reply;
}

}  // namespace QOR
