/// \file
/// The agent's settings as texts: a file of settings, and a page's table.
#pragma once

#include <cstdint>
#include <string>

#include "agent/settings/GivenSettings.h"

namespace QOR {

/// How defaults are told that depend on the machine and the user.
enum class Defaults : std::uint8_t { OfThisMachine, InWords };

/// A setting's default, without the marks of Markdown; empty when there is none.
std::string defaultOf(const Setting& setting, Defaults defaults);

/// Every setting with its meaning, range and default, as a file that reads back as what was given: what nobody gave
/// is a comment. Passwords are left out.
std::string settingsAsFile(const GivenSettings& given, Defaults defaults = Defaults::OfThisMachine);

/// Its values: "1 to 1024", "true, false", "FILE".
std::string valuesOf(const Setting& setting);

/// A table of them in Markdown, a group a heading. The same on every machine.
std::string settingsAsTable();

}  // namespace QOR
