#include "agent/settings/Setting.h"

#include <type_traits>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

template <class Place>
using ValueOf = std::remove_reference_t<std::invoke_result_t<Place, AgentSettings&>>;

template <class Value>
constexpr bool isCounted = std::is_same_v<Value, std::uint64_t> || std::is_same_v<Value, std::int64_t> ||
                           std::is_same_v<Value, std::optional<std::uint64_t>>;

[[noreturn]] void refuse(const std::string& reason) {
    throw QORException(errBadRequest, reason, "qor/agent/settings/Setting");
}

bool readFlag(const std::string& text, const std::string& shown) {
    if (text != "true" && text != "false") refuse(shown + " is true or false; " + quoteText(text) + " is neither");
    return text == "true";
}

std::int64_t readAge(const std::string& text, const std::string& shown) {
    const std::optional<std::int64_t> seconds = parseDuration(text);
    if (!seconds) refuse(shown + ": \"" + text + "\" is no age (90s, 45m, 12h, 30d, 8w)");
    return *seconds;
}

std::uint64_t readNumber(const std::string& text, const std::string& shown, QORNumberRange range) {
    const std::optional<std::uint64_t> number = readPlainNumber(text, range);
    if (!number) refuse(describeBadNumber(shown, text, range));
    return *number;
}

}  // namespace

bool Setting::isNumber() const noexcept {
    return std::holds_alternative<Number>(place) || std::holds_alternative<OptionalNumber>(place) ||
           std::holds_alternative<Rows>(place) || std::holds_alternative<Seconds>(place);
}

void Setting::store(AgentSettings& settings, const std::vector<std::string>& texts, const std::string& shown) const {
    if (check != nullptr) {
        for (const std::string& text : texts)
            check(text);
    }
    if (isList()) {
        std::get<Texts>(place)(settings) = texts;
        return;
    }
    const std::string& text = texts.at(0);
    std::visit(
        [&](auto where) {
            using Value = ValueOf<decltype(where)>;
            if constexpr (std::is_same_v<Value, bool>) {
                where(settings) = readFlag(text, shown);
            } else if constexpr (std::is_same_v<Value, std::chrono::milliseconds>) {
                where(settings) = std::chrono::seconds(readNumber(text, shown, range));
            } else if constexpr (std::is_same_v<Value, std::optional<std::int64_t>>) {
                where(settings) = readAge(text, shown);
            } else if constexpr (std::is_same_v<Value, std::int64_t>) {
                where(settings) = static_cast<std::int64_t>(readNumber(text, shown, range));
            } else if constexpr (isCounted<Value>) {
                where(settings) = readNumber(text, shown, range);
            } else if constexpr (std::is_same_v<Value, std::string>) {
                where(settings) = text;
            }
        },
        place);
}

std::vector<std::string> Setting::texts(const AgentSettings& settings) const {
    // A place gives what can be written, too; nothing is written here.
    auto& all = const_cast<AgentSettings&>(settings);
    if (isList()) return std::get<Texts>(place)(all);
    return std::visit(
        [&](auto where) -> std::vector<std::string> {
            const auto& value = where(all);
            using Value = ValueOf<decltype(where)>;
            if constexpr (std::is_same_v<Value, bool>) {
                return {value ? "true" : "false"};
            } else if constexpr (std::is_same_v<Value, std::chrono::milliseconds>) {
                return {std::to_string(std::chrono::duration_cast<std::chrono::seconds>(value).count())};
            } else if constexpr (std::is_same_v<Value, std::optional<std::int64_t>>) {
                return value ? std::vector{std::to_string(*value) + "s"} : std::vector<std::string>();
            } else if constexpr (std::is_same_v<Value, std::optional<std::uint64_t>>) {
                return value ? std::vector{std::to_string(*value)} : std::vector<std::string>();
            } else if constexpr (isCounted<Value>) {
                return {std::to_string(value)};
            } else if constexpr (std::is_same_v<Value, std::string>) {
                return value.empty() ? std::vector<std::string>() : std::vector{value};
            } else {
                return {};
            }
        },
        place);
}

void Setting::copy(const AgentSettings& from, AgentSettings& to) const {
    auto& source = const_cast<AgentSettings&>(from);
    std::visit([&](auto where) { where(to) = where(source); }, place);
}

std::string Setting::fallbackWords() const {
    if (!fallback.empty()) return std::string(fallback);
    if (isFlag()) return "false";
    const std::vector<std::string> standard = texts(AgentSettings());
    return standard.empty() ? std::string() : standard.front();
}

}  // namespace QOR
