// Operations, events and backups in one order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"
#include "support/Json.h"

namespace QOR::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* ownEid = "11111111-1111-1111-1111-111111111111";
constexpr const char* foreignEid = "33333333-3333-3333-3333-333333333333";

class AgentTimeline : public testing::Test {
protected:
    void store(const std::string& lines) {
        const HttpAnswer answer = root.post("/v1/records", lines);
        ASSERT_EQ(answer.status, 200) << answer.body;
    }
    std::string get(const std::string& query, const std::string& fields = {}) {
        return root.request("GET", "/v1/timeline" + query, {}, fields).body;
    }
    /// A column of all rows.
    static std::vector<std::string> column(const std::string& body, int place) {
        std::vector<std::string> values;
        for (int row = 0; !jsonAt(body, "rows/" + std::to_string(row)).empty(); ++row)
            values.push_back(jsonAt(body, "rows/" + std::to_string(row) + "/" + std::to_string(place)));
        return values;
    }

    AgentProcess agent;
    HttpClient root{agent.socketPath()};
};

TEST_F(AgentTimeline, HasASentenceOfEachAndTheNameOfItsEnvironment) {
    store(R"({"kind":"environment","eid":")" + std::string(ownEid) +
          R"(","title":"web 1"})"
          "\n"
          R"({"kind":"operation","id":"op","op":"install","time":30,"eid":")" +
          ownEid +
          R"(","message":{"package":{"name":"curl","version":"7.88"}}})"
          "\n"
          R"({"kind":"operation","id":"bad","op":"remove","status":3,"time":40})"
          "\n"
          R"({"kind":"event","time":20,"source":"kernel","category":"boot","eid":")" +
          foreignEid +
          "\"}\n"
          R"({"kind":"backup","id":"k","time":10,"size":5,"name":"full"})"
          "\n");
    // Servers number records of all kinds together.
    const std::string event = jsonAt(root.get("/v1/views/vEventLog/rows?fields=id").body, "rows/0/0");
    const std::string body = get("");
    EXPECT_EQ(jsonAt(body, "columns/0"), R"({"name":"time","type":"time"})");
    EXPECT_EQ(jsonAt(body, "rows/0"),
              R"(["1970-01-01T00:00:40Z","operations",null,null,"bad","remove ended with status 3"])");
    EXPECT_EQ(jsonAt(body, "rows/1"), R"(["1970-01-01T00:00:30Z","operations",")" + std::string(ownEid) +
                                          R"(","web 1","op","install of curl 7.88 succeeded"])");
    EXPECT_EQ(jsonAt(body, "rows/2"), R"(["1970-01-01T00:00:20Z","events",")" + std::string(foreignEid) +
                                          R"(",null,")" + event + R"(","event boot from kernel"])");
    EXPECT_EQ(jsonAt(body, "rows/3"),
              R"(["1970-01-01T00:00:10Z","backups",null,null,"k","backup \"full\" of 5 bytes"])");
    EXPECT_EQ(jsonAt(body, "page"), R"({"returned":4,"next":null})");
}

TEST_F(AgentTimeline, PagesNeitherSkipNorRepeatRecordsOfOneTime) {
    std::string lines;
    for (int i = 0; i < 60; ++i) {
        const std::string time = R"(,"time":)" + std::to_string(i / 20) + "}\n";
        lines += R"({"kind":"operation","id":"o)" + std::to_string(i) + "\"" + time + R"({"kind":"event")" + time +
                 R"({"kind":"backup","id":"k)" + std::to_string(i) + "\"" + time;
    }
    store(lines);
    const std::string whole = get("?limit=1000");
    ASSERT_EQ(column(whole, 4).size(), 180U);
    for (const int limit : {1, 7, 50}) {
        std::vector<std::string> ids;
        std::string after;
        do {
            const std::string body = get("?limit=" + std::to_string(limit) + after);
            for (const std::string& id : column(body, 4))
                ids.push_back(id);
            const std::string next = jsonAt(body, "page/next");
            after = next == "null" ? "" : "&after=" + next.substr(1, next.size() - 2);
        } while (!after.empty() && ids.size() < 1000);
        EXPECT_EQ(ids, column(whole, 4)) << limit;
    }
}

TEST_F(AgentTimeline, IsOfATimeAndAnEnvironment) {
    std::string lines;
    for (int i = 0; i < 10; ++i)
        lines += R"({"kind":"event","time":)" + std::to_string(i) + R"(,"eid":")" + (i % 2 == 0 ? ownEid : foreignEid) +
                 "\"}\n";
    store(lines);
    EXPECT_EQ(column(get("?from=1970-01-01T00:00:03Z&to=1970-01-01T00:00:06Z"), 4).size(), 4U);
    EXPECT_EQ(column(get("?env=" + std::string(ownEid)), 4).size(), 5U);
    EXPECT_EQ(column(get("?from=-1d"), 4).size(), 0U);
    EXPECT_EQ(jsonAt(get("?from=soon"), "parameter"), "\"from\"");
    EXPECT_EQ(jsonAt(get("?env=me"), "parameter"), "\"env\"");
    EXPECT_EQ(jsonAt(get("?limit=0"), "parameter"), "\"limit\"");
    const std::string next = jsonAt(get("?limit=1"), "page/next");
    EXPECT_EQ(jsonAt(get("?env=" + std::string(ownEid) + "&after=" + next.substr(1, next.size() - 2)), "parameter"),
              "\"after\"");
    EXPECT_THAT(root.request("GET", "/v1/timeline?limit=1&format=csv").body,
                HasSubstr("time,source,env,environment,id,text\r\n"));
}

TEST_F(AgentTimeline, RestrictedClientsSeeTheirOwn) {
    store(R"({"kind":"environment","eid":")" + std::string(ownEid) +
          "\"}\n"
          R"({"kind":"event","time":1,"eid":")" +
          ownEid +
          "\"}\n"
          R"({"kind":"event","time":2,"eid":")" +
          foreignEid +
          "\"}\n"
          R"({"kind":"event","time":3})"
          "\n");
    EXPECT_EQ(root.post("/v1/identities/add",
                        R"({"name":"reader","kind":"token","access":"environments","environments":[{"eid":")" +
                            std::string(ownEid) + R"(","below":false}]})")
                  .status,
              200);
    EXPECT_THAT(column(get("", "X-Qor-As: reader\r\n"), 0), ElementsAre("\"1970-01-01T00:00:01Z\""));
    EXPECT_EQ(column(get(""), 4).size(), 3U);
}

}  // namespace
}  // namespace QOR::test
