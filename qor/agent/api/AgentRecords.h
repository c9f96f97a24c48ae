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
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace QOR {

/// Takes in NDJSON records. \param query the request's parameters: `first-line=N` numbers the first line (default 1)
/// \param key under which the client may send the same again without doubling anything; empty for none
/// \throws QORException 400 for a parameter that is unknown or no line number and for a key that is none, 422 for a key
/// of another content, 409 for one whose request is being worked on
std::string takeRecords(std::string_view ndjson, std::string_view query, std::optional<std::string_view> key);

/// Collects what this machine can tell about itself. The same counts, and beside them "malformed":n, lines of the
/// logs that could not be understood, and "unreadable":["..."], logs that could not be read; no lines are refused.
std::string runCollectors();

}  // namespace QOR
