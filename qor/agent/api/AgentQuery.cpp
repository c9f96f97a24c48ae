#include "agent/api/AgentQuery.h"

#include <string>

#include "agent/api/AgentFields.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRows.h"

namespace QOR {
namespace {

/// What a view has and a source has not.
void refuseForSources(const AgentParameters& members) {
    if (members.has("distinct"))
        throwProblem({.detail = "distinct is for views", .code = "bad_parameter", .parameter = "distinct"});
    if (!members.has("fields"))
        throwProblem({.detail = "fields is missing: the names of the source's fields",
                      .code = "missing_parameter",
                      .parameter = "fields"});
}

}  // namespace

AgentParameters readQuestion(const AgentCall& call) {
    AgentParameters members = AgentParameters::ofBody(call.request.body, queryMembers);
    if (members.has("view") == members.has("source"))
        throwProblem({.detail = "a question is about a view or a source: give one of them",
                      .code = members.has("view") ? "bad_parameter" : "missing_parameter",
                      .parameter = "view",
                      .expected = "view or source"});
    if (members.has("source")) refuseForSources(members);
    return members;
}

HttpReply answerQuery(AgentCall& call) {
    AgentParameters members = readQuestion(call);
    members.take(call.parameters, "format");
    return members.has("view") ? viewRows(call, members.text("view"), members) : sourceRows(call, members);
}

/// Whether it has a limit is told by its body.
bool streamsQuery(const HttpRequest& head, const AgentParameters& parameters) {
    return rowsFormOf(head, parameters).format == AgentFormat::Ndjson;
}

}  // namespace QOR
