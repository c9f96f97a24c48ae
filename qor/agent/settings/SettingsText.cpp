#include "agent/settings/SettingsText.h"

#include <vector>

#include "QORCommon/QORPasswords.h"
#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsFile.h"

namespace QOR {
namespace {

std::string valueText(const Setting& setting, const std::vector<std::string>& texts) {
    if (setting.isFlag() || setting.isNumber()) return texts.at(0);
    if (!setting.isList()) return settingsFileText(withoutPasswords(texts.at(0)));
    std::string list = "[";
    for (const std::string& text : texts)
        list += (list.size() > 1 ? ", " : "") + settingsFileText(text);
    return list + "]";
}

std::string rangeOf(const Setting& setting) {
    return std::to_string(setting.range.least) + " to " + std::to_string(setting.range.most);
}

/// What stands behind `name =` where nobody gave a value: the default, or something of the right form.
std::string example(const Setting& setting) {
    const std::vector<std::string> standard = setting.texts(AgentSettings());
    // A number that is no value of its own stands for something that is said in words.
    const bool isValue = setting.fallback.empty() || setting.isFlag();
    if (!standard.empty() && isValue) return valueText(setting, standard);
    if (setting.isList()) return "[]";
    return setting.isNumber() ? "..." : "\"\"";
}

void appendSetting(const Setting& setting, const GivenSettings& given, Defaults defaults, std::string& text) {
    text += "\n# " + std::string(setting.meaning);
    if (setting.isNumber()) text += " (" + rangeOf(setting) + ")";
    const std::string fallback = defaultOf(setting, defaults);
    if (!fallback.empty()) text += ". Default: " + fallback;
    if (!setting.variable.empty()) text += ". Also: variable " + std::string(setting.variable);
    text += setting.changes ? ".\n" : ". A change needs a restart.\n";
    const std::string name(setting.name);
    if (const GivenSettings::Given* const one = given.find(setting)) {
        text += name + " = " + valueText(setting, one->texts) + "  # " + one->where + "\n";
    } else {
        text += "#" + name + " = " + example(setting) + "\n";
    }
}

std::string cell(std::string_view text) {
    std::string escaped;
    for (const char c : text)
        escaped += c == '|' ? std::string("\\|") : std::string(1, c);
    return escaped;
}

}  // namespace

std::string valuesOf(const Setting& setting) {
    if (setting.isFlag()) return "true, false";
    return setting.isNumber() ? rangeOf(setting) : std::string(setting.placeholder);
}

std::string defaultOf(const Setting& setting, Defaults defaults) {
    if (defaults == Defaults::OfThisMachine && setting.fallbackHere != nullptr) return setting.fallbackHere();
    std::string text = setting.fallbackWords();
    std::erase(text, '`');
    return text;
}

std::string settingsAsFile(const GivenSettings& given, Defaults defaults) {
    std::string text = "# Settings of qor-agent. A line that begins with # is not read.\n";
    std::string_view group;
    for (const Setting& setting : settingTable()) {
        if (setting.group != group) text += "\n# ---- " + std::string(setting.group) + "\n";
        group = setting.group;
        appendSetting(setting, given, defaults, text);
    }
    return text;
}

std::string settingsAsTable() {
    std::string text;
    std::string_view group;
    for (const Setting& setting : settingTable()) {
        if (setting.group != group) {
            text += (group.empty() ? "**" : "\n**") + std::string(setting.group) +
                    "**\n\n| Setting | Values | Default | Changes while it runs | |\n|---|---|---|---|---|\n";
        }
        group = setting.group;
        text += "| `" + std::string(setting.name) + "` | " + cell(valuesOf(setting)) + " | " +
                cell(setting.fallbackWords()) + " | " + (setting.changes ? "yes" : "no") + " | " +
                cell(setting.meaning);
        if (!setting.variable.empty()) text += "; also `" + std::string(setting.variable) + "`";
        text += " |\n";
    }
    return text;
}

}  // namespace QOR
