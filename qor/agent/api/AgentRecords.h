/// \file
/// What the agent answers to those who bring it records, or ask it to collect some. Thread-safe.
///
/// Counts are those of records that are stored durably:
///
///     {"accepted":2,"counts":{"environment":{"added":1,"replaced":1,"unchanged":0},"operation":{...},"event":{...},
///      "backup":{...}},"lastLine":3,"refusedCount":1,"refused":[{"line":3,"reason":"..."}]}
///
/// "refused" names the first lines of those that "refusedCount" counts. When the database stops taking records, there
/// is also "failure":{"firstLine":n,"lastLine":m,"reason":"..."}, the lines of the batch that it did not take, with
/// "error":{"code":1,"message":"..."} beside it; nothing from firstLine on is stored.
///
/// Without full access records are about environments that the requester's identity may write about, or nothing of the
/// request is stored: 403, which names the line.
#pragma once

#include <array>

#include "agent/api/AgentCall.h"

namespace QOR {

inline constexpr std::array recordParameters{
    AgentParameter{.name = "first-line",
                   .kind = AgentParameter::Kind::Number,
                   .meaning = "the number of the body's first line, for the lines that the answer names",
                   .range = {1, mostNumber},
                   .fallback = "1"},
};

/// Takes in NDJSON records, under the key of the field Idempotency-Key that the client may send the same again with.
/// \throws QORException 400 for a key that is none, 422 for a key of another content, 409 for one whose request is
/// being worked on
HttpReply answerRecords(AgentCall& call);

/// Collects what this machine can tell about itself. The same counts, and beside them "malformed":n, lines of the
/// logs that could not be understood, and "unreadable":["..."], logs that could not be read; no lines are refused.
HttpReply answerCollect(AgentCall& call);

}  // namespace QOR
