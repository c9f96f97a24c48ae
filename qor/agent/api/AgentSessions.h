/// \file
/// Sessions of a console in a browser: a cookie in place of a token, which no script of a page can read.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "agent/api/AgentCall.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

/// What a cookie stands for. A value.
struct AgentSession {
    std::string digest{};      ///< of the token that it began with: a session is worth no more, and ends with it
    std::int64_t expires = 0;  ///< seconds since the epoch
    std::string id{};          ///< by which it is ended
};

/// Cookies are sealed with the key that all agents on the database share, so that any of them knows a session of
/// another one, and nobody keeps any. Only those that were ended before their time are kept, by the agent that was
/// told so, until then. Thread-safe.
class AgentSessions {
public:
    /// The seconds that a session may last.
    static constexpr std::int64_t longest = 12 * 3600;

    /// The key is read from the database. \throws AException
    AgentSessions();

    /// \returns the cookie's value
    std::string begin(const std::string& digest, std::int64_t expires) const;
    /// The session of a request's cookie; nothing for one that does not hold.
    std::optional<AgentSession> of(std::string_view cookie) const;
    void end(const AgentSession& session);
    /// What a page that may read answers can say, and another one cannot make up.
    std::string csrfOf(std::string_view cookie) const;

private:
    const std::string m_key;
    mutable std::mutex m_mutex;
    std::map<std::string, std::int64_t> m_ended;  // guarded by m_mutex; by id, until when they would have lasted
};

/// The value of the session's cookie; empty where the request has none, nothing where it has several.
std::optional<std::string_view> sessionCookieOf(const HttpRequest& request);

HttpReply answerBeginSession(AgentCall& call);
HttpReply answerSession(AgentCall& call);
HttpReply answerEndSession(AgentCall& call);

}  // namespace QOR
