#include "complete/ShellWords.h"

namespace QOR {
namespace {

constexpr std::string_view blanks = " \t\n";

/// Takes a quoted part away from the front of what is left, its quote already gone.
std::string takeQuoted(std::string_view& rest, char quote) {
    std::string text;
    while (!rest.empty() && rest.front() != quote) {
        // Between double quotes a backslash hides those characters alone that mean something there.
        if (quote == '"' && rest.front() == '\\' && rest.size() > 1 &&
            std::string_view("\"\\$`").find(rest[1]) != std::string_view::npos)
            rest.remove_prefix(1);
        text += rest.front();
        rest.remove_prefix(1);
    }
    if (!rest.empty()) rest.remove_prefix(1);
    return text;
}

}  // namespace

ShellLine readShellLine(std::string_view line) {
    ShellLine read{.words = {""}, .kept = ""};
    bool isBegun = false;
    while (!line.empty()) {
        const char c = line.front();
        line.remove_prefix(1);
        if (blanks.find(c) != std::string_view::npos) {
            if (isBegun) read.words.emplace_back();
            if (isBegun) read.kept.clear();
            isBegun = false;
            continue;
        }
        isBegun = true;
        std::string& word = read.words.back();
        if (c == '\'' || c == '"') {
            read.kept = word;
            word += takeQuoted(line, c);
        } else if (c == '\\' && !line.empty()) {
            word += line.front();
            line.remove_prefix(1);
        } else {
            word += c;
            if (c == '=' || c == ':') read.kept = word;
        }
    }
    return read;
}

}  // namespace QOR
