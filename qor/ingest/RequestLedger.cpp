#include "ingest/RequestLedger.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"

namespace QOR {
namespace {

constexpr std::int64_t keptSeconds = 24 * 60 * 60;
constexpr std::int64_t keptRequests = 10'000;

/// `{"counts":[[added,replaced,unchanged],...],"refused":n,"lines":[[line,"reason"],...]}`
std::string textOf(const QORIngestResult& result) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> json(buffer);
    json.StartObject();
    json.Key("counts");
    json.StartArray();
    for (const QORIngestCounts& counts : result.counts) {
        json.StartArray();
        for (const std::uint64_t number : {counts.added, counts.replaced, counts.unchanged})
            json.Uint64(number);
        json.EndArray();
    }
    json.EndArray();
    json.Key("refused");
    json.Uint64(result.refused);
    json.Key("lines");
    json.StartArray();
    for (const QORRefusedLine& refused : result.refusedLines) {
        json.StartArray();
        json.Uint64(refused.line);
        json.String(refused.reason.data(), static_cast<rapidjson::SizeType>(refused.reason.size()));
        json.EndArray();
    }
    json.EndArray();
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

/// What textOf() wrote; anything else is somebody else's doing.
QORIngestResult resultOf(std::string_view text, const std::string& key) {
    rapidjson::Document document;
    document.Parse(text.data(), text.size());
    const bool readable = !document.HasParseError() && document.IsObject() && document.HasMember("counts") &&
                          document["counts"].IsArray() && document["counts"].Size() == recordKindCount &&
                          document.HasMember("refused") && document["refused"].IsUint64() &&
                          document.HasMember("lines") && document["lines"].IsArray();
    if (!readable) {
        throw QORException(errFailure, "what is stored of the request " + quoteText(key) + " cannot be read",
                           QOR_SOURCE_PATH);
    }
    QORIngestResult result;
    const auto number = [](const rapidjson::Value& value) { return value.IsUint64() ? value.GetUint64() : 0; };
    for (rapidjson::SizeType kind = 0; kind < recordKindCount; ++kind) {
        const rapidjson::Value& counts = document["counts"][kind];
        if (!counts.IsArray() || counts.Size() != 3) continue;
        result.counts[kind] = {number(counts[0]), number(counts[1]), number(counts[2])};
    }
    result.refused = document["refused"].GetUint64();
    for (const rapidjson::Value& line : document["lines"].GetArray()) {
        if (!line.IsArray() || line.Size() != 2 || !line[1].IsString()) continue;
        result.refusedLines.push_back({number(line[0]), std::string(line[1].GetString(), line[1].GetStringLength())});
    }
    return result;
}

}  // namespace

// SQLite has one transaction write at a time anyway.
void RequestLedger::lock(ASSession& session) const {
    if (session.engine() == ASEngine::SQLite) return;
    ASStatement& wait =
        session.prepare("SELECT pg_advisory_xact_lock(hashtextextended('qor request ' || CAST(? AS text), 0))");
    wait.bind(1, std::string_view(m_key)).execute();
    wait.close();
}

std::optional<QORIngestResult> RequestLedger::find(ASSession& session) const {
    ASStatement& select = session.prepare("SELECT digest, last_line, result FROM qor_request WHERE key = ?");
    select.bind(1, std::string_view(m_key)).execute();
    if (!select.fetch()) {
        select.close();
        return std::nullopt;
    }
    const bool same = select.text(1) == m_digest;
    const auto lastLine = static_cast<std::uint64_t>(select.integer(2));
    const std::string text(select.text(3));
    select.close();
    if (!same) {
        throw QORException(errOtherContent,
                           "the Idempotency-Key " + quoteText(m_key) + " belongs to a request with another content",
                           QOR_SOURCE_PATH);
    }
    QORIngestResult result = resultOf(text, m_key);
    result.lastLine = lastLine;
    return result;
}

// The table has no triggers. The records of the transaction were stored without any, and to fire those that there are
// not would have all of the connection's statements prepared anew, and once more for the next records.
void RequestLedger::put(ASSession& session, const QORIngestResult& result, bool isNew) const {
    ASStatement& store = session.prepare(
        isNew ? "INSERT INTO qor_request (last_line, result, time, digest, key) VALUES (?, ?, ?, ?, ?)"
              : "UPDATE qor_request SET last_line = ?, result = ?, time = ? WHERE digest = ? AND key = ?");
    const std::string text = textOf(result);
    store.bind(1, static_cast<std::int64_t>(result.lastLine))
        .bind(2, std::string_view(text))
        .bind(3, currentTime())
        .bind(4, std::string_view(m_digest))
        .bind(5, std::string_view(m_key))
        .execute(ASTriggers::Skip);
    if (!isNew) return;
    session.prepare("DELETE FROM qor_request WHERE time < ?")
        .bind(1, currentTime() - keptSeconds)
        .execute(ASTriggers::Skip);
    session.prepare("DELETE FROM qor_request WHERE rowid <= (SELECT max(rowid) FROM qor_request) - ?")
        .bind(1, keptRequests)
        .execute(ASTriggers::Skip);
}

}  // namespace QOR
