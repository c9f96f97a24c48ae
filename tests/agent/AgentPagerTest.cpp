// The daemon with the pager plug-in: rows of its own database, of other people's, and who sees which.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "QORMessage/QORNotation.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/AgentProcess.h"
#include "support/DirectDatabase.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

using test::AgentProcess;
using test::AgentSettings;
using test::HttpClient;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr const char* one = "11111111-1111-1111-1111-111111111111";
constexpr const char* two = "22222222-2222-2222-2222-222222222222";

std::string environment(const char* eid, const char* title) {
    return std::string(R"({"kind":"environment","eid":")") + eid + R"(","title":")" + title + "\"}\n";
}

std::string titles(const std::string& client = {}) {
    return R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEnvironment"],[1741,"title"]]])" +
           (client.empty() ? "" : ",\"client\":" + client) + "}";
}

std::string limitedTo(const char* eid) {
    return std::string(R"({"fullAccess":false,"sids":[{"principalId":0,"principalType":1,"eid":")") + eid + "\"}]}";
}

constexpr const char* both =
    R"({"response":[[1744,[[1026,"title"],[1739,[[1018,"first"]]],[1739,[[1018,"second"]]]]]]})";
constexpr const char* second = R"({"response":[[1744,[[1026,"title"],[1739,[[1018,"second"]]]]]]})";
constexpr const char* none = R"({"response":[[1744,[[1026,"title"]]]]})";

TEST(AgentPager, RowSecurityHoldsWhoeverAsksFirst) {
    for (const bool fullAccessFirst : {true, false}) {
        const AgentProcess agent;
        HttpClient client(agent.socketPath());
        client.post("/v1/records", environment(one, "first") + environment(two, "second"));
        if (fullAccessFirst) {
            EXPECT_EQ(client.message(titles()), both);
        }
        EXPECT_EQ(client.message(titles(limitedTo(two))), second) << fullAccessFirst;
        EXPECT_EQ(client.message(titles(R"({"fullAccess":false})")), none) << fullAccessFirst;
        EXPECT_EQ(client.message(titles()), both);
    }
}

TEST(AgentPager, ServesBothOperators) {
    const AgentProcess agent;
    HttpClient client(agent.socketPath());
    EXPECT_THAT(client.get("/v1/health").body,
                AllOf(HasSubstr(R"("status":"ok")"), HasSubstr(R"("operators":["pager2","pager"])"),
                      HasSubstr(R"("plugins":["libQORPager.so"])")));
}

class ForeignDatabase : public testing::Test {
protected:
    void SetUp() override {
        direct().run("create table person (name " + text +
                     "(64), age int); insert into person values ('Ada', 36); "
                     "create view \"vPerson\" as select name, age from person");
    }
    test::DirectDatabase direct() const { return test::DirectDatabase(database); }
    /// What there is in it.
    std::string contents() const {
        return direct().cell(test::oneOf("select group_concat(name || coalesce(sql, '')) from sqlite_master",
                                         "select string_agg(relname, ' ' order by relname) from pg_class"));
    }

    const std::string text = test::oneOf("nvarchar", "varchar");
    test::TestDatabase database;
};

TEST_F(ForeignDatabase, IsReadWithoutBeingWrittenTo) {
    const std::string before = contents();
    AgentSettings settings;
    settings.database = database.connectionString();
    settings.more = {"--read-only"};
    const AgentProcess agent(settings);
    HttpClient client(agent.socketPath());
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(client.message(
                      R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vPerson"],[1741,"name"]]]})"),
                  R"({"response":[[1744,[[1026,"name"],[1739,[[1018,"Ada"]]]]]]})");
    }
    EXPECT_THAT(client.get("/v1/views").body, HasSubstr(R"({"name":"vPerson","columns":[{"name":"name",)"));
    EXPECT_THAT(client.get("/v1/health").body, HasSubstr(R"("status":"ok")"));
    EXPECT_EQ(contents(), before);
}

TEST_F(ForeignDatabase, IsPrimedWhateverItsViewsAre) {
    direct().run("create table secret (name " + text + "(64), owner " + test::oneOf("uniqueidentifier", "uuid") +
                 "); insert into secret values ('Ada', '" + one + "'), ('Bob', '" + two +
                 "'); create view \"vEnvironment\" as select name, 0 as \"securityOperation_2\", owner as "
                 "\"securableObjId\" from secret");
    AgentSettings settings;
    settings.database = database.connectionString();
    settings.more = {"--read-only"};
    const AgentProcess agent(settings);
    HttpClient client(agent.socketPath());
    EXPECT_THAT(client.get("/v1/health").body, HasSubstr(R"("status":"ok")"));
    const std::string names =
        R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEnvironment"],[1741,"name"]]])";
    EXPECT_EQ(client.message(names + "}"),
              R"({"response":[[1744,[[1026,"name"],[1739,[[1018,"Ada"]]],[1739,[[1018,"Bob"]]]]]]})");
    EXPECT_EQ(client.message(names + ",\"client\":" + limitedTo(two) + "}"),
              R"({"response":[[1744,[[1026,"name"],[1739,[[1018,"Bob"]]]]]]})");
    EXPECT_THAT(agent.log(), Not(HasSubstr("cannot be primed")));
}

TEST_F(ForeignDatabase, IsNotTakenForTheAgentsOwn) {
    AgentSettings settings;
    settings.database = database.connectionString();
    try {
        const AgentProcess agent(settings);
        FAIL() << "started";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), AllOf(HasSubstr(test::oneOf("agent.db", "test_")), HasSubstr("--read-only")));
    }
}

}  // namespace
}  // namespace QOR
