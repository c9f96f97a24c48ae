/// \file
/// What the requests of `qorctl select` and `qorctl rows` have in common.
#pragma once

#include <cstdint>

#include "QORMessage/QORBinaryIterator.h"

namespace QOR {

/// \param status what a cursor answered \throws CtlError BadUsage when there was no room
void requireRoom(int status);

/// Adds which page is asked for. An offset alone asks for all that follows: the operators take an offset only with a
/// size. \param limit,offset 0 for none \throws CtlError BadUsage naming the option that is out of range
void addPage(QORBinaryIterator& at, std::int64_t limit, std::int64_t offset);

}  // namespace QOR
