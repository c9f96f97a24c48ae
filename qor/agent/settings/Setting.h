/// \file
/// One setting of the agent: its name, what it takes, where its value is kept.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/settings/AgentSettings.h"
#include "host/QORPlainNumber.h"

namespace QOR {

/// A row of the table of settings. On the command line it is `--NAME`, in files `NAME = ...`.
struct Setting {
    // Where the value is kept, which is also what it is: a number is written in digits, seconds are a number, an age is
    // written as a duration, texts are a list.
    using Flag = bool& (*)(AgentSettings&);
    using Number = std::uint64_t& (*)(AgentSettings&);
    using OptionalNumber = std::optional<std::uint64_t>& (*)(AgentSettings&);
    using Rows = std::int64_t& (*)(AgentSettings&);
    using Seconds = std::chrono::milliseconds& (*)(AgentSettings&);
    using Age = std::optional<std::int64_t>& (*)(AgentSettings&);
    using Text = std::string& (*)(AgentSettings&);
    using Texts = std::vector<std::string>& (*)(AgentSettings&);

    std::string_view name;
    std::string_view group;  ///< a heading
    std::string_view meaning;
    std::variant<Flag, Number, OptionalNumber, Rows, Seconds, Age, Text, Texts> place;
    QORNumberRange range{};
    std::string_view placeholder{};               ///< for a text: FILE, ADDRESS
    std::string_view fallback{};                  ///< in words, where the value of nobody who gave one does not say it
    std::string (*fallbackHere)() = {};           ///< likewise, as it is on this machine and for this user
    std::string_view needs{};                     ///< the name of another setting, without which it means nothing
    bool changes = false;                         ///< a running agent takes up another value
    std::string_view variable{};                  ///< of the environment, which gives it too
    void (*check)(const std::string& text) = {};  ///< \throws QORException for a text that is none of its values

    bool isFlag() const noexcept { return std::holds_alternative<Flag>(place); }
    bool isNumber() const noexcept;
    bool isList() const noexcept { return std::holds_alternative<Texts>(place); }

    /// Takes what somebody has written, of a list all of it. \param shown how its giver calls the setting
    /// \throws QORException errBadRequest that says what is wrong
    void store(AgentSettings& settings, const std::vector<std::string>& texts, const std::string& shown) const;
    /// What store() would take; empty where nobody gave it a value.
    std::vector<std::string> texts(const AgentSettings& settings) const;
    /// Takes over the value.
    void copy(const AgentSettings& from, AgentSettings& to) const;
    /// The value that holds when nobody gives one, in words; empty when there is none.
    std::string fallbackWords() const;
};

}  // namespace QOR
