/// \file
/// How it went with the settings while the agent ran.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace QOR {

/// Told by who reads the settings anew, asked by who shows it. Thread-safe.
class SettingsState {
public:
    struct State {
        std::uint64_t done = 0;               ///< how often they were read anew
        std::uint64_t failed = 0;             ///< how often that could not be; then nothing changed
        std::int64_t loaded = 0;              ///< when those that hold were read, in seconds since the epoch
        std::string failure{};                ///< why the last reading changed nothing; empty when it did
        std::vector<std::string> awaiting{};  ///< names of those whose change needs a restart
    };

    /// They hold from now on. \param awaiting but for these
    void loaded(std::vector<std::string> awaiting);
    /// Nothing has changed.
    void failed(std::string why);

    State now() const;
    /// In one line, for people.
    std::string text() const;

private:
    mutable std::mutex m_mutex;
    State m_state;  // guarded by m_mutex
    bool m_begun = false;
};

}  // namespace QOR
