#include "CommandMistakes.h"

#include <algorithm>

#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// The command that was given last, of a group the one within it.
const CLI::App& lastCommand(const CLI::App& app) {
    const CLI::App* last = &app;
    for (;;) {
        const std::vector<CLI::App*> given = last->get_subcommands();
        if (given.empty()) return *last;
        last = given.back();
    }
}

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* const each : app.get_subcommands({}))
        names.push_back(each->get_name());
    return names;
}

/// With their dashes.
std::vector<std::string> optionNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* const option : app.get_options({})) {
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
    }
    return names;
}

/// "did you mean a or b?" on a line of its own, or nothing.
std::string nearLine(std::string_view written, const std::vector<std::string>& names) {
    const std::vector<std::string_view> views(names.begin(), names.end());
    std::string line;
    for (const std::string_view near : nearestNames(written, views))
        line.append(line.empty() ? "\ndid you mean " : ", ").append(near);
    return line.empty() ? line : line + "?";
}

std::string listOf(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

std::string describeCommand(const CLI::App& group, const std::string& written) {
    const std::vector<std::string> names = commandNames(group);
    const std::string near = nearLine(written, names);
    return "there is no command " + quoteText((group.get_parent() == nullptr ? "" : group.get_name() + " ") + written) +
           (near.empty() ? "\nthere are " + listOf(names) : near);
}

std::string describeOption(const CLI::App& command, const std::string& written) {
    const std::string name = written.substr(0, written.find('='));
    const bool isShort = !name.starts_with("--");
    return (command.get_parent() == nullptr ? "there is no option " : command.get_name() + " has no option ") +
           quoteText(name) + nearLine(isShort && name.size() > 2 ? "-" + name : name, optionNames(command));
}

}  // namespace

std::string describeMistake(const CLI::App& app, const CLI::ParseError& error) {
    const CLI::App& command = lastCommand(app);
    const std::string help = "\nqorctl --help and qorctl COMMAND --help say what there is.";
    std::vector<std::string> unknown = app.remaining(true);
    const auto option = std::find_if(unknown.begin(), unknown.end(), isOption);
    const auto word = std::find_if_not(unknown.begin(), unknown.end(), isOption);
    const bool isGroup = !command.get_subcommands({}).empty();
    if (isGroup && word != unknown.end()) return describeCommand(command, *word) + help;
    if (option != unknown.end() && dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
        return describeOption(command, *option) + help;
    if (isGroup && command.get_parent() != nullptr)
        return command.get_name() + " needs one of its commands: " + listOf(commandNames(command)) + help;
    return error.what() + help;
}

CLI::Validator oneOfWords(std::vector<std::string> words) {
    return CLI::Validator(
        [words = std::move(words)](std::string& written) -> std::string {
            if (std::find(words.begin(), words.end(), written) != words.end()) return {};
            return quoteText(written) + " is none of " + listOf(words) + nearLine(written, words);
        },
        "");
}

}  // namespace QOR
