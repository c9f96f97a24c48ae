#include "agent/api/AgentHealth.h"

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORServers/QORServers.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentProblem.h"
#include "host/QORHost.h"
#include "rdbmspp/engine/ASFaults.h"

namespace QOR {
namespace {

void writeFault(JsonWriter& json, const ASFaults::State& fault) {
    json.StartObject();
    writeMember(json, "fault", fault.name);
    writeMember(json, "reason", fault.reason);
    writeKey(json, "count");
    json.Uint64(fault.count);
    json.EndObject();
}

/// Of the database, and of the servers that keep records for it.
std::vector<ASFaults::State> allFaults() {
    std::vector<ASFaults::State> faults = ASFaults::instance().current();
    for (const auto& [name, server] : QORServers::instance().used()) {
        for (ASFaults::State& fault : server->faults().current())
            faults.push_back(std::move(fault));
    }
    return faults;
}

/// "ok", or in one word what is wrong.
std::string_view conditionOf(const QORHost& host) {
    if (!allFaults().empty()) return "failing";
    return host.refusedPlugIns().empty() && host.router().isPrimed() ? "ok" : "degraded";
}

template <class Items, class Text>
void writeTexts(JsonWriter& json, std::string_view key, const Items& items, Text text) {
    writeKey(json, key);
    json.StartArray();
    for (const auto& item : items)
        writeText(json, text(item));
    json.EndArray();
}

}  // namespace

HttpReply liveNow(const AgentApplication&, std::string_view) {
    return {200, R"({"status":"live"})"};
}

HttpReply readyNow(const AgentApplication& application, std::string_view) {
    const std::string_view condition = conditionOf(application.host());
    if (condition == "ok") return {200, R"({"status":"ok"})"};
    return problemReply({.status = 503, .detail = "the agent is " + std::string(condition), .code = condition});
}

HttpReply healthNow(const AgentApplication& application, std::string_view access) {
    const QORHost& host = application.host();
    return {200, writtenObject([&](JsonWriter& json) {
                writeMember(json, "status", conditionOf(host));
                writeMember(json, "version", QOR_VERSION);
                writeKey(json, "uptime");
                json.Int64(std::chrono::duration_cast<std::chrono::seconds>(application.uptime()).count());
                writeMember(json, "access", access);
                writeKey(json, "connections");
                json.Uint64(application.connections());
                writeTexts(json, "operators", QOROpFactoryRegistry::instance().names(),
                           [](const std::string& name) { return name; });
                writeTexts(json, "plugins", host.plugIns().plugIns(),
                           [](const auto& plugIn) { return plugIn.file.filename().string(); });
                writeTexts(json, "refused", host.refusedPlugIns(), [](const auto& refusal) { return refusal.reason; });
                writeKey(json, "faults");
                json.StartArray();
                for (const ASFaults::State& one : allFaults())
                    writeFault(json, one);
                json.EndArray();
            })};
}

HttpReply metricsNow(const AgentApplication& application, std::string_view) {
    PrometheusText text;
    application.writeMetrics(text);
    text.family("qor_faults", PrometheusText::Type::Gauge, "What fails now, and how often it was met, by its name.");
    for (const ASFaults::State& fault : ASFaults::instance().current())
        text.sample(fault.count, {{"fault", fault.name}, {"server", ""}});
    for (const auto& [name, server] : QORServers::instance().used()) {
        for (const ASFaults::State& fault : server->faults().current())
            text.sample(fault.count, {{"fault", fault.name}, {"server", name}});
    }
    HttpReply reply{200, text.text()};
    reply.contentType = PrometheusText::contentType;
    return reply;
}

}  // namespace QOR
