/// \file
/// What operations of this machine have in common, whichever collector brings them.
#pragma once

#include <string>
#include <string_view>

#include "ingest/QORRecords.h"

namespace QOR {

/// An operation that belongs to the machine and touches it. \param name of what happened, which is the same whenever it
/// is read, and no other's of this collector
QOROperationRecord collectedOperation(const QOREnvironmentRecord& machine, std::string_view name);

/// The end of its message: the machine as documents name the environment that an operation comes from.
void addSource(QORInfo& message, const QOREnvironmentRecord& machine);

/// A text in whatever bytes as one that a column takes: such as people can read (toXmlText()), and no longer than they
/// do, 4096 bytes.
std::string collectedText(std::string_view text);

/// Adds a text where there is one, as one that people can read whatever its bytes are (toXmlText()): as a document they
/// would be base64.
void addText(QORInfo& info, std::string_view name, std::string_view text);

}  // namespace QOR
