#include "host/QORIdentityForms.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <set>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

void writeKey(Writer& json, std::string_view key) {
    json.Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

using rapidjson::Document;
using rapidjson::Value;

[[noreturn]] void refuse(const std::string& message) {
    throw QORException(errBadRequest, message, QOR_SOURCE_PATH);
}

/// One object whose members are all among those that are known.
Document read(std::string_view body, const std::set<std::string_view>& known) {
    Document document;
    document.Parse<rapidjson::kParseIterativeFlag>(body.data(), body.size());
    if (document.HasParseError() || !document.IsObject()) refuse("the body is no JSON object");
    for (const auto& member : std::as_const(document).GetObject()) {
        const std::string_view name(member.name.GetString(), member.name.GetStringLength());
        if (!known.contains(name)) refuse("unknown member " + quoteText(std::string(name)));
    }
    return document;
}

std::string textOf(const Value& object, const char* name, const std::optional<std::string>& otherwise = {}) {
    const auto found = object.FindMember(name);
    if (found == object.MemberEnd() && otherwise) return *otherwise;
    if (found == object.MemberEnd() || !found->value.IsString()) refuse(std::string(name) + " is no text");
    return {found->value.GetString(), found->value.GetStringLength()};
}

std::optional<std::int64_t> secondsOf(const Value& object, const char* name) {
    const auto found = object.FindMember(name);
    if (found == object.MemberEnd() || found->value.IsNull()) return std::nullopt;
    if (!found->value.IsInt64()) refuse(std::string(name) + " is no number of seconds");
    return found->value.GetInt64();
}

/// False where it is absent.
bool flagOf(const Value& object, const char* name) {
    const auto found = object.FindMember(name);
    if (found == object.MemberEnd()) return false;
    if (!found->value.IsBool()) refuse(std::string(name) + " is neither true nor false");
    return found->value.GetBool();
}

QORIdentityEnvironment environmentOf(const Value& value) {
    if (!value.IsObject()) refuse("an environment is an object with eid and below");
    const std::string text = textOf(value, "eid");
    QORIdentityEnvironment environment;
    if (!environment.eid.fromString(text)) refuse(quoteText(text) + " is no identifier of an environment");
    environment.below = flagOf(value, "below");
    environment.writes = flagOf(value, "writes");
    return environment;
}

QORIdentity identityOf(const Value& document) {
    if (!document.IsObject()) refuse("an identity is an object");
    QORIdentity identity;
    identity.name = textOf(document, "name");
    identity.subject = textOf(document, "subject", identity.name);
    const std::string kind = textOf(document, "kind");
    const std::optional<QORIdentityKind> known = findIdentityKind(kind);
    if (!known) refuse("kind is user, group, token or certificate, not " + quoteText(kind));
    identity.kind = *known;
    const std::string access = textOf(document, "access", "environments");
    if (access != "full" && access != "environments")
        refuse("access is full or environments, not " + quoteText(access));
    identity.fullAccess = access == "full";
    const auto environments = document.FindMember("environments");
    if (environments == document.MemberEnd()) return identity;
    if (!environments->value.IsArray()) refuse("environments is no array");
    for (const Value& value : environments->value.GetArray())
        identity.environments.push_back(environmentOf(value));
    return identity;
}

void writeMember(Writer& json, std::string_view key, std::string_view text) {
    writeKey(json, key);
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeSeconds(Writer& json, std::string_view key, const std::optional<std::int64_t>& seconds) {
    writeKey(json, key);
    if (seconds) {
        json.Int64(*seconds);
    } else {
        json.Null();
    }
}

void writeOne(Writer& json, const QORIdentity& identity) {
    json.StartObject();
    writeMember(json, "name", identity.name);
    writeMember(json, "kind", nameOf(identity.kind));
    writeMember(json, "subject", identity.subject);
    writeMember(json, "access", identity.fullAccess ? "full" : "environments");
    writeKey(json, "environments");
    json.StartArray();
    for (const QORIdentityEnvironment& environment : identity.environments) {
        json.StartObject();
        writeMember(json, "eid", environment.eid.toString());
        writeKey(json, "below");
        json.Bool(environment.below);
        writeKey(json, "writes");
        json.Bool(environment.writes);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
}

void writeToken(Writer& json, const QORTokenEntry& token) {
    json.StartObject();
    writeMember(json, "id", token.id());
    writeMember(json, "name", token.name);
    writeSeconds(json, "created", token.created);
    writeSeconds(json, "expires", token.expires);
    writeSeconds(json, "lastUse", token.lastUse);
    json.EndObject();
}

QORTokenEntry tokenOf(const Value& value) {
    if (!value.IsObject()) refuse("a token is an object");
    return {textOf(value, "id"), textOf(value, "name"), secondsOf(value, "created").value_or(0),
            secondsOf(value, "expires"), secondsOf(value, "lastUse")};
}

const Value& arrayOf(const Document& document, const char* name) {
    const auto found = document.FindMember(name);
    if (found == document.MemberEnd() || !found->value.IsArray()) refuse(std::string(name) + " is no array");
    return found->value;
}

std::string textOf(const rapidjson::StringBuffer& buffer) {
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace

std::string writeIdentityList(const QORIdentityList& list) {
    rapidjson::StringBuffer buffer;
    Writer json(buffer);
    json.StartObject();
    writeKey(json, "identities");
    json.StartArray();
    for (const QORIdentity& identity : list.identities)
        writeOne(json, identity);
    json.EndArray();
    writeKey(json, "tokens");
    json.StartArray();
    for (const QORTokenEntry& token : list.tokens)
        writeToken(json, token);
    json.EndArray();
    json.EndObject();
    return textOf(buffer);
}

QORIdentityList readIdentityList(std::string_view json) {
    const Document document = read(json, {"identities", "tokens"});
    QORIdentityList list;
    for (const Value& value : arrayOf(document, "identities").GetArray())
        list.identities.push_back(identityOf(value));
    for (const Value& value : arrayOf(document, "tokens").GetArray())
        list.tokens.push_back(tokenOf(value));
    return list;
}

std::string writeIdentity(const QORIdentity& identity) {
    rapidjson::StringBuffer buffer;
    Writer json(buffer);
    writeOne(json, identity);
    return textOf(buffer);
}

QORIdentity readIdentity(std::string_view json) {
    return identityOf(read(json, {"name", "kind", "subject", "access", "environments"}));
}

std::string writeTokenRequest(const QORTokenRequest& request) {
    rapidjson::StringBuffer buffer;
    Writer json(buffer);
    json.StartObject();
    writeMember(json, "name", request.name);
    if (request.expires) writeSeconds(json, "expires", request.expires);
    if (!request.id.empty()) writeMember(json, "id", request.id);
    json.EndObject();
    return textOf(buffer);
}

QORTokenRequest readTokenRequest(std::string_view json) {
    const Document document = read(json, {"name", "expires", "id"});
    return {textOf(document, "name"), secondsOf(document, "expires"), textOf(document, "id", std::string())};
}

}  // namespace QOR
