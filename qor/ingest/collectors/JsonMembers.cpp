#include "ingest/collectors/JsonMembers.h"

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"

namespace QOR {

const JsonValue* jsonMember(const JsonTree& tree, const JsonValue* object, std::string_view name) noexcept {
    if (object == nullptr || object->type != JsonType::Object) return nullptr;
    for (const JsonValue* one = tree.firstChild(*object); one != nullptr; one = tree.nextSibling(*one)) {
        if (one->name == name) return one;
    }
    return nullptr;
}

std::string jsonText(const JsonTree& tree, const JsonValue* object, std::string_view name) {
    const JsonValue* const value = jsonMember(tree, object, name);
    const bool isText = value != nullptr && (value->type == JsonType::String || value->type == JsonType::Number);
    return isText ? std::string(value->text) : std::string();
}

std::optional<std::int64_t> jsonNumber(const JsonTree& tree, const JsonValue* object, std::string_view name) {
    return parseInt64(jsonText(tree, object, name));
}

std::optional<std::int64_t> jsonTime(const JsonTree& tree, const JsonValue* object, std::string_view name) {
    const std::optional<std::int64_t> time = parseTime(jsonText(tree, object, name));
    return time && *time > 0 ? time : std::nullopt;
}

bool isJsonTrue(const JsonTree& tree, const JsonValue* object, std::string_view name) noexcept {
    const JsonValue* const value = jsonMember(tree, object, name);
    return value != nullptr && value->type == JsonType::True;
}

}  // namespace QOR
