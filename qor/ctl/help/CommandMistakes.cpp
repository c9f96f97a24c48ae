#include "CommandMistakes.h"

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// Validators have names, by which the words that they take can be found again.
constexpr std::string_view wordsMark = "words:";

/// The program, the command that was given and, of a group, the one within it.
std::vector<const CLI::App*> givenCommands(const CLI::App& app) {
    std::vector<const CLI::App*> given{&app};
    for (;;) {
        const std::vector<CLI::App*> within = given.back()->get_subcommands();
        if (within.empty()) return given;
        given.push_back(within.back());
    }
}

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* const each : app.get_subcommands({}))
        names.push_back(each->get_name());
    return names;
}

/// Without their dashes, which would make all alike.
std::vector<std::string> optionNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* const option : app.get_options({})) {
        for (const std::string& name : option->get_lnames())
            names.push_back(name);
    }
    return names;
}

/// "did you mean a, b?" on a line of its own, or nothing. \param before what stands in front of each name
std::string nearLine(std::string_view written, const std::vector<std::string>& names, std::string_view before = {}) {
    const std::vector<std::string_view> views(names.begin(), names.end());
    std::string line;
    for (const std::string_view near : nearestNames(written, views))
        line.append(line.empty() ? "\ndid you mean " : ", ").append(before).append(near);
    return line.empty() ? line : line + "?";
}

bool isOption(const std::string& word) {
    return word.size() > 1 && word.front() == '-';
}

/// What people call things that have another name here.
struct OtherWord {
    std::string_view written;
    std::string_view command;
};
constexpr std::array<OtherWord, 10> otherWords{{
    {"operations", "log"},
    {"oplog", "log"},
    {"journal", "log"},
    {"tail", "log --follow"},
    {"eventlog", "events"},
    {"alerts", "events"},
    {"environments", "envs"},
    {"hosts", "envs"},
    {"config", "context"},
    {"version", "--version"},
}};

std::string describeCommand(const CLI::App& group, const std::string& written) {
    const auto* const other = std::find_if(otherWords.begin(), otherWords.end(),
                                           [&](const OtherWord& word) { return word.written == written; });
    if (group.get_parent() == nullptr && other != otherWords.end())
        return "there is no command " + quoteText(written) + "\nit is qorctl " + std::string(other->command);
    const std::vector<std::string> names = commandNames(group);
    const std::string near = nearLine(written, names);
    return "there is no command " + quoteText((group.get_parent() == nullptr ? "" : group.get_name() + " ") + written) +
           (near.empty() ? "\nthere are " + joinTexts(names) : near);
}

bool isGroup(const CLI::App& command) {
    return !command.get_subcommands({}).empty();
}

std::string subjectOf(const CLI::App& command) {
    return command.get_parent() == nullptr ? "there is no option " : command.get_name() + " has no option ";
}

/// "that is one of log, events", on a line of its own; nothing where no command has the option.
std::string othersWith(const CLI::App& owner, const std::string& option) {
    constexpr std::size_t most = 5;
    std::vector<std::string> names;
    if (owner.get_parent() == nullptr) return {};
    for (const CLI::App* const each : owner.get_parent()->get_subcommands({})) {
        if (each->get_option_no_throw(option) != nullptr) names.push_back(each->get_name());
    }
    if (names.empty() || names.size() > most) return {};
    return "\nthat is an option of " + joinTexts(names);
}

/// An option that stands behind the name of `owner` and that this one does not have; `command` came later or is the
/// same.
std::string describeOption(const CLI::App& owner, const CLI::App& command, const std::string& written) {
    const std::string name = written.substr(0, written.find('='));
    if (&owner != &command && command.get_option_no_throw(name) != nullptr)
        return quoteText(name) + " is an option of " + command.get_name() + " and goes behind it";
    std::vector<std::string> names = optionNames(owner);
    if (&owner != &command) {
        const std::vector<std::string> later = optionNames(command);
        names.insert(names.end(), later.begin(), later.end());
        std::sort(names.begin(), names.end());
        names.erase(std::unique(names.begin(), names.end()), names.end());
    }
    const std::string near = nearLine(name.substr(std::min(name.find_first_not_of('-'), name.size())), names, "--");
    const std::string others = othersWith(owner, name);
    return subjectOf(owner) + quoteText(name) + (others.empty() ? near : others);
}

/// What is told of the first word that no command took; empty where all were taken.
std::string describeLeftover(const std::vector<const CLI::App*>& given) {
    const CLI::App& command = *given.back();
    for (const CLI::App* const owner : given) {
        const std::vector<std::string> words = owner->remaining(false);
        if (words.empty()) continue;
        if (isOption(words.front())) return describeOption(*owner, command, words.front());
        if (isGroup(*owner)) return describeCommand(*owner, words.front());
        return owner->get_name() + " does not take " + quoteText(words.front());
    }
    return {};
}

}  // namespace

std::string describeMistake(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<const CLI::App*> given = givenCommands(app);
    const CLI::App& command = *given.back();
    const std::string help = "\nqorctl --help and qorctl COMMAND --help say what there is.";
    if (const std::string leftover = describeLeftover(given); !leftover.empty()) return leftover + help;
    if (isGroup(command) && command.get_parent() != nullptr)
        return command.get_name() + " needs one of its commands: " + joinTexts(commandNames(command)) + help;
    return error.what() + help;
}

CLI::Validator oneOfWords(std::vector<std::string> words) {
    std::string name(wordsMark);
    for (const std::string& word : words)
        name += " " + word;
    CLI::Validator validator(
        [words = std::move(words)](std::string& written) -> std::string {
            if (std::find(words.begin(), words.end(), written) != words.end()) return {};
            return quoteText(written) + " is none of " + joinTexts(words) + nearLine(written, words);
        },
        "");
    validator.name(name);
    return validator;
}

std::vector<std::string> wordsOf(CLI::Option& option) {
    std::vector<std::string> words;
    try {
        for (int index = 0;; ++index) {
            const std::string name = option.get_validator(index)->get_name();
            if (!name.starts_with(wordsMark)) continue;
            std::istringstream listed{std::string(name.substr(wordsMark.size()))};
            for (std::string word; listed >> word;)
                words.push_back(word);
        }
    } catch (const CLI::OptionNotFound&) {
        return words;  // there are no more
    }
}

}  // namespace QOR
