#include "agent/api/AgentExport.h"

#include <algorithm>
#include <string>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORSecurity.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentSources.h"
#include "host/QORRequestNotes.h"
#include "ingest/QORRecordExport.h"

namespace QOR {
namespace {

QORExportPosition takenPosition(const AgentParameters& parameters) {
    for (const AgentParameter& other : exportParameters) {
        if (other.name == "after" || !parameters.has(other.name)) continue;
        throwProblem({.detail = "after: the position says itself what is exported, and takes no " +
                                std::string(other.name) + " beside it",
                      .code = "bad_parameter",
                      .parameter = std::string(other.name)});
    }
    try {
        return QORExportPosition::ofText(parameters.text("after"));
    } catch (const QORException& error) {
        throwProblem({.detail = "after: " + error.message(), .code = "bad_token", .parameter = "after"});
    }
}

QORExportPosition askedPosition(const AgentParameters& parameters) {
    if (parameters.has("after")) return takenPosition(parameters);
    QORExportQuestion question;
    if (parameters.has("source")) {
        for (const AgentSource* source : sourcesNamed(parameters))
            question.kinds.push_back(recordKindOfPlural(source->name).value());
        std::sort(question.kinds.begin(), question.kinds.end());
    }
    const std::int64_t now = currentTime();
    question.from = timeOf(parameters, "from", now);
    question.to = timeOf(parameters, "to", now);
    question.environment = environmentOf(parameters);
    return QORExportPosition(std::move(question));
}

void noteExported(std::uint64_t records) {
    if (QORRequestNotes* const notes = QORRequestNotes::current()) notes->rows = static_cast<std::int64_t>(records);
}

}  // namespace

bool streamsExport(const HttpRequest&, const AgentParameters&) {
    return true;
}

HttpReply answerExport(AgentCall& call) {
    const QORExportPosition position = askedPosition(call.parameters);
    const std::uint64_t before = position.records();
    QORRecordExport records(position, QORRowAccess(*call.session().context()));
    HttpReply reply;
    reply.contentType = exportTypes.front();
    if (call.request.method == "HEAD") return reply;
    call.request.stream->describe(reply.contentType);
    for (std::string lines = records.next(); !lines.empty(); lines = records.next()) {
        if (!call.request.stream->send(lines)) throw QORException(errFailure, "the answer broke off in the middle");
        if (QORRequestControl* const control = QORRequestControl::current()) control->renew();
        noteExported(records.position().records() - before);
    }
    return reply;
}

}  // namespace QOR
