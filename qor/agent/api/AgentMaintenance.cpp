#include "agent/api/AgentMaintenance.h"

#include <cstdint>
#include <string>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentProblem.h"
#include "host/QORMaintenance.h"

namespace QOR {
namespace {

std::int64_t secondsOf(const AgentParameters& parameters) {
    const std::string_view before = parameters.text("before");
    if (!parameters.has("before"))
        throwProblem({.detail = "before: the seconds before which records go are missing",
                      .code = "missing_parameter",
                      .parameter = "before"});
    const auto seconds = parseInt64(before);
    if (!seconds)
        throwProblem({.detail = "before: " + quoteText(before) + " is no number of seconds",
                      .code = "bad_parameter",
                      .parameter = "before",
                      .found = std::string(before),
                      .expected = "a whole number"});
    return *seconds;
}

/// A part of the work is one statement over the whole database, however large that is; it ends when its client goes.
void takeAllTheTimeItNeeds() {
    if (QORRequestControl* const control = QORRequestControl::current()) control->lift();
}

}  // namespace

HttpReply answerCheck(AgentCall& call) {
    takeAllTheTimeItNeeds();
    const auto findings = checkDatabase(std::string(call.parameters.text("part")), call.parameters.text("mend") == "1");
    return {200, writtenObject([&](JsonWriter& json) {
                json.Key("findings");
                json.StartArray();
                for (const QORCheckFinding& finding : findings) {
                    json.StartObject();
                    writeMember(json, "text", finding.text);
                    json.Key("mended");
                    json.Bool(finding.mended);
                    json.EndObject();
                }
                json.EndArray();
            })};
}

HttpReply answerPrune(AgentCall& call) {
    const std::string kind(call.parameters.text("what"));
    const bool ofRecords = kind == "operations" || kind == "events" || kind == "backups";
    const std::int64_t before = ofRecords ? secondsOf(call.parameters) : 0;
    takeAllTheTimeItNeeds();
    const QORPruneStep step = pruneDatabase(kind, before, call.parameters.text("unsent") == "1");
    return {200, writtenObject([&](JsonWriter& json) {
                json.Key("done");
                json.Uint64(step.done);
                json.Key("more");
                json.Bool(step.more);
                json.Key("waiting");
                json.Uint64(step.waiting);
                json.Key("stranded");
                json.Uint64(step.more ? 0 : strandedBytes());
            })};
}

}  // namespace QOR
