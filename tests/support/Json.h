/// \file
/// Answers in JSON, looked at.
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace QOR::test {

/// \throws std::runtime_error for what is no JSON of UTF-8
inline rapidjson::Document readJson(std::string_view text) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseFullPrecisionFlag | rapidjson::kParseValidateEncodingFlag>(text.data(),
                                                                                               text.size());
    if (document.HasParseError()) throw std::runtime_error("no JSON: " + std::string(text.substr(0, 1000)));
    return document;
}

/// The members of an object, for a loop: the library's own iterators are ambiguous to some compilers.
inline std::vector<const rapidjson::Value::Member*> membersOf(const rapidjson::Value& object) {
    std::vector<const rapidjson::Value::Member*> members;
    for (rapidjson::SizeType at = 0; at < object.MemberCount(); ++at)
        members.push_back(&object.MemberBegin()[at]);
    return members;
}

/// The value at a path of members and places, "page/next", "rows/0/1", as JSON spells it; "" where there is none.
inline std::string jsonAt(const rapidjson::Value& value, std::string_view path) {
    const rapidjson::Value* at = &value;
    while (!path.empty()) {
        const std::string part(path.substr(0, path.find('/')));
        path.remove_prefix(part.size() < path.size() ? part.size() + 1 : path.size());
        if (at->IsArray()) {
            const auto place = static_cast<rapidjson::SizeType>(std::stoul(part));
            if (place >= at->Size()) return {};
            at = &(*at)[place];
        } else if (at->IsObject() && at->HasMember(part.c_str())) {
            at = &(*at)[part.c_str()];
        } else {
            return {};
        }
    }
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    at->Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}
inline std::string jsonAt(std::string_view text, std::string_view path) {
    return jsonAt(readJson(text), path);
}

}  // namespace QOR::test
