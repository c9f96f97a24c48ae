/// \file
/// Commands for the host's own records: what each asks, as data.
#pragma once

#include <span>
#include <string_view>

namespace QOR {

/// A short form of `qorctl select VIEW`. Constants of the program.
struct ShortCommand {
    std::string_view name;         ///< as people give it
    std::string_view description;  ///< for the help
    std::string_view view;
    std::string_view source;  ///< as the agent's streams call the records
    std::string_view sort;    ///< where nobody says another one
};

std::span<const ShortCommand> shortCommands() noexcept;

}  // namespace QOR
