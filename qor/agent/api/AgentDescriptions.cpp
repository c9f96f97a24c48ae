#include "agent/api/AgentDescriptions.h"

#include <optional>
#include <string>
#include <vector>

#include "QORLibLocal/QORVocabulary.h"
#include "agent/api/AgentJson.h"
#include "host/QORStatus.h"

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

std::string statusText() {
    const QORDatabaseStatus status = readDatabaseStatus();
    return writtenObject([&](JsonWriter& json) {
        writeKey(json, "database");
        json.StartObject();
        writeMember(json, "name", status.name);
        writeMember(json, "engine", status.engine);
        writeKey(json, "schema");
        json.Int(status.schemaVersion);
        writeKey(json, "readOnly");
        json.Bool(status.readOnly);
        json.EndObject();
        writeKey(json, "unreadable");
        writeUnreadable(json, status.unreadable);
        if (!status.servers.empty()) writeServers(json, status.servers);
    });
}

}  // namespace

HttpReply answerVocabulary(AgentCall&) {
    HttpReply reply{200, vocabularyText()};
    reply.revalidated = true;
    return reply;
}

HttpReply answerStatus(AgentCall&) {
    return {200, statusText()};
}

}  // namespace QOR
