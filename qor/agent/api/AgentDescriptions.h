/// \file
/// What the agent tells of its configuration and its database. Thread-safe.
#pragma once

#include "agent/api/AgentCall.h"

namespace QOR {

/// `{"vocabulary":[{"name":"...","parameters":[{"id":"...","values":[{"name":"...","text":"..."},...],
/// "marks":["...",...]},...]},...]}`
HttpReply answerVocabulary(AgentCall& call);

/// `{"database":{"name":"...","engine":"SQLite","schema":4,"readOnly":false},"unreadable":[{"table":"...",
/// "column":"...","count":1},...]}`; unreadable is null where nobody has looked. Where servers keep the records, also
/// `"servers":[{"name":"s1","schema":8,"failure":""},...]`.
HttpReply answerStatus(AgentCall& call);

}  // namespace QOR
