#include "agent/api/AgentRecords.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "agent/api/AgentAccess.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "gzip/HttpGunzip.h"
#include "host/QORRequestNotes.h"
#include "ingest/QORCollectorSchedule.h"
#include "ingest/QORIngest.h"

namespace QOR {
namespace {

void writeNumber(JsonWriter& json, const char* key, std::uint64_t value) {
    json.Key(key);
    json.Uint64(value);
}

/// The key under which a request may be sent again. A field without a value is a key too, and refused as such.
std::optional<std::string_view> keyOf(const HttpRequest& request) {
    const std::string_view key = request.field("Idempotency-Key");
    return key.data() == nullptr ? std::nullopt : std::optional(key);
}

/// Of full access: empty, and nobody asks.
QORWriteScope scopeOf(const AgentRequester& requester) {
    return requester.fullAccess || !requester.identity ? QORWriteScope() : writeScopeOf(*requester.identity);
}

QORIngestOptions optionsOf(const AgentRequester& requester, const QORWriteScope& scope) {
    QORIngestOptions options;
    if (!requester.fullAccess) options.scope = &scope;
    const std::string& who = requester.as.empty() ? requester.name : requester.as;
    if (!who.empty()) options.reporter = who;
    return options;
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
    if (QORRequestNotes* const notes = QORRequestNotes::current()) {
        notes->stored += result.accepted();
        notes->refused += result.refused;
    }
    writeNumber(json, "accepted", result.accepted());
    writeCounts(json, result);
    writeNumber(json, "lastLine", result.lastLine);
    writeRefused(json, result);
    if (result.failure) writeFailure(json, *result.failure);
}

}  // namespace

HttpReply answerRecords(AgentCall& call) {
    HttpUnpackedBody unpacked;
    const bool packed = isSameWord(call.request.field("Content-Encoding"), "gzip");
    if (packed) unpacked = gunzip(call.request.body, call.application.bodyLimit());
    const std::string_view ndjson = packed ? std::string_view(unpacked.text) : call.request.body;
    const std::uint64_t firstLine = call.parameters.number("first-line").value_or(1);
    const std::optional<std::string_view> key = keyOf(call.request);
    std::optional<QORIngestRequest> request;
    const QORWriteScope scope = scopeOf(call.requester());
    if (key) request.emplace(*key, ndjson, firstLine, scope.name);
    const QORIngestResult result =
        QORIngest(optionsOf(call.requester(), scope)).importBatch(ndjson, firstLine, request ? &*request : nullptr);
    return {200, writtenObject([&](JsonWriter& json) { writeResult(json, result); })};
}

HttpReply answerCollect(AgentCall& call) {
    const auto scope = std::make_shared<const QORWriteScope>(scopeOf(call.requester()));
    const QORCollectResult result = call.application.collectors().collectNow(
        optionsOf(call.requester(), *scope), call.requester().fullAccess ? nullptr : scope);
    return {200, writtenObject([&](JsonWriter& json) {
                writeResult(json, result.stored);
                writeNumber(json, "malformed", result.malformed);
                json.Key("unreadable");
                json.StartArray();
                for (const std::string& file : result.unreadable)
                    writeText(json, file);
                json.EndArray();
            })};
}

}  // namespace QOR
