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
/// another one, and nobody keeps any. Only those that were ended before their time are kept, until then: in the
/// database, for all agents on it, and here as it was last read. Thread-safe.
class AgentSessions {
public:
    /// The seconds that a session may last.
    static constexpr std::int64_t longest = 12 * 3600;

    /// The key is read from the database. \param writes whether ends may be stored, else they hold for this agent alone
    /// \throws AException
    explicit AgentSessions(bool writes);

    /// \returns the cookie's value
    std::string begin(const std::string& digest, std::int64_t expires) const;
    /// The session of a request's cookie; nothing for one that does not hold.
    std::optional<AgentSession> of(std::string_view cookie) const;
    /// Holds at once; at the other agents when they have read it. \throws as endSession(), and has ended nothing then
    void end(const AgentSession& session);
    /// Takes in what the database knows. \param ended by id, until when they would have lasted
    void takeEnded(const std::map<std::string, std::int64_t>& ended);
    /// Also one whose time is over.
    bool isOver(const AgentSession& session) const;
    /// What a page that may read answers can say, and another one cannot make up.
    std::string csrfOf(std::string_view cookie) const;

private:
    const bool m_writes;
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
