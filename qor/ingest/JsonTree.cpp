#include "ingest/JsonTree.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

// In place: texts are unescaped where they stand, in a copy of the line.
constexpr unsigned parseFlags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag |
                                rapidjson::kParseValidateEncodingFlag | rapidjson::kParseNumbersAsStringsFlag;

}  // namespace

class JsonTree::Handler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, JsonTree::Handler> {
public:
    explicit Handler(JsonTree& tree) : m_tree(tree) {}

    /// Why the handler ended the reading; empty when it did not.
    const std::string& refusal() const { return m_refusal; }

    bool Null() { return leaf(JsonType::Null, {}); }
    bool Bool(bool value) { return leaf(value ? JsonType::True : JsonType::False, {}); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool) {
        return leaf(JsonType::Number, {text, length});
    }
    bool String(const char* text, rapidjson::SizeType length, bool) { return leaf(JsonType::String, {text, length}); }
    bool Key(const char* text, rapidjson::SizeType length, bool) {
        m_name = {text, length};
        return true;
    }
    bool StartObject() { return open(JsonType::Object); }
    bool EndObject(rapidjson::SizeType) { return close(); }
    bool StartArray() { return open(JsonType::Array); }
    bool EndArray(rapidjson::SizeType) { return close(); }

private:
    bool leaf(JsonType type, std::string_view text) {
        if (m_tree.m_values.size() == maxValues) return refuse("more than " + std::to_string(maxValues) + " values");
        add(type, text);
        return true;
    }

    bool open(JsonType type) {
        if (m_tree.m_open.size() == maxDepth) {
            return refuse("nested deeper than " + std::to_string(maxDepth) + " levels");
        }
        if (!leaf(type, {})) return false;
        m_tree.m_open.push_back(static_cast<std::uint32_t>(m_tree.m_values.size() - 1));
        return true;
    }

    bool refuse(std::string reason) {
        m_refusal = std::move(reason);
        return false;
    }

    bool close() {
        m_tree.m_open.pop_back();
        return true;
    }

    void add(JsonType type, std::string_view text) {
        auto& values = m_tree.m_values;
        const auto index = static_cast<std::uint32_t>(values.size());
        JsonValue value;
        value.type = type;
        value.text = text;
        if (!m_tree.m_open.empty()) {
            JsonValue& parent = values[m_tree.m_open.back()];
            if (parent.type == JsonType::Object) value.name = m_name;
            if (parent.last == 0) {
                parent.first = index;
            } else {
                values[parent.last].next = index;
            }
            parent.last = index;
        }
        values.push_back(value);
    }

    JsonTree& m_tree;
    std::string_view m_name;
    std::string m_refusal;
};

const JsonValue& JsonTree::parse(std::string_view line) {
    m_values.clear();
    m_open.clear();
    // The reader takes a NUL byte for the end of the text.
    if (const auto nul = line.find('\0'); nul != std::string_view::npos) {
        throw QORException(errBadRequest, "a NUL byte at byte " + std::to_string(nul), QOR_SOURCE_PATH, __LINE__);
    }
    m_buffer.assign(line);
    rapidjson::InsituStringStream stream(m_buffer.data());
    rapidjson::Reader reader;
    Handler handler(*this);
    const rapidjson::ParseResult result = reader.Parse<parseFlags>(stream, handler);
    if (result.IsError()) {
        const std::string reason = result.Code() == rapidjson::kParseErrorTermination
                                       ? handler.refusal()
                                       : std::string("not JSON: ") + rapidjson::GetParseError_En(result.Code());
        throw QORException(errBadRequest, reason + " (byte " + std::to_string(result.Offset()) + ")", QOR_SOURCE_PATH,
                           __LINE__);
    }
    return m_values.front();
}

}  // namespace QOR
