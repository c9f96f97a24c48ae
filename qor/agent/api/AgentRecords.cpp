#include "agent/api/AgentRecords.h"

#include <algorithm>
#include <cstdint>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "agent/api/AgentJson.h"
#include "host/QORPlainNumber.h"
#include "ingest/QORCollectors.h"
#include "ingest/QORIngest.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/agent/api/AgentRecords";

void writeNumber(JsonWriter& json, const char* key, std::uint64_t value) {
    json.Key(key);
    json.Uint64(value);
}

std::uint64_t firstLineOf(std::string_view query) {
    std::uint64_t firstLine = 1;
    while (!query.empty()) {
        const std::string_view parameter = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(parameter.size() + 1, query.size()));
        constexpr std::string_view name = "first-line=";
        if (!parameter.starts_with(name)) {
            throw QORException(errBadRequest, "unknown parameter " + quoteText(parameter), sourcePath);
        }
        const auto number = readPlainNumber(parameter.substr(name.size()), {1, mostNumber});
        if (!number) {
            throw QORException(errBadRequest,
                               "first-line: " + quoteText(parameter.substr(name.size())) + " is no line number",
                               sourcePath);
        }
        firstLine = *number;
    }
    return firstLine;
}

void writeCounts(JsonWriter& json, const QORIngestResult& result) {
    json.Key("counts");
    json.StartObject();
    for (std::size_t index = 0; index < recordKindCount; ++index) {
        const std::string_view kind = recordKindName(static_cast<QORRecordKind>(index));
        json.Key(kind.data(), static_cast<rapidjson::SizeType>(kind.size()));
        json.StartObject();
        writeNumber(json, "added", result.counts[index].added);
        writeNumber(json, "replaced", result.counts[index].replaced);
        writeNumber(json, "unchanged", result.counts[index].unchanged);
        json.EndObject();
    }
    json.EndObject();
}

void writeRefused(JsonWriter& json, const QORIngestResult& result) {
    writeNumber(json, "refusedCount", result.refused);
    json.Key("refused");
    json.StartArray();
    for (const QORRefusedLine& refused : result.refusedLines) {
        json.StartObject();
        writeNumber(json, "line", refused.line);
        json.Key("reason");
        writeText(json, refused.reason);
        json.EndObject();
    }
    json.EndArray();
}

void writeFailure(JsonWriter& json, const QORIngestFailure& failure) {
    json.Key("failure");
    json.StartObject();
    writeNumber(json, "firstLine", failure.firstLine);
    writeNumber(json, "lastLine", failure.lastLine);
    json.Key("reason");
    writeText(json, failure.reason);
    json.EndObject();
    json.Key("error");
    json.StartObject();
    json.Key("code");
    json.Int(errFailure);
    json.Key("message");
    writeText(json, "records from line " + std::to_string(failure.firstLine) + " on are not stored: " + failure.reason);
    json.EndObject();
}

void writeResult(JsonWriter& json, const QORIngestResult& result) {
    writeNumber(json, "accepted", result.accepted());
    writeCounts(json, result);
    writeNumber(json, "lastLine", result.lastLine);
    writeRefused(json, result);
    if (result.failure) writeFailure(json, *result.failure);
}

}  // namespace

std::string takeRecords(std::string_view ndjson, std::string_view query, std::optional<std::string_view> key) {
    const std::uint64_t firstLine = firstLineOf(query);
    std::optional<QORIngestRequest> request;
    if (key) request.emplace(*key, ndjson, firstLine);
    const QORIngestResult result = QORIngest().importBatch(ndjson, firstLine, request ? &*request : nullptr);
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeResult(json, result);
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::string runCollectors() {
    const QORCollectResult result = collect();
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeResult(json, result.stored);
    writeNumber(json, "malformed", result.malformed);
    json.Key("unreadable");
    json.StartArray();
    for (const std::string& file : result.unreadable)
        writeText(json, file);
    json.EndArray();
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace QOR
