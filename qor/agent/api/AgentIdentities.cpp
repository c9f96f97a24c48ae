#include "agent/api/AgentIdentities.h"

#include <string>
#include <utility>

#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "host/QORIdentityForms.h"

namespace QOR {
namespace {

/// `{"key":"text"}`, of a change.
HttpReply changed(AgentCall& call, std::string_view key, std::string_view text) {
    call.application.access().refresh();
    return {200, writtenObject([&](JsonWriter& json) { writeMember(json, key, text); })};
}

}  // namespace

HttpReply answerIdentities(AgentCall&) {
    return {200, writeIdentityList(readIdentities())};
}

HttpReply answerAddIdentity(AgentCall& call) {
    const QORIdentity identity = readIdentity(call.request.body);
    addIdentity(identity);
    return changed(call, "added", identity.name);
}

HttpReply answerRemoveIdentity(AgentCall& call) {
    const std::string name = readTokenRequest(call.request.body).name;
    removeIdentity(name);
    return changed(call, "removed", name);
}

HttpReply answerCreateToken(AgentCall& call) {
    const QORTokenRequest request = readTokenRequest(call.request.body);
    return changed(call, "token", createToken(request.name, request.expires));
}

HttpReply answerRevokeTokens(AgentCall& call) {
    const QORTokenRequest request = readTokenRequest(call.request.body);
    const auto revoked = revokeTokens(request.name, request.id);
    call.application.access().refresh();
    return {200, R"({"revoked":)" + std::to_string(revoked) + "}"};
}

}  // namespace QOR
