/// \file
/// Identities as JSON: what the agent answers and is sent, and its client reads and sends.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "QORLibAgent/QORIdentities.h"

namespace QOR {

/// `{"identities":[IDENTITY,...],"tokens":[{"id":"...","name":"...","created":0,"expires":null,"lastUse":null},...]}`
/// with IDENTITY `{"name":"...","kind":"user","subject":"...","access":"environments","environments":[{"eid":"...",
/// "below":true,"writes":false},...]}`; access is "full" or "environments", times are seconds since the epoch.
std::string writeIdentityList(const QORIdentityList& list);
/// Of tokens nothing but the beginning of the digest is known then. \throws QORException errBadRequest
QORIdentityList readIdentityList(std::string_view json);

/// IDENTITY. Read, subject may be absent, it is the name then; access and environments too.
std::string writeIdentity(const QORIdentity& identity);
/// \throws QORException errBadRequest that says what is wrong with the text
QORIdentity readIdentity(std::string_view json);

/// `{"name":"...","expires":null}`, or with id in place of expires; what is absent is left out.
struct QORTokenRequest {
    std::string name;
    std::optional<std::int64_t> expires{};
    std::string id{};
};
std::string writeTokenRequest(const QORTokenRequest& request);
/// \throws as readIdentity()
QORTokenRequest readTokenRequest(std::string_view json);

}  // namespace QOR
