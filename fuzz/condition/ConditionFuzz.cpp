// A row condition as a text.
//
// What is refused is refused with a reason and a place in the text. What is taken is printed as a text that is taken as
// the same tree, and printed as the same text; masked, it shows no literal.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORNotation.h"
#include "QORQuery/QORCondition.h"
#include "QORQuery/QORQueryError.h"

namespace {

using namespace QOR;

constexpr std::size_t levels = 60;

void require(bool holds, const char* what) {
    if (holds) return;
    static_cast<void>(std::fprintf(stderr, "%s\n", what));
    std::abort();
}

/// One view is known, with a column of each kind.
QORConditionOptions options() {
    static const std::vector<std::string> columns{"a", "op", "status", "time", "eid", "a.b", "day"};
    QORConditionOptions options;
    options.view = "v";
    options.levels = levels;
    options.now = 1'700'000'000;
    options.currentEid = "6ba7b810-9dad-11d1-80b4-00c04fd430c8";
    options.types = [](std::string_view, std::string_view column) -> std::string {
        if (isSameWord(column, "time") || isSameWord(column, "day")) return "datetime";
        if (isSameWord(column, "status")) return "int";
        if (isSameWord(column, "eid")) return "uniqueidentifier";
        return "nvarchar(64)";
    };
    options.columns = [](std::string_view view) { return isSameWord(view, "v") ? &columns : nullptr; };
    return options;
}

/// \returns whether it is a condition, which stands in the message then
bool read(std::string_view text, QORMessage& message) {
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    try {
        parseCondition(text, options(), at);
        return true;
    } catch (const QORQueryError& error) {
        require(error.offset() <= text.size(), "the place of a mistake is outside of the text");
        require(*error.what() != '\0', "it was refused without a reason");
        require(!isUtf8(text) || isUtf8(error.what()), "the reason is no text");
    } catch (const QORException& error) {
        require(!error.message().empty(), "it was refused without a reason");
    }
    return false;
}

const QORMessageNode& conditionIn(const QORMessage& message) {
    return *message.rootNode()->firstChild->firstChild;
}

std::string treeOf(const QORMessage& message) {
    std::string tree;
    writeElement(conditionIn(message), tree);
    return tree;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    QORMessage first;
    if (!read(std::string_view(reinterpret_cast<const char*>(data), size), first)) return 0;
    const std::string text = printCondition(conditionIn(first));
    QORMessage second;
    require(read(text, second), "what was printed is refused");
    require(treeOf(first) == treeOf(second), "what was printed is another condition");
    require(printCondition(conditionIn(second)) == text, "it is printed otherwise the second time");
    const std::string masked = printCondition(conditionIn(first), QORConditionLiterals::Masked);
    require(masked.find('\'') == std::string::npos, "a text is shown that should be masked");
    return 0;
}
