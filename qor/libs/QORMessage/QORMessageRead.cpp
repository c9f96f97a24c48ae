#include "QORMessage/QORMessageRead.h"

#include <memory>
#include <optional>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORXml.h"

namespace QOR {
namespace {

constexpr int failed = -1;

/// The text named so; empty when there is none.
std::optional<std::string> textNamed(const QORMessageIterator& at, std::string_view name) {
    std::string text;
    if (name.empty()) return at.getValue(text) == 0 ? std::optional(std::move(text)) : std::nullopt;
    const std::unique_ptr<QORMessageIterator> value = at.clone();
    if (value->seekPath(name) != 0 || value->getValue(text) != 0) return std::nullopt;
    return text;
}

}  // namespace

int getNodeName(const QORMessageIterator& at, std::string& out) {
    const std::string_view name = at.curName();
    if (name.empty()) return failed;
    out = name;
    return 0;
}

int nextSameName(QORMessageIterator& at) {
    return at.curID() == 0 ? failed : at.nextSibling(at.curID());
}

bool existsNamed(const QORMessageIterator& at, std::string_view name) {
    if (name.empty()) {
        std::string_view value;
        return at.getView(value) == 0;
    }
    return at.clone()->seekPath(name) == 0;
}

int readText(const QORMessageIterator& at, std::string_view name, std::string& out) {
    auto text = textNamed(at, name);
    if (!text) return failed;
    out = std::move(*text);
    return 0;
}

int readBase64Text(const QORMessageIterator& at, std::string_view name, std::string& out) {
    const auto text = textNamed(at, name);
    auto bytes = text ? parseBase64(*text) : std::nullopt;
    if (!bytes) return failed;
    out = std::move(*bytes);
    return 0;
}

int readTime(const QORMessageIterator& at, std::string_view name, std::int64_t& out) {
    const auto text = textNamed(at, name);
    if (!text) return failed;
    if (const auto seconds = parseInt64(*text)) {
        out = *seconds;
        return 0;
    }
    const auto seconds = parseTime(*text);
    if (!seconds) return failed;
    out = *seconds;
    return 0;
}

int readBoolean(const QORMessageIterator& at, std::string_view name, bool& out) {
    const auto text = textNamed(at, name);
    if (!text) return failed;
    const auto number = parseInt64(*text);
    out = number ? *number != 0 : isSameWord(*text, "true");
    return 0;
}

int serializeMessage(const QORMessageIterator& at, int format, std::string& out) {
    const auto* const cursor = dynamic_cast<const QORBinaryIterator*>(&at);
    if (format != messageFormatXml || cursor == nullptr) return failed;
    std::string text;
    writeXml(*cursor->node(), text, {.names = &cursor->message().names()});
    out = std::move(text);
    return 0;
}

}  // namespace QOR
