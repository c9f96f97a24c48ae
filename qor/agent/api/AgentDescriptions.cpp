#include "agent/api/AgentDescriptions.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "QORCommon/QORText.h"
#include "QORLibLocal/QORVocabulary.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "agent/settings/SettingsState.h"
#include "forward/QORForwarder.h"
#include "host/QORStatus.h"
#include "ingest/QORCollectorSchedule.h"

namespace QOR {
namespace {

void writeParameter(JsonWriter& json, const QORVocParameter& parameter) {
    json.StartObject();
    writeMember(json, "id", parameter.id);
    writeKey(json, "values");
    json.StartArray();
    for (const auto& [name, text] : parameter.values) {
        json.StartObject();
        writeMember(json, "name", name);
        writeMember(json, "text", text);
        json.EndObject();
    }
    json.EndArray();
    writeKey(json, "marks");
    json.StartArray();
    for (const std::string& mark : parameter.marks)
        writeText(json, mark);
    json.EndArray();
    json.EndObject();
}

std::string vocabularyText() {
    const QORPtr<const QORVocMap> vocabulary = vocCacheLocal()->getVocabulary();
    return writtenObject([&](JsonWriter& json) {
        writeKey(json, "vocabulary");
        json.StartArray();
        for (const auto& [name, parameters] : vocabulary->categories()) {
            json.StartObject();
            writeMember(json, "name", name);
            writeKey(json, "parameters");
            json.StartArray();
            for (const QORVocParameter& parameter : parameters)
                writeParameter(json, parameter);
            json.EndArray();
            json.EndObject();
        }
        json.EndArray();
    });
}

void writeUnreadable(JsonWriter& json, const std::optional<std::vector<QORUnreadableDocuments>>& unreadable) {
    if (!unreadable) {
        json.Null();
        return;
    }
    json.StartArray();
    for (const QORUnreadableDocuments& column : *unreadable) {
        json.StartObject();
        writeMember(json, "table", column.table);
        writeMember(json, "column", column.column);
        writeKey(json, "count");
        json.Uint64(column.count);
        json.EndObject();
    }
    json.EndArray();
}

void writeServers(JsonWriter& json, const std::vector<QORServerStatus>& servers) {
    writeKey(json, "servers");
    json.StartArray();
    for (const QORServerStatus& server : servers) {
        json.StartObject();
        writeMember(json, "name", server.name);
        writeKey(json, "schema");
        json.Int(server.schemaVersion);
        writeMember(json, "failure", server.failure);
        json.EndObject();
    }
    json.EndArray();
}

void writeSecond(JsonWriter& json, std::string_view key, const std::optional<std::int64_t>& second) {
    writeKey(json, key);
    second ? json.Int64(*second) : json.Null();
}

/// What others say comes in whatever bytes.
std::string readable(const std::string& text) {
    return isUtf8(text) ? text : quoteText(text, text.size());
}

/// Databases of which not all is known.
void writeAway(JsonWriter& json, const std::vector<std::string>& servers) {
    writeKey(json, "away");
    json.StartArray();
    for (const std::string& server : servers)
        writeText(json, server.empty() ? "home" : server);
    json.EndArray();
}

void writeForwarding(JsonWriter& json, const QORForwardState& state) {
    writeKey(json, "forward");
    json.StartObject();
    writeMember(json, "target", state.target);
    writeKey(json, "behind");
    json.Uint64(state.behind);
    if (!state.away.empty()) writeAway(json, state.away);
    writeKey(json, "behindSeconds");
    json.Int64(state.seconds);
    writeKey(json, "taken");
    json.Uint64(state.taken);
    writeKey(json, "refused");
    json.Uint64(state.refused);
    writeKey(json, "missing");
    json.Uint64(state.missing);
    writeSecond(json, "lastSuccess", state.lastSuccess);
    writeSecond(json, "lastFailure", state.lastFailure);
    writeMember(json, "lastError", readable(state.lastError));
    writeKey(json, "failing");
    json.Bool(!state.failure.empty());
    json.EndObject();
}

void writeRecords(JsonWriter& json, const std::vector<QORViewRecords>& records) {
    writeKey(json, "records");
    json.StartObject();
    for (const QORViewRecords& view : records) {
        writeKey(json, view.view);
        json.Uint64(view.records);
    }
    json.EndObject();
}

/// The last run of any collector, and what was wrong with the last of one.
void writeCollection(JsonWriter& json, const std::vector<QORCollectorState>& collectors) {
    std::int64_t time = 0;
    std::string failure;
    for (const QORCollectorState& collector : collectors) {
        time = std::max(time, collector.time);
        if (failure.empty()) failure = collector.text;
    }
    if (time == 0) return;
    writeKey(json, "collected");
    json.StartObject();
    writeKey(json, "time");
    json.Int64(time);
    writeMember(json, "failure", readable(failure));
    json.EndObject();
}

void writeCollector(JsonWriter& json, const QORCollectorState& collector) {
    json.StartObject();
    writeMember(json, "name", collector.name);
    writeMember(json, "source", readable(collector.source));
    writeSecond(json, "every", collector.every ? std::optional<std::int64_t>(collector.every->count()) : std::nullopt);
    writeKey(json, "outcome");
    collector.outcome ? writeText(json, collectOutcomeName(*collector.outcome)) : static_cast<void>(json.Null());
    writeMember(json, "failure", readable(collector.text));
    writeSecond(json, "time", collector.outcome ? std::optional(collector.time) : std::nullopt);
    writeKey(json, "seconds");
    json.Double(collector.seconds);
    writeKey(json, "records");
    json.Uint64(collector.records);
    json.EndObject();
}

void writeCollectors(JsonWriter& json, const std::vector<QORCollectorState>& collectors) {
    writeCollection(json, collectors);
    writeKey(json, "collectors");
    json.StartArray();
    for (const QORCollectorState& collector : collectors)
        writeCollector(json, collector);
    json.EndArray();
}

std::string statusText(const AgentApplication& application) {
    const QORDatabaseStatus status = readDatabaseStatus();
    return writtenObject([&](JsonWriter& json) {
        writeKey(json, "database");
        json.StartObject();
        writeMember(json, "name", status.name);
        writeMember(json, "engine", status.engine);
        writeKey(json, "schema");
        json.Int(status.schemaVersion);
        writeKey(json, "bytes");
        json.Uint64(status.bytes);
        writeKey(json, "readOnly");
        json.Bool(status.readOnly);
        json.EndObject();
        if (status.records) writeRecords(json, *status.records);
        writeKey(json, "unreadable");
        writeUnreadable(json, status.unreadable);
        if (!status.servers.empty()) writeServers(json, status.servers);
        if (const SettingsState* const settings = application.settingsState())
            writeMember(json, "settings", readable(settings->text()));
        writeCollectors(json, application.collectors().states());
        if (QORForwarder* const forwarder = application.forwarder()) {
            forwarder->look();
            writeForwarding(json, forwarder->state());
        }
    });
}

}  // namespace

HttpReply answerVocabulary(AgentCall&) {
    HttpReply reply{200, vocabularyText()};
    reply.revalidated = true;
    return reply;
}

HttpReply answerStatus(AgentCall& call) {
    return {200, statusText(call.application)};
}

}  // namespace QOR
