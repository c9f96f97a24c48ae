#include "QORPager/QORDateTimeRewrite.h"

#include <cstdint>
#include <string_view>
#include <utility>

#include "QORCommon/QORTime.h"
#include "QORPager/QORExpressionText.h"
#include "QORPager/QORSources.h"

namespace QOR {
namespace {

/// Backward scans stop before the first characters of the text: nothing there counts as a literal or a part of one.
constexpr std::size_t untouched = 4;

/// What stands beside a name.
struct Neighbour {
    enum Kind { Nothing, Literal, Number };
    Kind kind = Nothing;
    std::size_t begin = 0;  ///< of a literal: its opening quote
    std::size_t end = 0;    ///< of a literal: behind its closing quote
};

constexpr bool isBlank(char ch) noexcept {
    return ch == ' ' || ch == '\t' || ch == '\n' || ch == '\r';
}
constexpr bool isComparison(char ch) noexcept {
    return ch == '<' || ch == '=' || ch == '>';
}

/// \param name where the name begins
Neighbour lookLeft(std::string_view text, std::size_t name) {
    std::size_t at = name;  // the character before it is looked at
    const auto inReach = [&] { return at > untouched; };
    while (inReach() && (isBlank(text[at - 1]) || isComparison(text[at - 1])))
        --at;
    // "!" belongs to a comparison only as the character of it that is nearest to the literal.
    if (inReach() && text[at - 1] == '!') {
        --at;
        while (inReach() && isBlank(text[at - 1]))
            --at;
    }
    if (!inReach()) return {};
    if (isDigitChar(text[at - 1])) return {Neighbour::Number};
    if (text[at - 1] != '\'' || at - 1 == untouched) return {};
    const std::size_t opening = text.rfind('\'', at - 2);
    if (opening == std::string_view::npos || opening < untouched) return {};
    return {Neighbour::Literal, opening, at};
}

/// \param at behind the name
Neighbour lookRight(std::string_view text, std::size_t at) {
    while (at < text.size() && (isBlank(text[at]) || isComparison(text[at]) || text[at] == '!'))
        ++at;
    if (at == text.size()) return {};
    if (isDigitChar(text[at])) return {Neighbour::Number};
    if (text[at] != '\'') return {};
    const std::size_t closing = text.find('\'', at + 1);
    if (closing == std::string_view::npos) return {};
    return {Neighbour::Literal, at, closing + 1};
}

}  // namespace

bool doTransformDateTime(std::string& text, const std::string& name) {
    // What is rewritten goes into a text of its own, so that a filter with many literals costs linear time. Looking
    // left sees that text: a number that an earlier literal became counts as one.
    std::string done;
    std::size_t rest = 0;  // what is not in `done` yet
    for (std::size_t found = text.find(name); found != std::string::npos; found = text.find(name, rest)) {
        done.append(text, rest, found + name.size() - rest);
        rest = found + name.size();
        Neighbour literal = lookLeft(done, done.size() - name.size());
        const bool left = literal.kind != Neighbour::Nothing;
        if (!left) literal = lookRight(text, rest);
        if (literal.kind == Neighbour::Number) return false;
        if (literal.kind == Neighbour::Nothing) continue;
        const std::size_t length = literal.end - literal.begin;
        const std::string_view source = left ? done : text;
        const std::int64_t seconds = str2time(source.substr(literal.begin + 1, length - 2));
        if (seconds < 0) return false;
        if (left) {
            done.replace(literal.begin, length, std::to_string(seconds));
        } else {
            done.append(text, rest, literal.begin - rest).append(std::to_string(seconds));
            rest = literal.end;
        }
    }
    done.append(text, rest);
    text = std::move(done);
    return true;
}

bool transformDateTime(std::string& where) {
    const auto rewrite = [&where](TCursorType log) {
        return doTransformDateTime(where, std::string(sourceOf(log).constant(QORConstantUse::Latest).name));
    };
    return rewrite(TCursorType::OpLog) && rewrite(TCursorType::EventLog);
}

std::size_t placeBeforeTransform(std::string_view given, std::string_view transformed, std::size_t place) noexcept {
    std::size_t at = 0;
    for (std::size_t made = 0; made < place && made < transformed.size() && at < given.size();) {
        if (given[at] == transformed[made]) {
            ++at;
            ++made;
            continue;
        }
        // A literal in quotes became digits.
        const std::size_t closing = given.find('\'', at + 1);
        at = closing == std::string_view::npos ? given.size() : closing + 1;
        while (made < transformed.size() && isDigitChar(transformed[made]))
            ++made;
    }
    return at;
}

}  // namespace QOR
