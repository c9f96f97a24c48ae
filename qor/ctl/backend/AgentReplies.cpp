#include "backend/AgentReplies.h"

#include <rapidjson/document.h>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "QORMessage/QORNotation.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

using rapidjson::Document;
using rapidjson::Value;

[[noreturn]] void unreadable() {
    throw CtlError(CtlExit::AnsweredError, "the agent's answer cannot be read");
}

const Value* find(const Value& object, const char* name) {
    if (!object.IsObject()) unreadable();
    const auto found = object.FindMember(name);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

const Value& member(const Value& object, const char* name) {
    const Value* const value = find(object, name);
    if (value == nullptr) unreadable();
    return *value;
}

std::uint64_t numberOf(const Value& object, const char* name) {
    const Value& value = member(object, name);
    if (!value.IsUint64()) unreadable();
    return value.GetUint64();
}

std::string textOf(const Value& value) {
    if (!value.IsString()) unreadable();
    return {value.GetString(), value.GetStringLength()};
}

const Value& arrayOf(const Value& object, const char* name) {
    const Value& value = member(object, name);
    if (!value.IsArray()) unreadable();
    return value;
}

[[noreturn]] void throwError(const Value& error) {
    const Value& code = member(error, "code");
    throw CtlError::answered(code.IsInt() ? code.GetInt() : 0, textOf(member(error, "message")));
}

/// \param expected a member that an answer has unless it is nothing but an error
Document parse(std::string_view json, const char* expected) {
    Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
    if (document.HasParseError()) unreadable();
    const Value* const error = find(document, "error");
    if (error == nullptr || find(document, expected) != nullptr) return document;
    throwError(*error);
}

QORIngestResult ingestResult(const Document& document) {
    QORIngestResult result;
    const Value& counts = member(document, "counts");
    for (std::size_t index = 0; index < recordKindCount; ++index) {
        const std::string kind(recordKindName(static_cast<QORRecordKind>(index)));
        const Value& count = member(counts, kind.c_str());
        result.counts[index] = {numberOf(count, "added"), numberOf(count, "replaced"), numberOf(count, "unchanged")};
    }
    result.lastLine = numberOf(document, "lastLine");
    result.refused = numberOf(document, "refusedCount");
    for (const Value& refused : arrayOf(document, "refused").GetArray())
        result.refusedLines.push_back({numberOf(refused, "line"), textOf(member(refused, "reason"))});
    if (const Value* const failure = find(document, "failure"))
        result.failure = QORIngestFailure{numberOf(*failure, "firstLine"), numberOf(*failure, "lastLine"),
                                          textOf(member(*failure, "reason"))};
    return result;
}

}  // namespace

std::string notationOfProblem(std::string_view json) {
    Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
    if (document.HasParseError()) unreadable();
    const Value* const detail = find(document, "detail");
    const Value* const word = find(document, "code");
    int code = static_cast<int>(numberOf(document, "status"));
    // These have numbers of their own among the errors of requests.
    if (code == 500) code = errFailure;
    if (word != nullptr && textOf(*word) == "deadline") code = errDeadline;
    std::string text = textOf(detail == nullptr ? member(document, "title") : *detail);
    const Value* const suggestion = find(document, "suggestion");
    if (suggestion != nullptr) text += "\ndid you mean " + textOf(*suggestion) + "?";
    std::string answer;
    writeErrorResponse(code, text, answer);
    return answer;
}

void throwAnsweredError(std::string_view json) {
    Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
    if (document.HasParseError()) unreadable();
    throwError(member(document, "error"));
}

QORIngestResult readIngestReply(std::string_view json) {
    return ingestResult(parse(json, "counts"));
}

QORCollectResult readCollectReply(std::string_view json) {
    const Document document = parse(json, "counts");
    QORCollectResult result;
    result.stored = ingestResult(document);
    result.malformed = numberOf(document, "malformed");
    for (const Value& file : arrayOf(document, "unreadable").GetArray())
        result.unreadable.push_back(textOf(file));
    return result;
}

std::vector<QORViewColumn> readViewsReply(std::string_view json) {
    const Document document = parse(json, "views");
    std::vector<QORViewColumn> columns;
    for (const Value& view : arrayOf(document, "views").GetArray()) {
        const std::string name = textOf(member(view, "name"));
        for (const Value& column : arrayOf(view, "columns").GetArray()) {
            const Value& length = member(column, "length");
            columns.push_back({name, textOf(member(column, "name")), textOf(member(column, "type")),
                               length.IsInt() ? length.GetInt() : 0});
        }
    }
    return columns;
}

QORPtr<const QORVocMap> readVocabularyReply(std::string_view json) {
    const Document document = parse(json, "vocabulary");
    auto vocabulary = makeQORPtr<QORVocMap>();
    for (const Value& category : arrayOf(document, "vocabulary").GetArray()) {
        QORVocMap::Category& parameters = vocabulary->category(textOf(member(category, "name")));
        for (const Value& entry : arrayOf(category, "parameters").GetArray()) {
            QORVocParameter& parameter = parameters.emplace_back();
            parameter.id = textOf(member(entry, "id"));
            for (const Value& value : arrayOf(entry, "values").GetArray())
                parameter.values.emplace_back(textOf(member(value, "name")), textOf(member(value, "text")));
            for (const Value& mark : arrayOf(entry, "marks").GetArray())
                parameter.marks.push_back(textOf(mark));
        }
    }
    return vocabulary;
}

QORDatabaseStatus readStatusReply(std::string_view json) {
    const Document document = parse(json, "database");
    const Value& database = member(document, "database");
    QORDatabaseStatus status;
    status.name = textOf(member(database, "name"));
    status.engine = textOf(member(database, "engine"));
    status.schemaVersion = static_cast<int>(numberOf(database, "schema"));
    const Value& readOnly = member(database, "readOnly");
    status.readOnly = readOnly.IsBool() && readOnly.GetBool();
    if (database.HasMember("bytes")) status.bytes = numberOf(database, "bytes");
    if (const Value* const records = find(document, "records")) {
        status.records.emplace();
        for (const auto& view : records->GetObject())
            status.records->push_back({textOf(view.name), view.value.IsUint64() ? view.value.GetUint64() : 0});
    }
    if (document.HasMember("servers")) {
        for (const Value& server : arrayOf(document, "servers").GetArray())
            status.servers.push_back({textOf(member(server, "name")), static_cast<int>(numberOf(server, "schema")),
                                      textOf(member(server, "failure"))});
    }
    if (member(document, "unreadable").IsNull()) return status;
    auto& columns = status.unreadable.emplace();
    for (const Value& column : arrayOf(document, "unreadable").GetArray())
        columns.push_back(
            {textOf(member(column, "table")), textOf(member(column, "column")), numberOf(column, "count")});
    return status;
}

std::string readSettingsReply(std::string_view json) {
    const Document document = parse(json, "database");
    const Value* const settings = find(document, "settings");
    return settings == nullptr ? std::string() : textOf(*settings);
}

std::optional<AgentCollected> readCollectedReply(std::string_view json) {
    const Document document = parse(json, "database");
    const Value* const collected = find(document, "collected");
    if (collected == nullptr) return std::nullopt;
    const Value& time = member(*collected, "time");
    return AgentCollected{time.IsInt64() ? time.GetInt64() : 0, textOf(member(*collected, "failure"))};
}

std::vector<AgentCollector> readCollectorsReply(std::string_view json) {
    const Document document = parse(json, "database");
    std::vector<AgentCollector> collectors;
    if (!document.HasMember("collectors")) return collectors;
    for (const Value& one : arrayOf(document, "collectors").GetArray()) {
        const Value& every = member(one, "every");
        const Value& outcome = member(one, "outcome");
        const Value& time = member(one, "time");
        collectors.push_back({textOf(member(one, "name")), textOf(member(one, "source")),
                              every.IsUint64() ? std::optional(every.GetUint64()) : std::nullopt,
                              outcome.IsString() ? textOf(outcome) : std::string(), textOf(member(one, "failure")),
                              time.IsInt64() ? time.GetInt64() : 0, numberOf(one, "records")});
    }
    return collectors;
}

std::vector<AgentLimit> readMetLimits(std::string_view metrics) {
    constexpr std::string_view begin = "\nqor_http_limits_total{limit=\"";
    constexpr std::string_view end = "\"} ";
    std::vector<AgentLimit> limits;
    for (std::size_t at = metrics.find(begin); at != metrics.npos; at = metrics.find(begin, at)) {
        at += begin.size();
        const std::size_t close = metrics.find(end, at);
        if (close == metrics.npos) break;
        const std::string_view rest = metrics.substr(close + end.size());
        const auto met = parseInt64(rest.substr(0, rest.find('\n')));
        if (met && *met > 0)
            limits.push_back({std::string(metrics.substr(at, close - at)), static_cast<std::uint64_t>(*met)});
    }
    return limits;
}

std::optional<AgentForwarding> readForwardingReply(std::string_view json) {
    const Document document = parse(json, "database");
    const Value* const forward = find(document, "forward");
    if (forward == nullptr) return std::nullopt;
    const auto second = [&](const char* name) -> std::optional<std::int64_t> {
        const Value& value = member(*forward, name);
        return value.IsInt64() ? std::optional(value.GetInt64()) : std::nullopt;
    };
    AgentForwarding forwarding{.target = textOf(member(*forward, "target")),
                               .behind = numberOf(*forward, "behind"),
                               .away = {},
                               .seconds = numberOf(*forward, "behindSeconds"),
                               .refused = numberOf(*forward, "refused"),
                               .lastSuccess = second("lastSuccess"),
                               .lastFailure = second("lastFailure"),
                               .lastError = textOf(member(*forward, "lastError"))};
    if (const Value* const away = find(*forward, "away"); away != nullptr && away->IsArray()) {
        for (const Value& server : away->GetArray())
            forwarding.away.append(forwarding.away.empty() ? "" : ", ").append(textOf(server));
    }
    return forwarding;
}

std::vector<QORCheckFinding> readCheckReply(std::string_view json) {
    const Document document = parse(json, "findings");
    std::vector<QORCheckFinding> findings;
    for (const Value& finding : arrayOf(document, "findings").GetArray()) {
        const Value& mended = member(finding, "mended");
        findings.push_back({textOf(member(finding, "text")), mended.IsBool() && mended.GetBool()});
    }
    return findings;
}

Backend::Pruned readPruneReply(std::string_view json) {
    const Document document = parse(json, "more");
    const Value& more = member(document, "more");
    return {{.done = numberOf(document, "done"),
             .more = more.IsBool() && more.GetBool(),
             .waiting = numberOf(document, "waiting")},
            numberOf(document, "stranded")};
}

QORIdentityList readIdentitiesReply(std::string_view json) {
    parse(json, "identities");
    try {
        return readIdentityList(json);
    } catch (const QORException&) {
        unreadable();
    }
}

void readChangeReply(std::string_view json, const char* key) {
    member(parse(json, key), key);
}

std::string readTokenReply(std::string_view json) {
    return textOf(member(parse(json, "token"), "token"));
}

std::uint64_t readRevokedReply(std::string_view json) {
    return numberOf(parse(json, "revoked"), "revoked");
}

AgentHealth readHealthReply(std::string_view json) {
    const Document document = parse(json, "status");
    return {textOf(member(document, "status")), textOf(member(document, "version")), numberOf(document, "uptime"),
            numberOf(document, "connections")};
}

bool readAccess(std::string_view json) {
    const Document document = parse(json, "status");
    const Value* const access = find(document, "access");
    return access == nullptr || textOf(*access) != "none";
}

}  // namespace QOR
