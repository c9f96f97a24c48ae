#include <array>

#include "QORCommon/QORTime.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "output/PersonSize.h"
#include "output/PersonTimes.h"

namespace QOR {
namespace {

/// Prints what has a name and a value, a line each.
class StatusLines {
public:
    /// \param forPerson in units and from now; else exactly
    StatusLines(RowSink& sink, bool forPerson) : m_sink(sink), m_forPerson(forPerson), m_now(currentTime()) {
        m_sink.begin(std::array<std::string, 2>{"what", "value"});
    }

    void add(std::string_view what, std::string_view value) {
        m_sink.row(std::array<Cell, 2>{Cell{Cell::Kind::Text, what}, Cell{Cell::Kind::Text, value}});
    }
    void add(std::string_view what, std::uint64_t value) { add(what, std::to_string(value)); }

    std::string time(std::int64_t seconds) const {
        return m_forPerson ? showTimeAndAge(seconds, m_now) : time2str(seconds);
    }
    std::string duration(std::uint64_t seconds) const {
        return m_forPerson ? showDuration(seconds) : std::to_string(seconds) + " s";
    }
    std::string size(std::uint64_t bytes) const { return m_forPerson ? showSize(bytes) : std::to_string(bytes); }

private:
    RowSink& m_sink;
    bool m_forPerson;
    std::int64_t m_now;
};

void addDatabase(StatusLines& lines, const QORDatabaseStatus& database) {
    lines.add("database", database.name);
    lines.add("engine", database.engine);
    lines.add("schema version",
              database.schemaVersion == 0 ? "none: another program's" : std::to_string(database.schemaVersion));
    lines.add("read-only", database.readOnly ? "yes" : "no");
    for (const QORServerStatus& server : database.servers)
        lines.add("server " + server.name,
                  server.failure.empty() ? "schema version " + std::to_string(server.schemaVersion) : server.failure);
}

void addAgent(StatusLines& lines, const AgentHealth& agent) {
    lines.add("agent", agent.status);
    lines.add("version", agent.version);
    lines.add("uptime", lines.duration(agent.uptime));
    lines.add("connections", agent.connections);
}

void addLimits(StatusLines& lines, const std::vector<AgentLimit>& limits) {
    if (limits.empty()) lines.add("limits met", "none");
    for (const AgentLimit& limit : limits)
        lines.add("limit " + limit.name + " met", limit.met);
}

void addCollected(StatusLines& lines, const std::optional<AgentCollected>& collected) {
    if (!collected) return lines.add("last collection", "none since the start");
    lines.add("last collection", lines.time(collected->time));
    if (!collected->failure.empty()) lines.add("what it failed with", collected->failure);
}

std::string describeCollector(const StatusLines& lines, const AgentCollector& collector) {
    std::string text;
    if (collector.every) text = "every " + lines.duration(*collector.every) + "; ";
    if (collector.outcome.empty()) return text + "has not run yet";
    text += collector.outcome + " at " + lines.time(collector.time) + ": ";
    if (!collector.failure.empty()) return text + collector.failure;
    if (collector.outcome == "none") return text + "there is no " + collector.source;
    return text + "brought " + std::to_string(collector.records);
}

/// Those that nobody wants are left out.
void addCollectors(StatusLines& lines, const std::vector<AgentCollector>& collectors) {
    for (const AgentCollector& collector : collectors) {
        if (collector.every || !collector.outcome.empty())
            lines.add("collector " + collector.name, describeCollector(lines, collector));
    }
}

void addRecords(StatusLines& lines, const QORDatabaseStatus& database) {
    lines.add("bytes", lines.size(database.bytes));
    if (!database.records) return lines.add("records", "not known");
    for (const QORViewRecords& view : *database.records)
        lines.add("rows of " + view.view, view.records);
}

void addDocuments(StatusLines& lines, const QORDatabaseStatus& database) {
    if (!database.unreadable) return lines.add("unreadable documents", "not known");
    std::uint64_t all = 0;
    for (const QORUnreadableDocuments& column : *database.unreadable)
        all += column.count;
    lines.add("unreadable documents", all);
    for (const QORUnreadableDocuments& column : *database.unreadable)
        lines.add("unreadable in " + column.table + '.' + column.column, column.count);
}

void addForwarding(StatusLines& lines, const AgentForwarding& forwarding) {
    lines.add("sends records to", forwarding.target);
    lines.add("records behind", forwarding.behind);
    if (!forwarding.away.empty()) lines.add("not counting what is new at", forwarding.away);
    lines.add("seconds behind", forwarding.seconds);
    lines.add("records refused there", forwarding.refused);
    lines.add("last success", forwarding.lastSuccess ? lines.time(*forwarding.lastSuccess) : "none yet");
    if (!forwarding.lastFailure) return;
    lines.add("last failure", lines.time(*forwarding.lastFailure));
    lines.add("last error", forwarding.lastError);
}

}  // namespace

void runStatus(const ConnectionOptions& connection, const PrintOptions& print) {
    const BackendStatus status = makeBackend(connection, BackendUse::Inspect)->status();
    const auto output = openOutput(print);
    Output& out = *output;
    const auto printer = makePrinter(print, false, out);
    StatusLines lines(*printer, isForPerson(print));
    if (status.agent) addAgent(lines, *status.agent);
    if (status.agent) addLimits(lines, status.limits);
    if (status.agent) addCollected(lines, status.collected);
    addCollectors(lines, status.collectors);
    if (!status.settings.empty()) lines.add("settings", status.settings);
    addDatabase(lines, status.database);
    addRecords(lines, status.database);
    addDocuments(lines, status.database);
    if (status.forwarding) addForwarding(lines, *status.forwarding);
    printer->end(std::nullopt);
    out.flush();
}

}  // namespace QOR
