// Every option of the programs that takes a number, as their help names them: a new one cannot be forgotten.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ctl/CtlProcess.h"
#include "host/QORPlainNumber.h"

namespace QOR {
namespace {

using test::runProgram;
using test::Words;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

struct NumberOption {
    Words command;
    std::string name;
    std::uint64_t least;
    std::uint64_t most;
};

std::string helpOf(Words command) {
    command.emplace_back("--help");
    const auto [status, output] = runProgram(command);
    EXPECT_EQ(status, 0) << output;
    return output;
}

/// The commands of a program, itself among them.
std::vector<Words> commandsOf(const std::string& program) {
    std::vector<Words> commands{{program}};
    const std::string help = helpOf({program});
    const std::size_t list = help.find("Subcommands:");
    if (list == std::string::npos) return commands;
    const std::string names = help.substr(list);
    static const std::regex name("\n  ([a-z][a-z-]*)");
    for (std::sregex_iterator found(names.begin(), names.end(), name), end; found != end; ++found)
        commands.push_back({program, (*found)[1]});
    return commands;
}

std::vector<NumberOption> readNumberOptions() {
    static const std::regex option(R"((--[a-z-]+) N\s[^\n]*?(?:\n[^\n]*?)?\(([0-9]+) to ([0-9]+)\))");
    std::vector<NumberOption> options;
    for (const char* program : {"qor-agent", "qorctl"}) {
        for (const Words& command : commandsOf((test::programDirectory() / program).string())) {
            const std::string help = helpOf(command);
            EXPECT_THAT(help, Not(ContainsRegex("--[a-z-]+ (INT|UINT|FLOAT|NUMBER)")))
                << "declare numbers with addNumber()";
            for (std::sregex_iterator found(help.begin(), help.end(), option), end; found != end; ++found)
                options.push_back({command, (*found)[1], std::stoull((*found)[2]), std::stoull((*found)[3])});
        }
    }
    return options;
}

const std::vector<NumberOption>& numberOptions() {
    static const std::vector<NumberOption> options = readNumberOptions();
    return options;
}

TEST(NumberOptions, AreFoundInTheHelp) {
    std::string names;
    for (const NumberOption& option : numberOptions())
        names += option.command.back() + " " + option.name + "\n";
    for (const char* name :
         {"select --limit\n", "select --offset\n", "select --width\n", "rows --limit\n", "sample --environments\n",
          "sample --operations\n", "sample --events\n", "sample --backups\n", "sample --seed\n", "views --width\n",
          "qor-agent --threads\n", "qor-agent --body-limit\n", "qor-agent --grace\n", "qor-agent --log-level\n"})
        EXPECT_THAT(names, HasSubstr(name));
}

std::pair<int, std::string> runWith(Words command, const Words& value) {
    command.insert(command.end(), value.begin(), value.end());
    command.emplace_back("--help");
    return runProgram(command);
}

void expectRefused(const NumberOption& option, const std::string& value, const Words& words) {
    const auto [status, output] = runWith(option.command, words);
    EXPECT_EQ(status, 2) << option.command.back() << ' ' << testing::PrintToString(words);
    EXPECT_THAT(output, HasSubstr(option.name + " must lie between " + std::to_string(option.least) + " and " +
                                  std::to_string(option.most) + ", in plain digits; \"" + value + "\" does not"));
}

TEST(NumberOptions, TakeNumbersOfTheirRangeAlone) {
    for (const NumberOption& option : numberOptions()) {
        expectRefused(option, "-1", {option.name, "-1"});
        expectRefused(option, std::to_string(option.most + 1), {option.name + "=" + std::to_string(option.most + 1)});
        if (option.least > 0) {
            const std::string less = std::to_string(option.least - 1);
            expectRefused(option, less, {option.name + "=" + less});
        }
    }
    // What is taken is so with all others of the command.
    std::map<Words, std::pair<Words, Words>> bounds;
    for (const NumberOption& option : numberOptions()) {
        auto& [least, most] = bounds[option.command];
        least.insert(least.end(), {option.name, std::to_string(option.least)});
        most.insert(most.end(), {option.name, std::to_string(option.most)});
    }
    for (const auto& [command, both] : bounds) {
        for (const Words& values : {both.first, both.second}) {
            const auto [status, output] = runWith(command, values);
            EXPECT_EQ(status, 0) << command.back() << ' ' << testing::PrintToString(values) << '\n' << output;
        }
    }
}

// What is no number is refused by the one function that declares all of them: one of each program shows it.
TEST(NumberOptions, TakePlainDigitsAlone) {
    std::set<std::string> programs;
    for (const NumberOption& option : numberOptions()) {
        if (!programs.insert(option.command.front()).second) continue;
        for (const char* const value : {"-5", "+5", " 5", "5 ", "5x", "x5", "1e3", "1.5", "1,5", "010", "00", "0x10",
                                        "5_000", "18446744073709551616", "99999999999999999999999"})
            expectRefused(option, value, {option.name + "=" + value});
        EXPECT_NE(runWith(option.command, {option.name, ""}).first, 0)
            << option.command.back() << ' ' << option.name << " ''";
    }
    EXPECT_EQ(programs.size(), 2);
}

TEST(NumberOptions, PlainNumbersAreDigitsWithoutLeadingZeros) {
    constexpr QORNumberRange all{0, UINT64_MAX};
    EXPECT_EQ(readPlainNumber("0", all), 0U);
    EXPECT_EQ(readPlainNumber("18446744073709551615", all), UINT64_MAX);
    EXPECT_EQ(readPlainNumber("7", {7, 7}), 7U);
    for (const char* text : {"", "-0", "01", "18446744073709551616", "1 ", "1\n", "\xD9\xA1"})
        EXPECT_FALSE(readPlainNumber(text, all)) << text;
    EXPECT_FALSE(readPlainNumber("6", {7, 9}));
    EXPECT_FALSE(readPlainNumber("10", {7, 9}));
}

}  // namespace
}  // namespace QOR
