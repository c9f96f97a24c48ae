/// \file
/// What the bodies of answers are written with.
#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string_view>

namespace QOR {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

inline void writeText(JsonWriter& json, std::string_view text) {
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

inline void writeKey(JsonWriter& json, std::string_view key) {
    json.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

}  // namespace QOR
