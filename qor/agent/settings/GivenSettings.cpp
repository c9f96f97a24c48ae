#include "agent/settings/GivenSettings.h"

#include <utility>

#include "QORCommon/QORException.h"
#include "agent/settings/SettingTable.h"

namespace QOR {

void GivenSettings::give(const Setting& setting, Given given) {
    AgentSettings scratch;
    setting.store(scratch, given.texts, given.shown);
    m_given.insert_or_assign(setting.name, std::move(given));
}

void GivenSettings::give(const GivenSettings& later) {
    for (const auto& [name, given] : later.m_given)
        m_given.insert_or_assign(name, given);
}

const GivenSettings::Given* GivenSettings::find(const Setting& setting) const {
    const auto found = m_given.find(setting.name);
    return found == m_given.end() ? nullptr : &found->second;
}

AgentSettings GivenSettings::settings() const {
    AgentSettings settings;
    for (const Setting& setting : settingTable()) {
        const Given* const given = find(setting);
        if (given == nullptr) continue;
        if (!setting.needs.empty() && !m_given.contains(setting.needs)) {
            const std::string dashes = given->shown.starts_with("--") ? "--" : "";
            throw QORException(errBadRequest,
                               given->where + ": " + given->shown + " requires " + dashes + std::string(setting.needs));
        }
        setting.store(settings, given->texts, given->shown);
    }
    return settings;
}

}  // namespace QOR
