// The description of the agent's routes, and whether they are as it says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "support/AgentProcess.h"
#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR {
namespace {

using test::HttpAnswer;
using test::HttpClient;
using test::jsonAt;

class AgentOpenApi : public testing::Test {
protected:
    static void SetUpTestSuite() {
        agent = new test::AgentProcess;
        text = new std::string(HttpClient(agent->socketPath()).get("/v1/openapi.json").body);
    }
    static void TearDownTestSuite() {
        delete agent;
        delete text;
    }

    /// A path with something in the places of its names.
    static std::string targetOf(std::string path) {
        const std::size_t open = path.find('{');
        if (open != std::string::npos) path.replace(open, path.find('}') - open + 1, "vOpLog");
        return path;
    }
    static std::string upper(std::string word) {
        for (char& c : word)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        return word;
    }

    /// Where npm has put what the tests take of it; empty where it could not.
    static std::string modules() {
        const char* const folder = std::getenv("QOR_TEST_NODE_MODULES");
        return folder == nullptr ? "" : folder;
    }

    static inline test::AgentProcess* agent = nullptr;
    static inline std::string* text = nullptr;
};

TEST_F(AgentOpenApi, IsOneThatAValidatorAccepts) {
    if (modules().empty()) GTEST_SKIP() << "npm has not brought what this needs; ./test asks it to";
    const std::filesystem::path file = agent->directory() / "openapi.json";
    std::ofstream(file) << *text;
    test::ChildProcess validator({"/usr/bin/env", "node", modules() + "/.bin/validate-api", file.string()});
    const int status = validator.wait();
    EXPECT_EQ(status, 0) << validator.output();
}

TEST_F(AgentOpenApi, AClientThatAGeneratorMadeOfItAsksPagesAndFollowsALog) {
    if (modules().empty()) GTEST_SKIP() << "npm has not brought what this needs; ./test asks it to";
    const test::AgentProcess own({.more = {"--listen", "http://127.0.0.1:0"}});
    HttpClient root(own.socketPath());
    std::string records;
    for (const char* id : {"a", "b", "c"})
        records += std::string(R"({"kind":"operation","id":")") + id +
                   R"(","status":1,"time":1,"eid":"11111111-1111-1111-1111-111111111111"})" + "\n";
    ASSERT_EQ(root.post("/v1/records", records).status, 200);
    ASSERT_EQ(root.post("/v1/identities/add", R"({"name":"made","kind":"token","access":"full"})").status, 200);
    const std::string created = root.post("/v1/tokens/create", R"({"name":"made"})").body;
    const std::string token = created.substr(created.find("qor_"), 68);
    const std::string said = own.output();
    const std::size_t at = said.find("http://127.0.0.1:");
    const std::string address = said.substr(at, said.find_first_not_of("0123456789", at + 17) - at);

    const std::string folder = (own.directory() / "client").string();
    const std::string file = (own.directory() / "openapi.json").string();
    std::ofstream(file) << *text;
    test::ChildProcess generator({"/usr/bin/env", "node", modules() + "/.bin/openapi-ts", "-i", file, "-o", folder,
                                  "-c", "@hey-api/client-fetch", "--no-log-file"});
    ASSERT_EQ(generator.wait(), 0) << generator.output();
    test::ChildProcess use(
        {"/usr/bin/env", "node", QOR_PROJECT_DIR "/tests/agent/generated/use.cjs", modules(), folder, address, token});
    EXPECT_EQ(use.wait(), 0) << use.output();
    EXPECT_THAT(use.output(), testing::HasSubstr("first [[\"a\",1],[\"b\",1]] 3\n"
                                                 "second [[\"c\",1]] null\n"
                                                 "wrong 400 bad_condition status\n"
                                                 "followed {\"id\":\"a\",\"status\":1} {\"id\":\"b\",\"status\":1} "
                                                 "{\"id\":\"c\",\"status\":1} live {\"id\":\"later\",\"status\":7}\n"));
}

TEST_F(AgentOpenApi, EveryPathIsThereAndHasTheMethodsThatItSays) {
    const rapidjson::Document document = test::readJson(*text);
    HttpClient client(agent->socketPath());
    for (const auto* const path : test::membersOf(document["paths"])) {
        std::set<std::string> methods;
        for (const auto* const operation : test::membersOf(path->value))
            methods.insert(upper(operation->name.GetString()));
        const HttpAnswer answer = client.request("TRACE", targetOf(path->name.GetString()));
        EXPECT_EQ(answer.status, 405) << path->name.GetString();
        for (const std::string& method : methods)
            EXPECT_THAT(answer.headers.at("allow"), testing::HasSubstr(method)) << path->name.GetString();
    }
}

TEST_F(AgentOpenApi, EveryParameterIsTakenAndNoOther) {
    const rapidjson::Document document = test::readJson(*text);
    for (const auto* const path : test::membersOf(document["paths"])) {
        for (const auto* const operation : test::membersOf(path->value)) {
            const std::string method = upper(operation->name.GetString());
            const std::string target = targetOf(path->name.GetString());
            const auto refused = [&](const std::string& query) {
                const HttpAnswer answer = HttpClient(agent->socketPath()).request(method, target + query);
                return answer.status == 400 && answer.body.find("unknown parameter") != std::string::npos;
            };
            EXPECT_TRUE(refused("?no-such-parameter=1")) << method << target;
            for (const auto& parameter : operation->value["parameters"].GetArray()) {
                if (parameter["in"] != "query") continue;
                const std::string name = parameter["name"].GetString();
                EXPECT_FALSE(refused("?" + name + "=%20")) << method << target << name;
            }
        }
    }
}

TEST_F(AgentOpenApi, WhatRoutesAnswerIsWhatItSays) {
    const rapidjson::Document document = test::readJson(*text);
    const std::set<std::string> changing{"/v1/collect", "/v1/check", "/v1/prune"};
    for (const auto* const path : test::membersOf(document["paths"])) {
        if (changing.count(path->name.GetString()) != 0) continue;
        for (const auto* const operation : test::membersOf(path->value)) {
            const std::string method = upper(operation->name.GetString());
            const std::string target = targetOf(path->name.GetString());
            const auto& responses = operation->value["responses"];
            const bool goesOn = jsonAt(responses, "200/content").find("text/event-stream") != std::string::npos;
            for (const char* query : {"", "?no-such-parameter=1"}) {
                // What never ends is looked at by its head.
                const HttpAnswer answer =
                    HttpClient(agent->socketPath()).request(goesOn ? "HEAD" : method, target + query);
                const std::string status = std::to_string(answer.status);
                ASSERT_TRUE(responses.HasMember(status.c_str())) << method << target << query << ' ' << answer.body;
                const std::string type = answer.headers.at("content-type");
                if (target == "/v1/messages" && answer.status == 400) continue;  // in notation, whatever is wrong
                EXPECT_TRUE(responses[status.c_str()]["content"].HasMember(type.c_str())) << method << target << type;
            }
        }
    }
}

TEST_F(AgentOpenApi, EveryFormOfRowsIsDescribed) {
    const rapidjson::Document document = test::readJson(*text);
    const auto& content = document["paths"]["/v1/views/{view}/rows"]["get"]["responses"]["200"]["content"];
    for (const char* format : {"json", "ndjson", "csv", "xml", "notation"}) {
        const HttpAnswer answer =
            HttpClient(agent->socketPath()).get(std::string("/v1/views/vOpLog/rows?limit=1&format=") + format);
        EXPECT_EQ(answer.status, 200) << answer.body;
        EXPECT_TRUE(content.HasMember(answer.headers.at("content-type").c_str())) << format;
    }
}

}  // namespace
}  // namespace QOR
