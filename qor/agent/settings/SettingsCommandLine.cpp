#include "agent/settings/SettingsCommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORPasswords.h"
#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsSources.h"
#include "agent/settings/SettingsText.h"
#include "host/QORManualOptions.h"

namespace QOR {
namespace {

constexpr const char* where = "the command line";
constexpr int badUsage = 2;

/// `requests that are answered at once, by default 16 (1 to 1024)`
std::string helpOf(const Setting& setting, Defaults defaults) {
    std::string help(setting.meaning);
    const std::string fallback = defaultOf(setting, defaults);
    if (!fallback.empty() && !setting.isFlag()) help += ", by default " + fallback;
    if (setting.isNumber())
        help += " (" + std::to_string(setting.range.least) + " to " + std::to_string(setting.range.most) + ")";
    return help;
}

/// What the setting does not take ends the parsing, as what the parser itself refuses.
void give(const Setting& setting, std::vector<std::string> texts, GivenSettings& given) {
    const std::string shown = "--" + std::string(setting.name);
    try {
        given.give(setting, {std::move(texts), where, shown});
    } catch (const QORException& exception) {
        const bool named = exception.message().starts_with(shown);
        throw CLI::ValidationError(named ? exception.message() : shown + ": " + exception.message());
    }
}

void declare(CLI::App& app, const Setting& setting, Defaults defaults, GivenSettings& given) {
    const std::string name = "--" + std::string(setting.name);
    const std::string placeholder(setting.isNumber() ? "N" : setting.placeholder);
    const std::string help = helpOf(setting, defaults);
    CLI::Option* option = nullptr;
    if (setting.isFlag()) {
        option = app.add_flag_function(
            name, [&setting, &given](std::int64_t count) { give(setting, {count > 0 ? "true" : "false"}, given); },
            help);
    } else if (setting.isList()) {
        option = app.add_option_function<std::vector<std::string>>(
            name, [&setting, &given](const std::vector<std::string>& texts) { give(setting, texts, given); }, help);
        option->type_name(placeholder)->allow_extra_args(false);
    } else {
        option = app.add_option_function<std::string>(
            name, [&setting, &given](const std::string& text) { give(setting, {text}, given); }, help);
        option->type_name(placeholder);
    }
    option->group(std::string(setting.group));
}

void declareWishes(CLI::App& app, Defaults defaults, SettingsCommandLine& line) {
    const std::string file = defaults == Defaults::OfThisMachine ? defaultSettingsFile().string()
                                                                 : "/etc/qor/agent.toml, ~/.config/qor/agent.toml of "
                                                                   "other users than root";
    app.set_version_flag("--version", QOR_VERSION);
    app.add_option_function<std::string>(
           "--settings", [&line](const std::string& path) { line.file = path; },
           "the file of settings, beside which are those in conf.d, by default " + file)
        ->type_name("FILE");
    app.add_flag_callback(
        "--check-config", [&line] { line.wish = SettingsCommandLine::Wish::CheckConfig; },
        "say what is wrong with the settings and the vocabulary, then end");
    app.add_flag_callback(
        "--print-settings", [&line] { line.wish = SettingsCommandLine::Wish::PrintSettings; },
        "print all settings as a file of settings, with what they are now, then end");
    app.add_flag_callback(
        "--print-settings-table", [&line] { line.wish = SettingsCommandLine::Wish::PrintTable; },
        "print a table of all settings in Markdown, then end");
}

void declareAll(CLI::App& app, Defaults defaults, SettingsCommandLine& line) {
    declareWishes(app, defaults, line);
    for (const Setting& setting : settingTable())
        declare(app, setting, defaults, line.given);
}

}  // namespace

std::optional<SettingsCommandLine> readCommandLine(const std::vector<std::string>& arguments, int& status) {
    SettingsCommandLine line;
    CLI::App app("Hosts the plug-ins of this machine and answers its clients over a unix socket, TCP or TLS.",
                 "qor-agent");
    declareAll(app, Defaults::OfThisMachine, line);
    std::vector<std::string> backwards(arguments.rbegin(), arguments.rend());  // as the parser takes them
    try {
        app.parse(backwards);
        return line;
    } catch (const CLI::ParseError& error) {
        std::ostringstream complaint;
        status = app.exit(error, std::cout, complaint) == 0 ? EXIT_SUCCESS : badUsage;
        std::cerr << withoutPasswords(complaint.str()) << std::flush;
        return std::nullopt;
    }
}

std::string commandLineManual() {
    SettingsCommandLine line;
    CLI::App app;
    declareAll(app, Defaults::InWords, line);
    std::string text;
    for (const std::string& heading : app.get_groups()) {
        // Those that begin are no settings.
        if (!text.empty()) text += ".SS " + manualText(heading) + "\n";
        text += manualOptions(app, [&heading](const std::string& group) { return group == heading; });
    }
    return text;
}

}  // namespace QOR
