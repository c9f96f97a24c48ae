/// \file
/// Internal: LIKE as the engine has it, but so that it can be ended.
#pragma once

struct sqlite3;

namespace QOR {

/// Puts our LIKE in the place of the engine's on a connection. To the engine, a comparison is one step, in which
/// nothing ends it: a pattern of 50,000 bytes over a document of some megabytes takes minutes. Ours gives the same
/// answers, by the engine's own function wherever that cannot take long, and otherwise looks at the request's control
/// meanwhile.
void replaceSqliteLike(sqlite3& connection) noexcept;

}  // namespace QOR
