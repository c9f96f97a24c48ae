/// \file
/// What a check has found.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

struct Finding {
    enum class Level {
        Fine,
        Advice,  ///< works, but not as most want it
        Fault,
    };
    Level level = Level::Fine;
    std::string_view subject;  ///< "clock"; of static storage
    std::string found;         ///< a sentence without its point
    std::string todo{};        ///< likewise, of what is not fine
};

/// What stands in a finding of a text of several lines.
inline std::string firstLineOf(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

}  // namespace QOR
