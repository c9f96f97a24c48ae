#include "agent/settings/SettingsState.h"

#include <ctime>
#include <utility>

#include "QORCommon/QORText.h"

namespace QOR {

void SettingsState::loaded(std::vector<std::string> awaiting) {
    const std::lock_guard lock(m_mutex);
    // The first time is the start.
    if (std::exchange(m_begun, true)) ++m_state.done;
    m_state.loaded = std::time(nullptr);
    m_state.failure.clear();
    m_state.awaiting = std::move(awaiting);
}

void SettingsState::failed(std::string why) {
    const std::lock_guard lock(m_mutex);
    ++m_state.failed;
    m_state.failure = std::move(why);
}

SettingsState::State SettingsState::now() const {
    const std::lock_guard lock(m_mutex);
    return m_state;
}

std::string SettingsState::text() const {
    const State state = now();
    if (!state.failure.empty()) return "the settings stay as they were: " + state.failure;
    if (state.awaiting.empty()) return "the settings hold";
    return "a restart is needed for " + joinTexts(state.awaiting);
}

}  // namespace QOR
