#include "agent/api/AgentIdentities.h"

#include "agent/api/AgentJson.h"
#include "host/QORIdentityForms.h"

namespace QOR {
namespace {

/// `{"key":"text"}`
std::string oneMember(std::string_view key, std::string_view text) {
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeKey(json, key);
    writeText(json, text);
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace

std::string identitiesText() {
    return writeIdentityList(readIdentities());
}

std::string runAddIdentity(std::string_view body) {
    const QORIdentity identity = readIdentity(body);
    addIdentity(identity);
    return oneMember("added", identity.name);
}

std::string runRemoveIdentity(std::string_view body) {
    const std::string name = readTokenRequest(body).name;
    removeIdentity(name);
    return oneMember("removed", name);
}

std::string runCreateToken(std::string_view body) {
    const QORTokenRequest request = readTokenRequest(body);
    return oneMember("token", createToken(request.name, request.expires));
}

std::string runRevokeTokens(std::string_view body) {
    const QORTokenRequest request = readTokenRequest(body);
    return R"({"revoked":)" + std::to_string(revokeTokens(request.name, request.id)) + "}";
}

}  // namespace QOR
