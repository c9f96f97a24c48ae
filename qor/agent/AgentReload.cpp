#include "agent/AgentReload.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORPasswords.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "agent/ServiceManager.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentAudit.h"
#include "agent/settings/SettingTable.h"
#include "agent/settings/SettingsMeaning.h"
#include "host/QORHost.h"
#include "ingest/QORCollectorSchedule.h"
#include "ingest/QORCollectors.h"

namespace QOR {
namespace {

bool isSameAudit(const AgentAudit::Options& one, const AgentAudit::Options& other) {
    return one.target == other.target && one.literals == other.literals;
}

}  // namespace

struct AgentReload::Change {
    AgentSettings settings;             ///< what holds then: of what needs a restart, what held before
    HttpServerOptions server;           ///< the same
    std::vector<std::string> changed;   ///< names
    std::vector<std::string> awaiting;  ///< names of what needs a restart
    HttpCertificates::Context certificates{};
    std::shared_ptr<AgentAudit> audit{};
    std::vector<QORCollectorWish> collectors{};
};

AgentReload::AgentReload(SettingsSources sources, AgentSettings running, Parts parts)
    : m_sources(std::move(sources)), m_running(std::move(running)), m_parts(parts) {}

void AgentReload::run() {
    ServiceManager::reloading();
    reopenLogs();
    try {
        apply(prepare());
    } catch (const std::exception& exception) {
        // A database may be given with a password.
        const std::string why = withoutPasswords(exception.what());
        m_parts.state.failed(why);
        logMessage(0, "QORAgent", QOR_SOURCE_PATH, __func__, "%s; the settings stay as they were%s", why.c_str(),
                   m_parts.certificates == nullptr ? "" : ", and the certificates stay as they were");
    }
    ServiceManager::ready(m_parts.state.text());
}

void AgentReload::reopenLogs() const {
    if (const auto audit = m_parts.application.audit()) audit->reopen();
    if (m_running.logFile.empty()) return;
    try {
        setLogFile(m_running.logFile);
        logMessage(2, "QORAgent", QOR_SOURCE_PATH, __func__, "the log has been opened anew");
    } catch (const std::exception& exception) {
        logMessage(0, "QORAgent", QOR_SOURCE_PATH, __func__, "%s; the old one is written on", exception.what());
    }
}

/// Where https is to end with the next start, its files may be gone.
bool AgentReload::readsCertificates(const AgentSettings& wanted) const {
    return m_parts.certificates != nullptr && usesTls(serverOptions(wanted, m_parts.handed));
}

/// What goes together with something that needs a restart waits for that.
bool AgentReload::canChange(const Setting& setting, const AgentSettings& wanted) const {
    if (setting.name.starts_with("tls-")) return readsCertificates(wanted);
    if (setting.name.starts_with("keep-")) return !m_running.readOnly;
    return setting.changes;
}

AgentReload::Change AgentReload::prepare() {
    const AgentSettings wanted = m_sources.read().settings();
    static_cast<void>(serverOptions(wanted, m_parts.handed));
    if (!wanted.forward.empty()) static_cast<void>(forwardOptions(wanted));
    checkTogether(wanted);
    Change change{m_running, {}, {}, {}};
    for (const Setting& setting : settingTable()) {
        if (setting.texts(wanted) == setting.texts(m_running)) continue;
        const bool now = canChange(setting, wanted);
        (now ? change.changed : change.awaiting).emplace_back(setting.name);
        if (now) setting.copy(wanted, change.settings);
    }
    change.server = serverOptions(change.settings, m_parts.handed);
    change.collectors = collectorWishes(change.settings);
    fitConnections(change.server);
    if (readsCertificates(wanted)) change.certificates = HttpCertificates::read(change.settings.tls);
    change.audit = m_parts.application.audit();
    if (!isSameAudit(change.settings.audit, m_running.audit)) {
        change.audit =
            change.settings.audit.target.empty() ? nullptr : std::make_shared<AgentAudit>(change.settings.audit);
    }
    takeLog(change.settings);
    return change;
}

void AgentReload::takeLog(const AgentSettings& settings) const {
    if (settings.logFile == m_running.logFile) return;
    try {
        openLog(settings.logFile);
    } catch (const std::exception&) {
        setLogFile(m_running.logFile);
        throw;
    }
}

void AgentReload::apply(Change change) {
    AgentSettings& settings = change.settings;
    setLogLevel(static_cast<int>(settings.logLevel));
    if (change.certificates) {
        m_parts.certificates->use(std::move(change.certificates));
        logMessage(2, "QORAgent", QOR_SOURCE_PATH, __func__, "the certificates have been read anew");
    }
    settings.memory.unpackedBody = settings.server.bodyLimit;
    m_parts.application.setMemory(settings.memory);
    m_parts.application.setFollowing(settings.following);
    m_parts.application.setAudit(std::move(change.audit));
    m_parts.host.router().setAnswerLimits(settings.answers);
    m_parts.server.change(change.server);
    setLibvirtSources(settings.collectLibvirt);
    m_parts.collectors.keep(change.collectors);
    if (settings.keep != m_running.keep) m_parts.retention.keep(settings.keep);
    m_running = std::move(settings);
    m_parts.state.loaded(change.awaiting);
    logMessage(2, "QORAgent", QOR_SOURCE_PATH, __func__, "the settings have been read anew; changed: %s",
               change.changed.empty() ? "nothing" : joinTexts(change.changed).c_str());
    if (change.awaiting.empty()) return;
    logMessage(1, "QORAgent", QOR_SOURCE_PATH, __func__, "a change of %s needs a restart of the agent",
               joinTexts(change.awaiting).c_str());
}

void openLog(const std::string& path) {
    setLogFile(path);
    if (path.empty()) return;
    if (const std::optional<mode_t> before = narrowOwnFile(path)) {
        logMessage(1, "QORAgent", QOR_SOURCE_PATH, __func__,
                   "%s had mode %04o, so that others could read it; it is %04o now", path.c_str(), *before,
                   *before & S_IRWXU);
    }
}

void fitConnections(HttpServerOptions& server) {
    constexpr std::size_t forOthers = 320;  // 64 connections to the database with their files, the log, the plug-ins
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= server.maxConnections + forOthers) return;
    const std::size_t left = limit.rlim_cur > forOthers ? limit.rlim_cur - forOthers : 0;
    server.maxConnections = std::max<std::size_t>(left, 16);
    logMessage(1, "QORAgent", QOR_SOURCE_PATH, __func__, "%zu descriptors are few: there may be %zu connections",
               static_cast<std::size_t>(limit.rlim_cur), server.maxConnections);
}

}  // namespace QOR
