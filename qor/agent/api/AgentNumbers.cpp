// All that the agent knows of itself in numbers, put together.
#include <sys/resource.h>

#include <chrono>
#include <vector>

#include "QORCommon/QORMemory.h"
#include "agent/MemoryKeeper.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentAudit.h"
#include "agent/api/PrometheusText.h"
#include "agent/settings/SettingsState.h"
#include "forward/QORForwarder.h"
#include "ingest/QORCollectorSchedule.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

using Type = PrometheusText::Type;

void write(PrometheusText& text, const char* name, Type type, const char* help, std::uint64_t value) {
    text.family(name, type, help);
    text.sample(value);
}

double processorSeconds() {
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(used.ru_utime) + seconds(used.ru_stime);
}

void writeProcess(PrometheusText& text, std::chrono::steady_clock::duration uptime) {
    text.family("qor_build_info", Type::Gauge, "What was built.");
    text.sample(std::uint64_t{1}, {{"version", QOR_VERSION}});
    text.family("qor_uptime_seconds", Type::Gauge, "Time since the start.");
    text.sample(std::chrono::duration<double>(uptime).count());
    text.family("process_cpu_seconds_total", Type::Counter, "Processor time that was used.");
    text.sample(processorSeconds());
    write(text, "process_resident_memory_bytes", Type::Gauge, "Memory that is in use.", MemoryKeeper::residentBytes());
}

void writeMemory(PrometheusText& text, const QORMemoryBudget& memory) {
    write(text, "qor_memory_limit_bytes", Type::Gauge, "Memory that requests may hold.", memory.limit());
    write(text, "qor_memory_used_bytes", Type::Gauge, "Memory that requests hold.", memory.used());
    write(text, "qor_memory_peak_bytes", Type::Gauge, "The most that they ever held.", memory.peak());
    write(text, "qor_memory_refusals_total", Type::Counter, "Requests that would have held too much.",
          memory.refusals());
}

void writeDatabase(PrometheusText& text) {
    const QORRdbms& database = QORRdbms::instance();
    const QORRdbms::Connections connections = database.connections();
    write(text, "qor_database_connections", Type::Gauge, "Open connections to the database.", connections.open);
    write(text, "qor_database_idle_connections", Type::Gauge, "Of these, unused ones.", connections.idle);
    write(text, "qor_database_connections_limit", Type::Gauge, "How many there may be.",
          database.options().maxConnections);
    write(text, "qor_database_waiting", Type::Gauge, "Requests that wait for a connection.", database.waiting());
    write(text, "qor_database_waiting_writers", Type::Gauge, "Requests that wait for their turn to write.",
          database.waitingWriters());
}

void writeAudit(PrometheusText& text, const AgentAudit& audit) {
    const AgentAudit::Counts counts = audit.counts();
    write(text, "qor_audit_lines_total", Type::Counter, "Lines of the audit that were written.", counts.written);
    write(text, "qor_audit_lost_total", Type::Counter, "Lines of the audit that were lost.", counts.lost);
    write(text, "qor_audit_waiting", Type::Gauge, "Lines of the audit that wait to be written.", counts.waiting);
}

void writeSettings(PrometheusText& text, const SettingsState::State& state) {
    text.family("qor_settings_reloads_total", Type::Counter, "How often the settings were read anew.");
    text.sample(state.done, {{"outcome", "done"}});
    text.sample(state.failed, {{"outcome", "failed"}});
    write(text, "qor_settings_failing", Type::Gauge, "1 when they could not be read the last time.",
          state.failure.empty() ? 0U : 1U);
    write(text, "qor_settings_awaiting_restart", Type::Gauge, "Settings that were changed and need a restart.",
          state.awaiting.size());
    write(text, "qor_settings_loaded_timestamp_seconds", Type::Gauge, "When those that hold were read.",
          static_cast<std::uint64_t>(state.loaded));
}

void writeForwarding(PrometheusText& text, const QORForwardState& state) {
    write(text, "qor_forward_behind", Type::Gauge, "Changes that the other agent has not taken yet.", state.behind);
    write(text, "qor_forward_behind_seconds", Type::Gauge, "Time since it had taken all of them.",
          static_cast<std::uint64_t>(state.seconds));
    write(text, "qor_forward_taken_total", Type::Counter, "Records that it has taken.", state.taken);
    write(text, "qor_forward_refused", Type::Gauge, "Records that it does not want.", state.refused);
    write(text, "qor_forward_forgotten_total", Type::Counter,
          "Records that it did not want and that are not offered to it again: there were too many.", state.forgotten);
    write(text, "qor_forward_missing_total", Type::Counter, "Changes that were gone before they could be sent.",
          state.missing);
    write(text, "qor_forward_failures_total", Type::Counter, "Attempts that failed.", state.failures);
    write(text, "qor_forward_last_success_timestamp_seconds", Type::Gauge, "When all went well last; 0: not yet.",
          static_cast<std::uint64_t>(state.lastSuccess.value_or(0)));
}

/// A family with a number for each collector.
template <class Number>
void writeOfEach(PrometheusText& text, const std::vector<QORCollectorState>& collectors, const char* name, Type type,
                 const char* help, Number number) {
    text.family(name, type, help);
    for (const QORCollectorState& collector : collectors)
        text.sample(number(collector), {{"collector", collector.name}});
}

void writeCollectors(PrometheusText& text, const std::vector<QORCollectorState>& collectors) {
    using State = QORCollectorState;
    text.family("qor_collector_runs_total", Type::Counter, "Runs of a collector, by how they ended or hang.");
    for (const State& collector : collectors) {
        for (std::size_t outcome = 0; outcome < collectOutcomeCount; ++outcome)
            text.sample(collector.runs[outcome],
                        {{"collector", collector.name},
                         {"outcome", collectOutcomeName(static_cast<QORCollectOutcome>(outcome))}});
    }
    writeOfEach(text, collectors, "qor_collector_records_total", Type::Counter, "Records that it brought.",
                [](const State& state) { return state.allRecords; });
    writeOfEach(text, collectors, "qor_collector_seconds", Type::Gauge, "Time that its last run took.",
                [](const State& state) { return state.seconds; });
    writeOfEach(text, collectors, "qor_collector_hung", Type::Gauge, "1 while it hangs.",
                [](const State& state) { return std::uint64_t{state.outcome == QORCollectOutcome::Hung}; });
}

}  // namespace

void AgentApplication::writeMetrics(PrometheusText& text) const {
    writeProcess(text, uptime());
    m_metrics.write(text);
    writeCounts(text, m_counts());
    writeMemory(text, m_memory);
    writeDatabase(text);
    write(text, "qor_logins_refused_total", Type::Counter, "Requests of clients that were not let in.",
          m_access.refusals());
    if (m_settings != nullptr) writeSettings(text, m_settings->now());
    if (const auto auditing = audit()) writeAudit(text, *auditing);
    writeCollectors(text, m_collectors.states());
    if (m_forwarder != nullptr) writeForwarding(text, m_forwarder->state());
}

}  // namespace QOR
