/// \file
/// What the requests of `qorctl select` and `qorctl rows` have in common.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"

namespace QOR {

/// \param status what a cursor answered \throws CtlError BadUsage when there was no room
void requireRoom(int status);

/// Adds which page is asked for. An offset alone asks for all that follows: the operators take an offset only with a
/// size. \param limit,offset 0 for none \throws CtlError BadUsage naming the option that is out of range
void addPage(QORBinaryIterator& at, std::int64_t limit, std::int64_t offset);

/// Adds within how many seconds the answer must come. \param seconds absent for no matter \pre 1 to mostTimeout
void addTimeout(QORBinaryIterator& at, std::optional<std::int64_t> seconds);
/// As a request can say it, in milliseconds.
constexpr std::int64_t mostTimeout = 2'000'000;

/// Fields as people list them: several of them in one text stand between commas, which names in double quotes may hold.
/// \throws CtlError BadUsage where a name is missing
std::vector<std::string> splitFields(const std::vector<std::string>& lists);

}  // namespace QOR
