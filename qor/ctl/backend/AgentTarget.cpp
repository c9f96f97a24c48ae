#include "backend/AgentTarget.h"

#include "QORCommon/QORAscii.h"

namespace QOR {

AgentTarget& AgentTarget::with(std::string_view name, std::string_view value) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    if (value.empty()) return *this;
    m_text.append(m_any ? "&" : "?").append(name) += '=';
    m_any = true;
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (isAlphaChar(c) || isDigitChar(c) || std::string_view("-_.,").find(c) != std::string_view::npos)
            m_text += c;
        else
            m_text.append({'%', digits[byte >> 4U], digits[byte & 0xFU]});
    }
    return *this;
}

}  // namespace QOR
