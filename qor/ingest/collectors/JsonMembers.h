/// \file
/// Members of JSON objects that others have written: what is not there, or is something else, is empty.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ingest/JsonTree.h"

namespace QOR {

/// \param object null, and what is no object, has no members \returns null where there is none of that name
const JsonValue* jsonMember(const JsonTree& tree, const JsonValue* object, std::string_view name) noexcept;
/// Of a text or a number.
std::string jsonText(const JsonTree& tree, const JsonValue* object, std::string_view name);
std::optional<std::int64_t> jsonNumber(const JsonTree& tree, const JsonValue* object, std::string_view name);
/// Seconds since the epoch; nothing up to its beginning, which stands for never.
std::optional<std::int64_t> jsonTime(const JsonTree& tree, const JsonValue* object, std::string_view name);
bool isJsonTrue(const JsonTree& tree, const JsonValue* object, std::string_view name) noexcept;

}  // namespace QOR
