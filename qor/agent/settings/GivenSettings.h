/// \file
/// What people have given the agent's settings, and where.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agent/settings/Setting.h"

namespace QOR {

/// Texts as they were written, of each setting those that were given last. A value.
class GivenSettings {
public:
    struct Given {
        std::vector<std::string> texts;
        std::string where;  ///< "/etc/qor/agent.toml:3:9", "QOR_TLS_KEY", "the command line"
        std::string shown;  ///< how the setting is called there
    };

    /// In place of what was given before. \throws QORException for what the setting does not take
    void give(const Setting& setting, Given given);
    /// All of another's, in place of what was given here.
    void give(const GivenSettings& later);

    /// Null for none.
    const Given* find(const Setting& setting) const;

    /// \throws QORException for a setting that was given without the one that it needs
    AgentSettings settings() const;

private:
    std::map<std::string_view, Given> m_given;  // by the setting's name
};

}  // namespace QOR
