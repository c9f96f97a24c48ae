/// \file
/// What becomes of settings that are changed while the agent runs.
#pragma once

#include <string>
#include <vector>

#include "agent/http/HttpServer.h"
#include "agent/settings/AgentSettings.h"
#include "agent/settings/SettingsSources.h"
#include "agent/settings/SettingsState.h"
#include "host/QORMaintenance.h"

namespace QOR {

class AgentApplication;
class QORCollectorSchedule;
class QORHost;

/// Reads all settings anew and has those take effect that can (Setting::changes), all of them or none: files that are
/// wrong, certificates that do not fit, a log that cannot be opened leave everything as it was. What needs a restart is
/// named. Used by one thread at a time.
class AgentReload {
public:
    /// What goes by settings. All of it outlives the object.
    struct Parts {
        QORHost& host;
        AgentApplication& application;
        HttpServer& server;
        HttpCertificates* certificates;  ///< null without https
        QORRetention& retention;
        QORCollectorSchedule& collectors;
        SettingsState& state;
        const std::vector<HttpHandedSocket>& handed;  ///< as serverOptions() takes them
    };

    /// \param running the settings that hold
    AgentReload(SettingsSources sources, AgentSettings running, Parts parts);

    /// Whatever the settings say, logs are opened anew: who rotates them has moved them away.
    void run();

private:
    /// All that can fail of a change, done; of it holds the log.
    struct Change;

    void reopenLogs() const;
    bool canChange(const Setting& setting, const AgentSettings& wanted) const;
    bool readsCertificates(const AgentSettings& wanted) const;
    Change prepare();
    /// The last that can fail: what it replaces is gone.
    void takeLog(const AgentSettings& settings) const;
    void apply(Change change);

    SettingsSources m_sources;
    AgentSettings m_running;
    const Parts m_parts;
};

/// Writes the log to a file, narrowed to the agent's user; "" is standard error. \throws QORException
void openLog(const std::string& path);

/// Fewer connections, where the system gives fewer descriptors than there may be.
void fitConnections(HttpServerOptions& server);

}  // namespace QOR
