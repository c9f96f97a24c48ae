/// \file
/// Routes that look after the database: checking it, and removing what is old.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

/// \param query part=NAME and, to mend what can be mended, mend=1
/// \returns `{"findings":[{"text":"...","mended":false},...]}`
/// \throws QORException, AException
std::string runCheck(std::string_view query);

/// \param query what=KIND and, for records, before=SECONDS since the epoch
/// \returns `{"done":500,"more":true,"stranded":0}`: records removed or bytes given back, whether to ask again, and
/// bytes that cannot be given back \throws QORException, AException
std::string runPrune(std::string_view query);

}  // namespace QOR
