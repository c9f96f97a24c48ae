#include "agent/settings/Setting.h"

#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "agent/settings/SettingsRefusal.h"

namespace QOR {
namespace {

/// What somebody has written for a setting, and how they call it.
struct Written {
    const std::vector<std::string>& texts;
    const std::string& shown;
    QORNumberRange range;

    const std::string& text() const { return texts.at(0); }
    std::uint64_t number() const {
        const std::optional<std::uint64_t> read = readPlainNumber(text(), range);
        if (!read) refuseSettings(describeBadNumber(shown, text(), range));
        return *read;
    }
};

// A pair a kind of value: how it is read, and the texts that it would be read from.

void assign(bool& value, const Written& written) {
    const std::string& text = written.text();
    if (text != "true" && text != "false")
        refuseSettings(written.shown + " is true or false; " + quoteText(text) + " is neither");
    value = text == "true";
}
std::vector<std::string> textsOf(bool value) {
    return {value ? "true" : "false"};
}

void assign(std::uint64_t& value, const Written& written) {
    value = written.number();
}
std::vector<std::string> textsOf(std::uint64_t value) {
    return {std::to_string(value)};
}

void assign(std::optional<std::uint64_t>& value, const Written& written) {
    value = written.number();
}
std::vector<std::string> textsOf(const std::optional<std::uint64_t>& value) {
    return value ? textsOf(*value) : std::vector<std::string>();
}

void assign(std::int64_t& value, const Written& written) {
    value = static_cast<std::int64_t>(written.number());
}
std::vector<std::string> textsOf(std::int64_t value) {
    return {std::to_string(value)};
}

void assign(std::chrono::milliseconds& value, const Written& written) {
    value = std::chrono::seconds(written.number());
}
std::vector<std::string> textsOf(std::chrono::milliseconds value) {
    return {std::to_string(std::chrono::duration_cast<std::chrono::seconds>(value).count())};
}

void assign(std::optional<std::int64_t>& age, const Written& written) {
    const std::optional<std::int64_t> seconds = parseDuration(written.text());
    if (!seconds) refuseSettings(written.shown + ": \"" + written.text() + "\" is no age (90s, 45m, 12h, 30d, 8w)");
    age = seconds;
}
std::vector<std::string> textsOf(const std::optional<std::int64_t>& age) {
    return age ? std::vector{std::to_string(*age) + "s"} : std::vector<std::string>();
}

void assign(std::string& value, const Written& written) {
    value = written.text();
}
std::vector<std::string> textsOf(const std::string& value) {
    return value.empty() ? std::vector<std::string>() : std::vector{value};
}

void assign(std::vector<std::string>& value, const Written& written) {
    value = written.texts;
}
const std::vector<std::string>& textsOf(const std::vector<std::string>& value) {
    return value;
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
    std::visit([&](auto where) { assign(where(settings), {texts, shown, range}); }, place);
}

std::vector<std::string> Setting::texts(const AgentSettings& settings) const {
    // A place gives what can be written, too; nothing is written here.
    auto& all = const_cast<AgentSettings&>(settings);
    return std::visit([&](auto where) -> std::vector<std::string> { return textsOf(where(all)); }, place);
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
