#include "ingest/collectors/ContainerPlace.h"

#include <algorithm>
#include <vector>

#include "QORCommon/QORNumbers.h"
#include "ingest/collectors/EscapedPath.h"

namespace QOR {
namespace {

constexpr std::string_view reachedMark = "reached";
constexpr std::string_view containerMark = "container";
constexpr std::string_view imageMark = "image";
/// A word for none.
constexpr std::string_view nothing = "-";

EnvironmentLife lifeOfWord(std::string_view word) {
    return static_cast<EnvironmentLife>(parseInt32(word).value_or(0));
}

std::string ofWord(std::string_view word) {
    return word == nothing ? std::string() : std::string(word);
}

std::string_view asWord(std::string_view text) {
    return text.empty() ? nothing : text;
}

}  // namespace

ContainerPlace::ContainerPlace(std::string_view position) {
    for (const std::string_view line : linesOf(position))
        readLine(line);
}

void ContainerPlace::readLine(std::string_view line) {
    const std::vector<std::string_view> words = wordsOf(line);
    if (words.size() == 3 && words[0] == reachedMark) {
        reached = std::max<std::int64_t>(parseInt64(words[1]).value_or(0), 0);
        lookedAt = unescapePath(ofWord(words[2]));
    } else if ((words.size() == 7 || words.size() == 8) && words[0] == containerMark) {
        containers[unescapePath(words[1])] = {lifeOfWord(words[2]),   lifeOfWord(words[3]),
                                              ofWord(words[4]),       ofWord(words[5]),
                                              unescapePath(words[6]), words.size() == 8 ? unescapePath(words[7]) : ""};
    } else if ((words.size() == 2 || words.size() == 3) && words[0] == imageMark) {
        images[unescapePath(words[1])] = words.size() == 3 ? unescapePath(words[2]) : "";
    }
}

std::string ContainerPlace::text() const {
    std::string text;
    text.append(reachedMark)
        .append(" ")
        .append(std::to_string(reached))
        .append(" ")
        .append(asWord(escapePath(lookedAt)));
    text += '\n';
    for (const auto& [id, one] : containers) {
        text.append(containerMark).append(" ").append(escapePath(id));
        text.append(" ").append(std::to_string(numberOf(one.life)));
        text.append(" ").append(std::to_string(numberOf(one.listed)));
        text.append(" ").append(asWord(one.seen)).append(" ").append(asWord(one.digest));
        text.append(" ").append(escapePath(one.name));
        if (!one.run.empty()) text.append(" ").append(escapePath(one.run));
        text += '\n';
    }
    for (const auto& [id, name] : images) {
        text.append(imageMark).append(" ").append(escapePath(id));
        if (!name.empty()) text.append(" ").append(escapePath(name));
        text += '\n';
    }
    return text;
}

}  // namespace QOR
