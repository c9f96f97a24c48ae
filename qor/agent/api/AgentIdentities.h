/// \file
/// The agent's routes of identities and tokens. Bodies and answers are those of host/QORIdentityForms.h. What has
/// changed holds from the answer on. Thread-safe.
#pragma once

#include "agent/api/AgentCall.h"

namespace QOR {

/// Both lists.
HttpReply answerIdentities(AgentCall& call);
/// Of an identity: `{"added":"name"}`. \throws QORException for what is no such body, and as addIdentity()
HttpReply answerAddIdentity(AgentCall& call);
/// Of a name: `{"removed":"name"}`. \throws as removeIdentity()
HttpReply answerRemoveIdentity(AgentCall& call);
/// Of the identity's name, and when it expires: `{"token":"..."}`. \throws as createToken()
HttpReply answerCreateToken(AgentCall& call);
/// Of the identity's name, and the token's id or all are meant: `{"revoked":1}`. \throws as revokeTokens()
HttpReply answerRevokeTokens(AgentCall& call);

}  // namespace QOR
