#include "agent/api/AgentApplication.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "QORDBSchema/SchemaTable.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORLibLocal/QORVocabulary.h"
#include "QORMessage/QORNotation.h"
#include "QORServers/QORServers.h"
#include "agent/api/AgentIdentities.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentMaintenance.h"
#include "agent/api/AgentRecords.h"
#include "host/QORHost.h"
#include "host/QORStatus.h"
#include "ingest/QORIngest.h"
#include "rdbmspp/engine/ASFaults.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

constexpr unsigned ok = 200;
constexpr unsigned badRequest = 400;
constexpr unsigned unauthorized = 401;
constexpr unsigned forbidden = 403;
constexpr unsigned notFound = 404;
constexpr unsigned methodNotAllowed = 405;
constexpr unsigned failed = 500;
constexpr unsigned unavailable = 503;

HttpReply errorReply(unsigned status, int code, std::string_view message) {
    HttpReply reply{status, {}};
    writeErrorResponse(code, message, reply.body);
    return reply;
}

HttpReply errorReply(unsigned status, std::string_view message) {
    return errorReply(status, static_cast<int>(status), message);
}

unsigned statusOf(int code) {
    if (code == errDeadline) return unavailable;
    if (code == static_cast<int>(notFound)) return notFound;
    if (code == errOtherContent || code == errSameRequest) return static_cast<unsigned>(code);
    return code == errBadRequest ? badRequest : failed;
}

/// `{"views":[{"name":"...","columns":[{"name":"...","type":"...","length":0},...]},...]}`
std::string viewsText() {
    QORRdbmsTran transaction(ASAccess::Read);
    const std::vector<QORViewColumn> columns = readViews(*transaction);
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeKey(json, "views");
    json.StartArray();
    for (std::size_t index = 0; index < columns.size(); ++index) {
        const QORViewColumn& column = columns[index];
        if (index == 0 || columns[index - 1].view != column.view) {
            json.StartObject();
            writeKey(json, "name");
            writeText(json, column.view);
            writeKey(json, "columns");
            json.StartArray();
        }
        json.StartObject();
        writeKey(json, "name");
        writeText(json, column.column);
        writeKey(json, "type");
        writeText(json, column.type);
        writeKey(json, "length");
        json.Int(column.length);
        json.EndObject();
        if (index + 1 == columns.size() || columns[index + 1].view != column.view) {
            json.EndArray();
            json.EndObject();
        }
    }
    json.EndArray();
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

void writeMember(JsonWriter& json, std::string_view key, std::string_view text) {
    writeKey(json, key);
    writeText(json, text);
}

void writeParameter(JsonWriter& json, const QORVocParameter& parameter) {
    json.StartObject();
    writeMember(json, "id", parameter.id);
    writeKey(json, "values");
    json.StartArray();
    for (const auto& [name, text] : parameter.values) {
        json.StartObject();
        writeMember(json, "name", name);
        writeMember(json, "text", text);
        json.EndObject();
    }
    json.EndArray();
    writeKey(json, "marks");
    json.StartArray();
    for (const std::string& mark : parameter.marks)
        writeText(json, mark);
    json.EndArray();
    json.EndObject();
}

/// `{"vocabulary":[{"name":"...","parameters":[{"id":"...","values":[{"name":"...","text":"..."},...],
/// "marks":["...",...]},...]},...]}`
std::string vocabularyText() {
    const QORPtr<const QORVocMap> vocabulary = vocCacheLocal()->getVocabulary();
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeKey(json, "vocabulary");
    json.StartArray();
    for (const auto& [name, parameters] : vocabulary->categories()) {
        json.StartObject();
        writeMember(json, "name", name);
        writeKey(json, "parameters");
        json.StartArray();
        for (const QORVocParameter& parameter : parameters)
            writeParameter(json, parameter);
        json.EndArray();
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

void writeUnreadable(JsonWriter& json, const std::optional<std::vector<QORUnreadableDocuments>>& unreadable) {
    if (!unreadable) {
        json.Null();
        return;
    }
    json.StartArray();
    for (const QORUnreadableDocuments& column : *unreadable) {
        json.StartObject();
        writeMember(json, "table", column.table);
        writeMember(json, "column", column.column);
        writeKey(json, "count");
        json.Uint64(column.count);
        json.EndObject();
    }
    json.EndArray();
}

void writeServers(JsonWriter& json, const std::vector<QORServerStatus>& servers) {
    writeKey(json, "servers");
    json.StartArray();
    for (const QORServerStatus& server : servers) {
        json.StartObject();
        writeMember(json, "name", server.name);
        writeKey(json, "schema");
        json.Int(server.schemaVersion);
        writeMember(json, "failure", server.failure);
        json.EndObject();
    }
    json.EndArray();
}

/// `{"database":{"name":"...","engine":"SQLite","schema":4,"readOnly":false},"unreadable":[{"table":"...",
/// "column":"...","count":1},...]}`; unreadable is null where nobody has looked. Where servers keep the records, also
/// `"servers":[{"name":"s1","schema":8,"failure":""},...]`.
std::string statusText() {
    const QORDatabaseStatus status = readDatabaseStatus();
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeKey(json, "database");
    json.StartObject();
    writeMember(json, "name", status.name);
    writeMember(json, "engine", status.engine);
    writeKey(json, "schema");
    json.Int(status.schemaVersion);
    writeKey(json, "readOnly");
    json.Bool(status.readOnly);
    json.EndObject();
    writeKey(json, "unreadable");
    writeUnreadable(json, status.unreadable);
    if (!status.servers.empty()) writeServers(json, status.servers);
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

void writeFault(JsonWriter& json, const ASFaults::State& fault) {
    json.StartObject();
    writeMember(json, "fault", fault.name);
    writeMember(json, "reason", fault.reason);
    writeKey(json, "count");
    json.Uint64(fault.count);
    json.EndObject();
}

/// The key under which a request may be sent again. A field without a value is a key too, and refused as such.
std::optional<std::string_view> keyOf(const HttpRequest& request) {
    const std::string_view key = request.field("Idempotency-Key");
    return key.data() == nullptr ? std::nullopt : std::optional(key);
}

/// Reads the parameters of /v1/messages. \throws QORException 400 for others and for other values
bool wantsStream(std::string_view query) {
    bool wanted = false;
    while (!query.empty()) {
        const std::string_view parameter = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(parameter.size() + 1, query.size()));
        if (parameter != "stream=true" && parameter != "stream=false") {
            throw QORException(errBadRequest, parameter.starts_with("stream=")
                                                  ? "stream is true or false, not " + quoteText(parameter.substr(7))
                                                  : "unknown parameter " + quoteText(parameter));
        }
        wanted = parameter == "stream=true";
    }
    return wanted;
}

/// Operators are told that a client has gone only when it is another one, not whenever an environment changes.
bool sameRights(const QORClientContext& a, const QORClientContext& b) {
    const auto own = [](const QORClientContext& context) {
        QOREID eid;
        if (context.token->ownSID()) extractObjIdFromSID(*context.token->ownSID(), eid);
        return eid;
    };
    return a.fullAccess == b.fullAccess && own(a) == own(b) && a.objects() == b.objects();
}

const AgentRequester& requesterOf(const HttpRequest& request) {
    return static_cast<const AgentRequester&>(*request.requester);
}

/// One connection.
class AgentClient final : public HttpClientHandler {
public:
    AgentClient(AgentApplication& application, QORHost& host) : m_application(application), m_host(host) {}

    HttpReply handle(const HttpRequest& request) override;

    HttpReply messages(const HttpRequest& request) {
        QORClientSession& session = sessionFor(requesterOf(request));
        if (!wantsStream(request.query)) return replyOf(m_host.router().answer(session, request.body));
        QORRouter::Streamed streamed = m_host.router().stream(
            session, request.body, [&](std::string_view piece) { return request.stream->send(piece); });
        if (!streamed.whole) throw QORException(errFailure, "the answer broke off in the middle");
        return replyOf(std::move(streamed.answer));
    }
    static HttpReply replyOf(QORRouter::Answer answer) {
        HttpReply reply{answer.readable ? ok : badRequest, std::move(answer.text)};
        reply.memory = std::move(answer.memory);
        return reply;
    }
    HttpReply records(const HttpRequest& request) {
        return {ok, takeRecords(request.body, request.query, keyOf(request))};
    }
    HttpReply check(const HttpRequest& request) { return {ok, runCheck(request.query)}; }
    HttpReply prune(const HttpRequest& request) { return {ok, runPrune(request.query)}; }
    HttpReply collect(const HttpRequest&) { return {ok, runCollectors()}; }
    HttpReply views(const HttpRequest&) { return {ok, viewsText()}; }
    HttpReply vocabulary(const HttpRequest&) { return {ok, vocabularyText()}; }
    HttpReply status(const HttpRequest&) { return {ok, statusText()}; }
    HttpReply identities(const HttpRequest&) { return {ok, identitiesText()}; }
    HttpReply addAnIdentity(const HttpRequest& request) { return changed(runAddIdentity(request.body)); }
    HttpReply removeAnIdentity(const HttpRequest& request) { return changed(runRemoveIdentity(request.body)); }
    HttpReply createAToken(const HttpRequest& request) { return changed(runCreateToken(request.body)); }
    HttpReply revokeSomeTokens(const HttpRequest& request) { return changed(runRevokeTokens(request.body)); }

private:
    QORClientSession& sessionFor(const AgentRequester& requester) {
        QORClientContextPtr context = m_application.access().contextOf(requester);
        if (!m_session || !sameRights(*m_session->context(), *context))
            m_session = m_host.newSession(std::move(context));
        return *m_session;
    }
    /// What has changed holds from the answer on.
    HttpReply changed(std::string text) {
        m_application.access().refresh();
        return {ok, std::move(text)};
    }

    AgentApplication& m_application;
    QORHost& m_host;
    std::unique_ptr<QORClientSession> m_session;
};

enum class Access { Everybody, Anybody, Full };  ///< the first also over TCP, where the system vouches for nobody

struct Route {
    std::string_view path;
    std::string_view method;
    Access access;
    HttpLane lane;
    HttpReply (AgentClient::*answer)(const HttpRequest&);  ///< none: answered at once by the other one
    HttpReply (AgentApplication::*now)(bool fullAccess) const = nullptr;
};

const Route* find(std::string_view path) {
    static constexpr std::array<Route, 16> routes{{
        {"/v1/messages", "POST", Access::Anybody, HttpLane::Reading, &AgentClient::messages},
        {"/v1/records", "POST", Access::Full, HttpLane::Writing, &AgentClient::records},
        {"/v1/collect", "POST", Access::Full, HttpLane::Writing, &AgentClient::collect},
        {"/v1/check", "POST", Access::Full, HttpLane::Writing, &AgentClient::check},
        {"/v1/prune", "POST", Access::Full, HttpLane::Writing, &AgentClient::prune},
        {"/v1/views", "GET", Access::Anybody, HttpLane::Reading, &AgentClient::views},
        {"/v1/vocabulary", "GET", Access::Anybody, HttpLane::Reading, &AgentClient::vocabulary},
        {"/v1/status", "GET", Access::Full, HttpLane::Reading, &AgentClient::status},
        {"/v1/identities", "GET", Access::Full, HttpLane::Reading, &AgentClient::identities},
        {"/v1/identities/add", "POST", Access::Full, HttpLane::Writing, &AgentClient::addAnIdentity},
        {"/v1/identities/remove", "POST", Access::Full, HttpLane::Writing, &AgentClient::removeAnIdentity},
        {"/v1/tokens/create", "POST", Access::Full, HttpLane::Writing, &AgentClient::createAToken},
        {"/v1/tokens/revoke", "POST", Access::Full, HttpLane::Writing, &AgentClient::revokeSomeTokens},
        {"/v1/health", "GET", Access::Anybody, HttpLane::Reading, nullptr, &AgentApplication::health},
        {"/health/ready", "GET", Access::Anybody, HttpLane::Reading, nullptr, &AgentApplication::ready},
        {"/health/live", "GET", Access::Everybody, HttpLane::Reading, nullptr, &AgentApplication::live},
    }};
    for (const Route& route : routes) {
        if (route.path == path) return &route;
    }
    return nullptr;
}

/// Also for paths that there are not, so that nobody learns which there are.
HttpReply notLetIn(unsigned status, const std::string& message) {
    HttpReply reply = errorReply(status, message);
    if (status == unauthorized) reply.authenticate = "Bearer realm=\"qor-agent\"";
    return reply;
}

/// Why a request is not taken; nothing when it is.
std::optional<HttpReply> refusal(const Route* route, const HttpRequest& request, bool fullAccess) {
    if (route == nullptr) return errorReply(notFound, "there is nothing at " + std::string(request.path));
    const bool headOfGet = route->method == "GET" && request.method == "HEAD";
    if (request.method != route->method && !headOfGet) {
        HttpReply reply =
            errorReply(methodNotAllowed, std::string(route->path) + " takes " + std::string(route->method) + " only");
        reply.allow = route->method == "GET" ? "GET, HEAD" : route->method;
        return reply;
    }
    if (route->access == Access::Full && !fullAccess)
        return errorReply(forbidden, std::string(route->path) + " is for connections with full access");
    return std::nullopt;
}

void logReply(const HttpRequest& request, const HttpReply& reply) {
    logMessage(4, "QORAgent", "qor/agent/api/AgentApplication", "handle", "%.*s %.*s %u, %zu bytes",
               static_cast<int>(request.method.size()), request.method.data(), static_cast<int>(request.path.size()),
               request.path.data(), reply.status, reply.body.size());
}

HttpReply AgentClient::handle(const HttpRequest& request) {
    const QORMemoryScope memory(m_application.newAccount());
    const AgentAccess::Running running(m_application.access(), requesterOf(request));
    HttpReply reply;
    try {
        reply = (this->*find(request.path)->answer)(request);
    } catch (const QORException& exception) {
        reply = errorReply(statusOf(exception.code()), exception.code(), exception.message());
    } catch (const std::exception& exception) {
        reply = errorReply(failed, errFailure, exception.what());
    }
    logReply(request, reply);
    return reply;
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

}  // namespace

AgentApplication::AgentApplication(QORHost& host, const AgentMemory& memory)
    : m_host(host),
      m_access(!QORRdbms::instance().options().readOnly),
      m_requestMemory(memory.oneRequest),
      m_memory(memory.allRequests, "all requests together (--memory)") {}

AgentApplication::~AgentApplication() = default;

QORMemoryAccountPtr AgentApplication::newAccount() {
    return std::make_shared<QORMemoryAccount>(m_memory, m_requestMemory, "one request (--request-memory)");
}

HttpIdentity AgentApplication::identify(const HttpPeer& peer) {
    const bool root = peer.credentials && (peer.credentials->uid == 0 || peer.credentials->uid == ::geteuid());
    return {HttpApplication::identify(peer).key, root};
}

HttpPlan AgentApplication::plan(const HttpRequest& head, const HttpPeer& peer) {
    const Route* const route = find(head.path);
    HttpPlan plan;
    bool fullAccess = false;
    if (route == nullptr || route->access != Access::Everybody) {
        AgentAccess::Decision decision = m_access.decide(head, peer);
        if (!decision.requester) {
            plan.reply = notLetIn(decision.status, decision.message);
            plan.delay = decision.delay;
            logReply(head, *plan.reply);
            return plan;
        }
        fullAccess = decision.requester->fullAccess;
        plan.requester = std::move(decision.requester);
    }
    plan.reply = refusal(route, head, fullAccess);
    if (!plan.reply && route->answer == nullptr) plan.reply = (this->*route->now)(fullAccess);
    if (plan.reply) {
        logReply(head, *plan.reply);
    } else {
        plan.lane = route->lane;
    }
    return plan;
}

std::unique_ptr<HttpClientHandler> AgentApplication::connect(const HttpPeer&) {
    return std::make_unique<AgentClient>(*this, m_host);
}

std::string AgentApplication::errorBody(unsigned status, std::string_view message) {
    return errorReply(status, message).body;
}

const char* AgentApplication::condition() const {
    if (!allFaults().empty()) return "failing";
    return m_host.refusedPlugIns().empty() && m_host.router().isPrimed() ? "ok" : "degraded";
}

HttpReply AgentApplication::live(bool) const {
    return {ok, R"({"status":"live"})"};
}

HttpReply AgentApplication::ready(bool) const {
    const std::string_view now = condition();
    return {now == "ok" ? ok : unavailable, R"({"status":")" + std::string(now) + R"("})"};
}

HttpReply AgentApplication::health(bool fullAccess) const {
    const auto uptime = std::chrono::steady_clock::now() - m_start;
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeKey(json, "status");
    writeText(json, condition());
    writeKey(json, "version");
    writeText(json, QOR_VERSION);
    writeKey(json, "uptime");
    json.Int64(std::chrono::duration_cast<std::chrono::seconds>(uptime).count());
    writeMember(json, "access", fullAccess ? "full" : "none");
    writeKey(json, "connections");
    json.Uint64(m_connections());
    writeKey(json, "operators");
    json.StartArray();
    for (const std::string& name : QOROpFactoryRegistry::instance().names())
        writeText(json, name);
    json.EndArray();
    writeKey(json, "plugins");
    json.StartArray();
    for (const auto& plugIn : m_host.plugIns().plugIns())
        writeText(json, plugIn.file.filename().string());
    json.EndArray();
    writeKey(json, "refused");
    json.StartArray();
    for (const auto& refusal : m_host.refusedPlugIns())
        writeText(json, refusal.reason);
    json.EndArray();
    writeKey(json, "faults");
    json.StartArray();
    for (const ASFaults::State& fault : allFaults())
        writeFault(json, fault);
    json.EndArray();
    json.EndObject();
    return {ok, {buffer.GetString(), buffer.GetSize()}};
}

}  // namespace QOR
