#include "backend/AgentTarget.h"

#include "QORCommon/QORPercent.h"

namespace QOR {

AgentTarget& AgentTarget::with(std::string_view name, std::string_view value) {
    if (value.empty()) return *this;
    m_text.append(m_any ? "&" : "?").append(name).append("=").append(percentEscaped(value, "-_.,"));
    m_any = true;
    return *this;
}

}  // namespace QOR
