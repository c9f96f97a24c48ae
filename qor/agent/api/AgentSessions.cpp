#include "agent/api/AgentSessions.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORDigest.h"
#include "QORCommon/QORSeal.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORIdentities.h"
#include "QORLibAgent/QORPageToken.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentProblem.h"

namespace QOR {
namespace {

constexpr std::string_view cookieName = "qor_session";
constexpr std::size_t digestDigits = 64;
constexpr std::size_t idDigits = 32;

std::optional<std::string> bytesOf(std::string_view digits) {
    if (digits.size() % 2 != 0) return std::nullopt;
    std::string bytes;
    for (std::size_t at = 0; at < digits.size(); at += 2) {
        unsigned value = 0;
        const char* const end = digits.data() + at + 2;
        if (std::from_chars(digits.data() + at, end, value, 16).ptr != end) return std::nullopt;
        bytes += static_cast<char>(value);
    }
    return bytes;
}

/// Of `a=1; b=2`.
std::string_view takeCookie(std::string_view& rest) {
    std::string_view cookie = rest.substr(0, rest.find(';'));
    rest.remove_prefix(std::min(cookie.size() + 1, rest.size()));
    while (!cookie.empty() && isSpaceChar(cookie.front()))
        cookie.remove_prefix(1);
    return cookie;
}

/// \param seconds 0 ends it
std::string cookieText(std::string_view value, std::int64_t seconds, bool secure) {
    return std::string(cookieName) + "=" + std::string(value) +
           "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" + std::to_string(seconds) + (secure ? "; Secure" : "");
}

HttpReply replyWith(const AgentRequester& requester, std::int64_t expires, const std::string& csrf) {
    HttpReply reply{200, writtenObject([&](JsonWriter& json) {
                        writeMember(json, "name", requester.name);
                        writeMember(json, "access", requester.fullAccess ? "full" : "environments");
                        writeKey(json, "expires");
                        json.Int64(expires);
                        writeMember(json, "csrf", csrf);
                    })};
    reply.fields = {{"Cache-Control", "no-store"}};
    return reply;
}

AgentSession sessionOf(AgentCall& call) {
    const auto session = call.application.access().sessions().of(sessionCookieOf(call.request).value_or(""));
    if (!session || !call.requester().session) throwProblem({.status = 404, .detail = "the request has no session"});
    return *session;
}

}  // namespace

AgentSessions::AgentSessions(bool writes) : m_writes(writes), m_key(sharedSecretFor("sessions")) {}

std::string AgentSessions::begin(const std::string& digest, std::int64_t expires) const {
    return hexOf(sealBytes(m_key, digest + hexOf(randomBytes(idDigits / 2)) + std::to_string(expires)));
}

std::optional<AgentSession> AgentSessions::of(std::string_view cookie) const {
    const std::optional<std::string> sealed = bytesOf(cookie);
    const std::optional<std::string> text = sealed ? openBytes(m_key, *sealed) : std::nullopt;
    if (!text || text->size() <= digestDigits + idDigits) return std::nullopt;
    AgentSession session{text->substr(0, digestDigits), 0, text->substr(digestDigits, idDigits)};
    const char* const last = text->data() + text->size();
    if (std::from_chars(text->data() + digestDigits + idDigits, last, session.expires).ptr != last) return std::nullopt;
    return isOver(session) ? std::nullopt : std::optional(std::move(session));
}

void AgentSessions::end(const AgentSession& session) {
    if (m_writes) endSession(session.id, session.expires);
    takeEnded({{session.id, session.expires}});
}

void AgentSessions::takeEnded(const std::map<std::string, std::int64_t>& ended) {
    const std::int64_t now = currentTime();
    const std::lock_guard lock(m_mutex);
    m_ended.insert(ended.begin(), ended.end());
    std::erase_if(m_ended, [now](const auto& one) { return one.second <= now; });
}

bool AgentSessions::isOver(const AgentSession& session) const {
    if (session.expires <= currentTime()) return true;
    const std::lock_guard lock(m_mutex);
    return m_ended.contains(session.id);
}

std::string AgentSessions::csrfOf(std::string_view cookie) const {
    return hexOf(keyedDigest(m_key, cookie));
}

std::optional<std::string_view> sessionCookieOf(const HttpRequest& request) {
    std::string_view found;
    for (const HttpField& field : request.fields) {
        if (!isSameWord(field.name, "cookie")) continue;
        for (std::string_view rest = field.value; !rest.empty();) {
            const std::string_view cookie = takeCookie(rest);
            if (!cookie.starts_with(cookieName) || cookie.substr(cookieName.size(), 1) != "=") continue;
            if (found.data() != nullptr) return std::nullopt;
            found = cookie.substr(cookieName.size() + 1);
        }
    }
    return found;
}

HttpReply answerBeginSession(AgentCall& call) {
    const AgentRequester& requester = call.requester();
    if (requester.digest.empty() || requester.session)
        throwProblem({.status = 403, .detail = "a session begins with a token: Authorization: Bearer TOKEN"});
    const std::int64_t now = currentTime();
    const std::int64_t expires =
        std::min(requester.expires.value_or(now + AgentSessions::longest), now + AgentSessions::longest);
    const AgentSessions& sessions = call.application.access().sessions();
    const std::string cookie = sessions.begin(requester.digest, expires);
    HttpReply reply = replyWith(requester, expires, sessions.csrfOf(cookie));
    reply.fields.emplace_back("Set-Cookie", cookieText(cookie, expires - now, requester.peer.secure));
    return reply;
}

HttpReply answerSession(AgentCall& call) {
    const AgentSession session = sessionOf(call);
    return replyWith(call.requester(), session.expires,
                     call.application.access().sessions().csrfOf(*sessionCookieOf(call.request)));
}

HttpReply answerEndSession(AgentCall& call) {
    call.application.access().sessions().end(sessionOf(call));
    HttpReply reply{204, {}};
    reply.fields = {{"Set-Cookie", cookieText("", 0, call.requester().peer.secure)}};
    return reply;
}

}  // namespace QOR
