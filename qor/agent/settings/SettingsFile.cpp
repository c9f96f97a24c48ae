// The only unit of the agent that knows of toml++.
#include "agent/settings/SettingsFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define TOML_HEADER_ONLY 1
#include <toml++/toml.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORText.h"
#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsRefusal.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t mostBytes = std::size_t{1} << 20;

std::string place(const fs::path& file, const toml::source_region& source) {
    return file.string() + ":" + std::to_string(source.begin.line) + ":" + std::to_string(source.begin.column);
}

std::string contentsOf(const fs::path& file) {
    QORFileDescriptor opened;
    try {
        // A pipe without a writer would be waited for.
        opened = openOwnFile(file.string(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    } catch (const QORException& exception) {
        refuseSettings("the settings: " + exception.message());
    }
    struct stat status {};
    if (::fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode))
        refuseSettings("the settings: " + file.string() + " is no file");
    if ((status.st_mode & S_IWOTH) != 0)
        refuseSettings("the settings: " + file.string() + " may be written by everybody; chmod o-w " + file.string());
    std::string text;
    char block[4096];
    for (;;) {
        const ssize_t size = ::read(opened.get(), block, sizeof block);
        if (size < 0) refuseSettings("the settings: cannot read " + file.string() + ": " + std::strerror(errno));
        if (size == 0) return text;
        text.append(block, static_cast<std::size_t>(size));
        if (text.size() > mostBytes) refuseSettings("the settings: " + file.string() + " is larger than 1 MiB");
    }
}

/// A list's element, or a value.
std::string textOf(const toml::node& node, const std::string& expected) {
    if (const auto text = node.value_exact<std::string>()) return *text;
    refuseSettings(expected);
}

std::vector<std::string> listOf(const std::string& name, const toml::node& node) {
    const std::string expected = name + " is a list of texts: " + name + " = [\"...\"]";
    if (!node.is_array()) refuseSettings(expected);
    std::vector<std::string> texts;
    for (const toml::node& element : *node.as_array())
        texts.push_back(textOf(element, expected));
    return texts;
}

/// \throws QORException for a value of another type than the setting's
std::vector<std::string> textsOf(const Setting& setting, const std::string& name, const toml::node& node) {
    if (setting.isList()) return listOf(name, node);
    if (setting.isFlag()) {
        const auto flag = node.value_exact<bool>();
        if (!flag) refuseSettings(name + " is true or false");
        return {*flag ? "true" : "false"};
    }
    if (setting.isNumber()) {
        const auto number = node.value_exact<std::int64_t>();
        if (!number)
            refuseSettings(name + " is a number, from " + std::to_string(setting.range.least) + " to " +
                           std::to_string(setting.range.most));
        return {std::to_string(*number)};
    }
    return {textOf(node, name + " is a text, in quotes")};
}

/// What is wrong with a file, by where it is.
using Mistakes = std::map<std::pair<toml::source_index, toml::source_index>, std::string>;

void readSetting(const fs::path& file, const toml::key& key, const toml::node& node, GivenSettings& given,
                 Mistakes& mistakes) {
    const std::string name(key.str());
    const Setting* const setting = findSetting(name);
    const toml::source_region& at = setting == nullptr ? key.source() : node.source();
    const std::string where = place(file, at);
    try {
        if (setting == nullptr) refuseSettings("there is no setting " + quoteText(name) + adviseOnSetting(name));
        given.give(*setting, {textsOf(*setting, name, node), where, name});
    } catch (const QORException& exception) {
        mistakes[{at.begin.line, at.begin.column}] = where + ": " + exception.message();
    }
}

}  // namespace

GivenSettings readSettingsFile(const fs::path& file) {
    const std::string contents = contentsOf(file);
    GivenSettings given;
    Mistakes mistakes;
    try {
        for (const auto& [key, node] : toml::parse(contents, file.string()))
            readSetting(file, key, node, given, mistakes);
    } catch (const toml::parse_error& error) {
        refuseSettings(place(file, error.source()) + ": " + std::string(error.description()));
    }
    if (mistakes.empty()) return given;
    std::string all;
    for (const auto& [at, mistake] : mistakes)
        all += (all.empty() ? "" : "\n") + mistake;
    refuseSettings(all);
}

std::string settingsFileText(const std::string& text) {
    std::ostringstream out;
    out << toml::value<std::string>(text);
    return out.str();
}

}  // namespace QOR
