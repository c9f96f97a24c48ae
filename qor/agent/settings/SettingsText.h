/// \file
/// The agent's settings as texts: a file of settings, and a page's table.
#pragma once

#include <string>

#include "agent/settings/GivenSettings.h"

namespace QOR {

/// Every setting with its meaning, range and default, as a file that reads back as what was given: what nobody gave
/// is a comment. Passwords are left out.
std::string settingsAsFile(const GivenSettings& given);

/// Its values: "1 to 1024", "true, false", "FILE".
std::string valuesOf(const Setting& setting);
/// Its default without the marks of Markdown; empty when there is none.
std::string plainFallback(const Setting& setting);

/// A table of them in Markdown, a group a heading. The same on every machine.
std::string settingsAsTable();

}  // namespace QOR
