/// \file
/// What the bodies of answers are written with.
#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <string_view>

namespace QOR {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

inline void writeText(JsonWriter& json, std::string_view text) {
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

inline void writeKey(JsonWriter& json, std::string_view key) {
    json.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

inline void writeMember(JsonWriter& json, std::string_view key, std::string_view text) {
    writeKey(json, key);
    writeText(json, text);
}

/// An object whose members `members` writes.
template <class Members>
std::string writtenObject(Members&& members) {
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    members(json);
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace QOR
