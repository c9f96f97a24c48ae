/// \file
/// Reads server-sent events while they arrive.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "answer/AnswerReader.h"

namespace QOR {

struct ServerEvent {
    std::string type{};
    std::string id{};  ///< empty: it has none
    std::string data{};
};

/// One stream. Comments and fields of no interest are passed over.
class EventReader {
public:
    explicit EventReader(AnswerSource& source) : m_source(source) {}

    /// Waits for the next one. Empty at the stream's end; an event that is not complete there counts as none.
    std::optional<ServerEvent> next();
    /// True when a further line is there without waiting.
    bool isReady() const noexcept { return m_text.find("\n\n", m_at) != std::string::npos; }

private:
    /// Without its end; empty at the stream's end.
    std::optional<std::string_view> line();

    AnswerSource& m_source;
    std::string m_text;
    std::size_t m_at = 0;
};

}  // namespace QOR
