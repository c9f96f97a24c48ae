/// \file
/// What a request to an agent's own paths names.
#pragma once

#include <string>
#include <string_view>

namespace QOR {

/// A path with parameters, percent-encoded as the agent reads them.
class AgentTarget {
public:
    explicit AgentTarget(std::string_view path) : m_text(path) {}

    /// Adds a parameter; an empty value adds none.
    AgentTarget& with(std::string_view name, std::string_view value);
    const std::string& text() const noexcept { return m_text; }

private:
    std::string m_text;
    bool m_any = false;
};

}  // namespace QOR
