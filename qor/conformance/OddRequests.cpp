#include "conformance/OddRequests.h"

#include <array>
#include <cstddef>
#include <random>
#include <string_view>

#include "QORCommon/QORText.h"
#include "QORMessage/QORTags.h"

namespace QOR {
namespace {

constexpr std::array<QORTag, 24> usualTags{
    tag::type,  tag::view, tag::value,     tag::size,  tag::name,       tag::offset,   tag::source,   tag::statistics,
    tag::limit, tag::env,  tag::select,    tag::field, tag::where,      tag::sort,     tag::function, tag::eq,
    tag::like,  tag::in,   tag::logicalOr, tag::exact, tag::logicalNot, tag::distinct, tag::after,    tag::count,
};
/// As C's printf would take them, numbers at the end of what fits, and names that nothing has.
constexpr std::array<std::string_view, 12> oddTexts{"",
                                                    "x",
                                                    "-1",
                                                    "0",
                                                    "2147483647",
                                                    "9223372036854775808",
                                                    "%n%s%s%s%n%*d",
                                                    "1e999",
                                                    "'; --",
                                                    "\"\\\n\t",
                                                    "NaN",
                                                    "\xC3\xA4\xF0\x9F\x99\x82"};
constexpr int randomElements = 150;
constexpr int mostChildren = 4;
constexpr int mostLevels = 5;

std::string textElement(QORTag tag, std::string_view text) {
    std::string element = "[" + std::to_string(tag) + ",";
    appendJsonString(text, element);
    return element + "]";
}

class RandomElements {
public:
    /// \param levels that it may have below it
    std::string next(int levels) {  // NOLINT(misc-no-recursion): no deeper than `mostLevels`
        const QORTag tag = usualTags[below(usualTags.size())];
        const std::size_t kind = levels == 0 ? below(2) : below(5);
        if (kind == 0) return "[" + std::to_string(tag) + "]";
        if (kind == 1) return textElement(tag, oddTexts[below(oddTexts.size())]);
        std::string children;
        for (std::size_t count = 1 + below(mostChildren); count > 0; --count)
            children += (children.empty() ? "" : ",") + next(levels - 1);
        return "[" + std::to_string(tag) + ",[" + children + "]]";
    }

private:
    std::size_t below(std::size_t most) { return m_random() % most; }

    std::mt19937 m_random{1};
};

std::vector<std::string> makeElements() {
    std::vector<std::string> elements{"[1026]", "[1740,[]]", R"([1740,{"base64":"AP/+gA=="}])", "[2147483647,\"x\"]"};
    for (const QORTag tag : {tag::name, tag::field, tag::select})
        for (const std::string_view text : oddTexts)
            elements.push_back(textElement(tag, text));
    elements.push_back(textElement(tag::field, std::string(std::size_t{1} << 20, 'x')));
    constexpr int deepest = 60;  // a message has 64 levels at most
    std::string deep = "[1026,\"x\"]";
    for (int level = 0; level < deepest; ++level)
        deep.insert(0, "[1742,[").append("]]");
    elements.push_back(deep);
    std::string wide = "[1026]";
    constexpr int widest = 10'000;
    for (int child = 1; child < widest; ++child)
        wide += ",[1741,\"x\"]";
    elements.push_back("[1740,[" + wide + "]]");
    RandomElements random;
    for (int count = 0; count < randomElements; ++count)
        elements.push_back(random.next(mostLevels));
    return elements;
}

}  // namespace

const std::vector<std::string>& oddElements() {
    static const std::vector<std::string> elements = makeElements();
    return elements;
}

}  // namespace QOR
