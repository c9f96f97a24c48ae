#include "agent/api/AgentOpenApi.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "QORQuery/QORColumnKind.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentRoutes.h"
#include "agent/api/AgentRowsWriter.h"

namespace QOR {
namespace {

void writeBool(JsonWriter& json, std::string_view key, bool value) {
    writeKey(json, key);
    json.Bool(value);
}

template <class Members>
void writeObject(JsonWriter& json, std::string_view key, Members members) {
    writeKey(json, key);
    json.StartObject();
    members();
    json.EndObject();
}

template <class Items>
void writeArray(JsonWriter& json, std::string_view key, Items items) {
    writeKey(json, key);
    json.StartArray();
    items();
    json.EndArray();
}

void writeReference(JsonWriter& json, std::string_view key, std::string_view schema) {
    writeObject(json, key, [&] { writeMember(json, "$ref", "#/components/schemas/" + std::string(schema)); });
}

std::string lowered(std::string_view method) {
    std::string text(method);
    for (char& c : text)
        c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return text;
}

/// "getV1ViewsViewRows"
std::string operationName(const AgentRoute& route) {
    std::string name = lowered(route.method);
    bool upper = true;
    for (const char c : route.path) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (isLetter) name += static_cast<char>(upper && c >= 'a' ? c - 'a' + 'A' : c);
        upper = !isLetter;
    }
    return name;
}

std::vector<std::string_view> namesIn(std::string_view path) {
    std::vector<std::string_view> names;
    for (std::size_t open = path.find('{'); open != std::string_view::npos; open = path.find('{', open + 1))
        names.push_back(path.substr(open + 1, path.find('}', open) - open - 1));
    return names;
}

void writeSchemaOf(JsonWriter& json, const AgentParameter& parameter) {
    using Kind = AgentParameter::Kind;
    switch (parameter.kind) {
        case Kind::Number:
            writeMember(json, "type", "integer");
            writeKey(json, "minimum");
            json.Uint64(parameter.range.least);
            writeKey(json, "maximum");
            json.Uint64(parameter.range.most);
            if (!parameter.fallback.empty()) {
                writeKey(json, "default");
                json.RawValue(parameter.fallback.data(), parameter.fallback.size(), rapidjson::kNumberType);
            }
            return;
        case Kind::Flag:
            writeMember(json, "type", "boolean");
            writeBool(json, "default", parameter.fallback == "true");
            return;
        case Kind::Choice:
            writeMember(json, "type", "string");
            writeArray(json, "enum", [&] {
                for (const std::string_view choice : parameter.choices)
                    writeText(json, choice);
            });
            break;
        case Kind::List:
            writeMember(json, "type", "array");
            writeObject(json, "items", [&] { writeMember(json, "type", "string"); });
            return;
        case Kind::Text:
            writeMember(json, "type", "string");
            break;
    }
    if (!parameter.fallback.empty()) writeMember(json, "default", parameter.fallback);
}

void writeParameters(JsonWriter& json, const AgentRoute& route) {
    writeArray(json, "parameters", [&] {
        for (const std::string_view name : namesIn(route.path)) {
            json.StartObject();
            writeMember(json, "name", name);
            writeMember(json, "in", "path");
            writeBool(json, "required", true);
            writeObject(json, "schema", [&] { writeMember(json, "type", "string"); });
            json.EndObject();
        }
        for (const AgentParameter& parameter : route.parameters) {
            json.StartObject();
            writeMember(json, "name", parameter.name);
            writeMember(json, "in", "query");
            writeMember(json, "description", parameter.meaning);
            writeBool(json, "required", parameter.required);
            if (parameter.kind == AgentParameter::Kind::List) {
                writeMember(json, "style", "form");
                writeBool(json, "explode", false);
            }
            writeObject(json, "schema", [&] { writeSchemaOf(json, parameter); });
            json.EndObject();
        }
    });
}

void writeBody(JsonWriter& json, const AgentRoute& route) {
    if (route.body.empty()) return;
    writeObject(json, "requestBody", [&] {
        writeBool(json, "required", true);
        writeObject(json, "content", [&] {
            writeObject(json, route.body.front(), [&] {
                writeObject(json, "schema", [&] {
                    if (route.members.empty()) return;
                    writeMember(json, "type", "object");
                    writeObject(json, "properties", [&] {
                        for (const AgentParameter& member : route.members) {
                            writeObject(json, member.name, [&] {
                                writeSchemaOf(json, member);
                                writeMember(json, "description", member.meaning);
                            });
                        }
                    });
                    writeBool(json, "additionalProperties", false);
                });
            });
        });
    });
}

void writeContent(JsonWriter& json, const AgentRoute& route) {
    const bool rows = route.types.data() == agentFormatTypes.data();
    writeObject(json, "content", [&] {
        for (const std::string_view type : route.types) {
            writeObject(json, type, [&] {
                if (rows && type == "application/json") {
                    writeReference(json, "schema", "Rows");
                } else {
                    writeObject(json, "schema",
                                [&] { writeMember(json, "type", type == "application/json" ? "object" : "string"); });
                }
            });
        }
    });
}

/// Statuses that a route may answer beside 200, with what they mean there.
std::map<unsigned, std::string_view> problemsOf(const AgentRoute& route) {
    std::map<unsigned, std::string_view> problems{{400, "The request is not well formed"},
                                                  {406, "There is no such form of the answer"},
                                                  {500, "Something failed"},
                                                  {503, "There is no room or no time for it now"}};
    if (route.reach != AgentReach::Everybody) problems[401] = "Nobody knows who asks";
    if (route.reach != AgentReach::Everybody) problems[403] = "Who asks may not";
    if (route.path.find('{') != std::string_view::npos || route.path.starts_with("/v1/tokens/") ||
        route.path == "/v1/query" || route.path == "/v1/explain" || route.path == "/v1/identities/remove" ||
        (route.path == "/v1/session" && route.method != "POST"))
        problems[404] = "There is nothing of that name";
    if (!route.body.empty()) {
        problems[413] = "The body is too large";
        problems[415] = "The body is of another type";
        problems[409] = "It contradicts what is there";
    }
    problems[422] = "It is well formed and cannot be done";
    problems[429] = "There are too many requests of this client";
    return problems;
}

void writeResponses(JsonWriter& json, const AgentRoute& route) {
    writeObject(json, "responses", [&] {
        writeObject(json, "200", [&] {
            writeMember(json, "description", route.summary);
            writeContent(json, route);
        });
        for (const auto& [status, meaning] : problemsOf(route)) {
            writeObject(json, std::to_string(status), [&, meaning = meaning] {
                writeMember(json, "description", meaning);
                writeObject(json, "content", [&] {
                    writeObject(json, "application/problem+json", [&] { writeReference(json, "schema", "Problem"); });
                });
            });
        }
    });
}

void writeOperation(JsonWriter& json, const AgentRoute& route) {
    writeObject(json, lowered(route.method), [&] {
        writeMember(json, "operationId", operationName(route));
        writeMember(json, "summary", route.summary);
        writeParameters(json, route);
        writeBody(json, route);
        writeResponses(json, route);
        if (route.reach == AgentReach::Everybody) writeArray(json, "security", [] {});
    });
}

/// One path has all of its methods in one place.
void writePaths(JsonWriter& json) {
    std::map<std::string_view, std::vector<const AgentRoute*>> paths;
    for (const AgentRoute& route : agentRoutes())
        paths[route.path].push_back(&route);
    writeObject(json, "paths", [&] {
        for (const auto& [path, routes] : paths) {
            writeObject(json, path, [&, &methods = routes] {
                for (const AgentRoute* route : methods)
                    writeOperation(json, *route);
            });
        }
    });
}

constexpr std::string_view problemSchema =
    R"({"type":"object","required":["title","status","detail","code"],"properties":{"title":{"type":"string"},)"
    R"("status":{"type":"integer"},"detail":{"type":"string"},"code":{"type":"string"},"parameter":{"type":"string"},)"
    R"("position":{"type":"integer"},"found":{"type":"string"},"expected":{"type":"string"},)"
    R"("suggestion":{"type":"string"}}})";
constexpr std::string_view pageSchema =
    R"({"type":"object","required":["returned"],"properties":{"returned":{"type":"integer"},)"
    R"("total":{"type":"integer"},"exactness":{"type":"string","enum":["exact","at_least","between"]},)"
    R"("most":{"type":"integer"},"spent":{"type":"integer"},"next":{"type":["string","null"]},)"
    R"("changed":{"type":"boolean"}}})";

void writeRaw(JsonWriter& json, std::string_view key, std::string_view object) {
    writeKey(json, key);
    json.RawValue(object.data(), object.size(), rapidjson::kObjectType);
}

void writeComponents(JsonWriter& json) {
    writeObject(json, "components", [&] {
        writeObject(json, "schemas", [&] {
            writeRaw(json, "Problem", problemSchema);
            writeRaw(json, "Page", pageSchema);
            writeObject(json, "Rows", [&] {
                writeMember(json, "type", "object");
                writeObject(json, "properties", [&] {
                    writeObject(json, "columns", [&] {
                        writeMember(json, "type", "array");
                        writeReference(json, "items", "Column");
                    });
                    writeRaw(json, "rows", R"({"type":"array","items":{"type":"array","items":{}}})");
                    writeReference(json, "page", "Page");
                });
            });
            writeObject(json, "Column", [&] {
                writeMember(json, "type", "object");
                writeObject(json, "properties", [&] {
                    writeRaw(json, "name", R"({"type":"string"})");
                    writeObject(json, "type", [&] {
                        writeMember(json, "type", "string");
                        writeArray(json, "enum", [&] {
                            for (int kind = 0; kind <= static_cast<int>(QORColumnKind::Bytes); ++kind)
                                writeText(json, wordOf(static_cast<QORColumnKind>(kind)));
                        });
                    });
                });
            });
        });
        writeRaw(json, "securitySchemes", R"({"token":{"type":"http","scheme":"bearer"}})");
    });
}

}  // namespace

HttpReply answerOpenApi(AgentCall&) {
    HttpReply reply;
    reply.revalidated = true;
    reply.body = writtenObject([](JsonWriter& json) {
        writeMember(json, "openapi", "3.1.0");
        writeObject(json, "info", [&] {
            writeMember(json, "title", "qor-agent");
            writeMember(json, "version", QOR_VERSION);
        });
        // Over a unix socket the system says who asks, so that a token is not always needed.
        writeKey(json, "security");
        constexpr std::string_view security = R"([{"token":[]},{}])";
        json.RawValue(security.data(), security.size(), rapidjson::kArrayType);
        writePaths(json);
        writeComponents(json);
    });
    return reply;
}

}  // namespace QOR
