/// \file
/// JsonTree: one line of JSON as a tree of views into it, numbers kept as they are written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

enum class JsonType : std::uint8_t { Null, False, True, Number, String, Object, Array };

/// A value and its place among the others. Texts live as long as the tree is not parsed into again.
struct JsonValue {
    JsonType type = JsonType::Null;
    std::string_view name;    ///< of a member of an object
    std::string_view text;    ///< of a String unescaped, of a Number as written
    std::uint32_t first = 0;  ///< index of the first child, 0 for none
    std::uint32_t last = 0;
    std::uint32_t next = 0;  ///< index of the next sibling, 0 for none
};

/// Reused from line to line, so that a line costs no allocation once the largest has been seen. One thread at a time.
class JsonTree {
public:
    /// Values within values. Twice the depth of an info document, because an array of it adds no level there.
    static constexpr std::size_t maxDepth = 136;
    /// Values in one line; what a line may cost in memory follows from it.
    static constexpr std::size_t maxValues = 200'000;

    /// \throws QORException 400 naming what is wrong with the line and the byte (from 0) where
    const JsonValue& parse(std::string_view line);

    const JsonValue* firstChild(const JsonValue& value) const noexcept { return at(value.first); }
    const JsonValue* nextSibling(const JsonValue& value) const noexcept { return at(value.next); }

private:
    class Handler;
    const JsonValue* at(std::uint32_t index) const noexcept { return index == 0 ? nullptr : &m_values[index]; }

    std::string m_buffer;
    std::vector<JsonValue> m_values;
    std::vector<std::uint32_t> m_open;
};

}  // namespace QOR
