/// \file
/// The agent's routes of identities and tokens. Bodies and answers are those of host/QORIdentityForms.h.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

/// Both lists.
std::string identitiesText();
/// \param body an identity \returns `{"added":"name"}` \throws QORException for what is no such body, and as
/// addIdentity()
std::string runAddIdentity(std::string_view body);
/// \param body with a name \returns `{"removed":"name"}` \throws as removeIdentity()
std::string runRemoveIdentity(std::string_view body);
/// \param body with the identity's name, and when it expires \returns `{"token":"..."}` \throws as createToken()
std::string runCreateToken(std::string_view body);
/// \param body with the identity's name, and the token's id or all are meant \returns `{"revoked":1}`
/// \throws as revokeTokens()
std::string runRevokeTokens(std::string_view body);

}  // namespace QOR
