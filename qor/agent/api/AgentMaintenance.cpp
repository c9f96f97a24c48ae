#include "agent/api/AgentMaintenance.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "agent/api/AgentJson.h"
#include "host/QORMaintenance.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/agent/api/AgentMaintenance";

using Parameters = std::map<std::string, std::string, std::less<>>;

Parameters readParameters(std::string_view query, const std::set<std::string_view>& known) {
    Parameters parameters;
    while (!query.empty()) {
        const std::string_view parameter = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(parameter.size() + 1, query.size()));
        const std::size_t equals = std::min(parameter.find('='), parameter.size());
        const std::string_view name = parameter.substr(0, equals);
        if (!known.contains(name))
            throw QORException(errBadRequest, "unknown parameter " + quoteText(parameter), sourcePath, __LINE__);
        parameters[std::string(name)] = parameter.substr(std::min(equals + 1, parameter.size()));
    }
    return parameters;
}

std::int64_t secondsOf(const Parameters& parameters) {
    const auto before = parameters.find("before");
    if (before == parameters.end())
        throw QORException(errBadRequest, "before: the seconds before which records go are missing", sourcePath,
                           __LINE__);
    const auto seconds = parseInt64(before->second);
    if (!seconds)
        throw QORException(errBadRequest, "before: " + quoteText(before->second) + " is no number of seconds",
                           sourcePath, __LINE__);
    return *seconds;
}

/// A part of the work is one statement over the whole database, however large that is; it ends when its client goes.
void takeAllTheTimeItNeeds() {
    if (QORRequestControl* const control = QORRequestControl::current()) control->lift();
}

}  // namespace

std::string runCheck(std::string_view query) {
    const Parameters parameters = readParameters(query, {"part", "mend"});
    const auto part = parameters.find("part");
    const auto mend = parameters.find("mend");
    const std::string wanted = mend == parameters.end() ? "0" : mend->second;
    if (wanted != "0" && wanted != "1")
        throw QORException(errBadRequest, "mend: " + quoteText(wanted) + " is neither 0 nor 1", sourcePath, __LINE__);
    takeAllTheTimeItNeeds();
    const auto findings = checkDatabase(part == parameters.end() ? std::string() : part->second, wanted == "1");
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    json.Key("findings");
    json.StartArray();
    for (const QORCheckFinding& finding : findings) {
        json.StartObject();
        json.Key("text");
        writeText(json, finding.text);
        json.Key("mended");
        json.Bool(finding.mended);
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::string runPrune(std::string_view query) {
    const Parameters parameters = readParameters(query, {"what", "before"});
    const auto what = parameters.find("what");
    const std::string kind = what == parameters.end() ? std::string() : what->second;
    const bool ofRecords = kind == "operations" || kind == "events" || kind == "backups";
    takeAllTheTimeItNeeds();
    const QORPruneStep step = pruneDatabase(kind, ofRecords ? secondsOf(parameters) : 0);
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    json.Key("done");
    json.Uint64(step.done);
    json.Key("more");
    json.Bool(step.more);
    json.Key("stranded");
    json.Uint64(step.more ? 0 : strandedBytes());
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

}  // namespace QOR
