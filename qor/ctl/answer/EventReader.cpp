#include "answer/EventReader.h"

namespace QOR {

std::optional<std::string_view> EventReader::line() {
    for (;;) {
        const std::size_t end = m_text.find('\n', m_at);
        if (end != std::string::npos) {
            const std::string_view found(m_text.data() + m_at, end - m_at);
            m_at = end + 1;
            return found.ends_with('\r') ? found.substr(0, found.size() - 1) : found;
        }
        m_text.erase(0, m_at);
        m_at = 0;
        const std::string_view piece = m_source.read();
        if (piece.empty()) return std::nullopt;
        m_text += piece;
    }
}

std::optional<ServerEvent> EventReader::next() {
    ServerEvent event;
    bool any = false;
    while (const auto text = line()) {
        if (text->empty() && any) return event;
        const std::size_t colon = text->find(':');
        if (colon == 0 || colon == std::string_view::npos) continue;
        const std::string_view name = text->substr(0, colon);
        std::string_view value = text->substr(colon + 1);
        if (value.starts_with(' ')) value.remove_prefix(1);
        any = true;
        if (name == "event") event.type = value;
        if (name == "id") event.id = value;
        if (name == "data") event.data.append(event.data.empty() ? "" : "\n").append(value);
    }
    return std::nullopt;
}

}  // namespace QOR
