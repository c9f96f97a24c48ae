/// \file
/// The agent's manual pages, made of its options and settings, and what else packages take of them. The same on every
/// machine.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

/// In place of options, how these are asked for when packages are made.
constexpr std::string_view agentManualQuestion = "__manual";
constexpr std::string_view settingsManualQuestion = "__manual-settings";
/// The file of settings that a package brings: all of them, as comments.
constexpr std::string_view packagedSettingsQuestion = "__settings";

/// qor-agent(8), in the language of man(7).
std::string agentManual(std::string_view version);

/// agent.toml(5), in the language of man(7).
std::string settingsManual(std::string_view version);

}  // namespace QOR
