// Identities that may store records, about environments of theirs and no others.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "agent/RecordLines.h"
#include "ctl/CtlProcess.h"
#include "support/AgentProcess.h"
#include "support/HttpClient.h"

namespace QOR::test {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// own has below, below has lowest; listed is alone, foreign has others.
constexpr const char* own = "11111111-0000-4000-8000-000000000000";
constexpr const char* below = "22222222-0000-4000-8000-000000000000";
constexpr const char* lowest = "33333333-0000-4000-8000-000000000000";
constexpr const char* listed = "44444444-0000-4000-8000-000000000000";
constexpr const char* foreign = "55555555-0000-4000-8000-000000000000";
constexpr const char* fresh = "66666666-0000-4000-8000-000000000000";
constexpr const char* awaited = "77777777-0000-4000-8000-000000000000";
constexpr const char* seen = "88888888-0000-4000-8000-000000000000";

std::string eventOf(const std::string& eid) {
    return R"({"kind":"event","time":1)" + (eid.empty() ? std::string() : R"(,"eid":")" + eid + '"') + "}\n";
}
std::string operation(const std::string& id, const std::string& eid, const std::string& touched = {}) {
    return R"({"kind":"operation","id":")" + id + R"(","time":1,"eid":")" + eid + R"(","eids":[)" +
           (touched.empty() ? "" : '"' + touched + '"') + "]}\n";
}
std::string backup(const std::string& id, const std::string& eid, const std::string& storage = {}) {
    return R"({"kind":"backup","id":")" + id + R"(","time":1,"eid":")" + eid + '"' +
           (storage.empty() ? "" : R"(,"storage_eid":")" + storage + '"') + "}\n";
}

class AgentWritersTest : public testing::Test {
protected:
    AgentWritersTest() {
        const HttpAnswer stored =
            root.post("/v1/records", environment(own) + environment(below, own) + environment(lowest, below) +
                                         environment(listed, foreign) + environment(foreign) + environment(seen) +
                                         operation("theirs", foreign) + operation("touching", own, foreign) +
                                         backup("theirs", foreign) + eventOf(awaited));
        EXPECT_THAT(stored.body, HasSubstr(R"("accepted":10,)"));
        ctl({"identity", "add", "writer", "--kind", "token", "--below", own, "-e", listed, "--write"});
        token = newToken("writer");
    }
    std::string ctl(Words words) const {
        words.insert(words.begin(), (programDirectory() / "qorctl").string());
        words.insert(words.end(), {"--socket", agent.socketPath()});
        const CtlResult result = CtlProcess(words).finish();
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }
    std::string newToken(const std::string& name) const {
        const std::string line = ctl({"token", "create", name});
        return line.substr(0, line.find('\n'));
    }
    HttpAnswer send(const std::string& records, const std::string& more = {}, const std::string& as = {}) const {
        HttpClient client(agent.socketPath());
        return client.request("POST", "/v1/records", records,
                              "Authorization: Bearer " + (as.empty() ? token : as) + "\r\n" + more);
    }
    void expectTaken(const std::string& records, int count) const {
        const HttpAnswer answer = send(records);
        EXPECT_EQ(answer.status, 200) << records;
        EXPECT_THAT(answer.body, HasSubstr("\"accepted\":" + std::to_string(count) + ",")) << records;
    }
    /// \param about what the refusal names
    void expectRefused(const std::string& records, const std::string& about) const {
        const std::string before = everything();
        const HttpAnswer answer = send(records);
        EXPECT_EQ(answer.status, 403) << records << answer.body;
        EXPECT_THAT(answer.body,
                    AllOf(HasSubstr("\"code\":\"forbidden\""), HasSubstr(about), HasSubstr("nothing is stored")));
        EXPECT_EQ(everything(), before) << records;
    }
    std::string everything() const {
        std::string all;
        for (const char* target :
             {"/v1/views/vEnvironment/rows?fields=eid,parent_eid", "/v1/views/vOpLog/rows?fields=id,eid",
              "/v1/views/vEventLog/rows?fields=id,eid", "/v1/views/vBackupInfo/rows?fields=id,eid"})
            all += HttpClient(agent.socketPath()).get(target).body + "\n";
        return all;
    }

    AgentProcess agent;
    HttpClient root{agent.socketPath()};
    std::string token;
};

TEST_F(AgentWritersTest, RecordsAboutOnesOwnEnvironmentsAreTaken) {
    expectTaken(eventOf(own) + eventOf(lowest) + eventOf(listed), 3);
    expectTaken(operation("mine", below, lowest) + backup("mine", listed, foreign), 2);
    expectTaken(operation("mine", own) + backup("mine", own), 2);
    EXPECT_THAT(ctl({"identity", "show", "writer"}), HasSubstr(std::string(own) + " and below (writes)"));
}

TEST_F(AgentWritersTest, ARequestWithARecordAboutAnotherEnvironmentStoresNothing) {
    expectRefused(eventOf(own) + eventOf(foreign),
                  "line 2: the event is about the environment " + std::string(foreign));
    expectRefused(eventOf(own) + "no record\n" + operation("o", own, foreign),
                  "line 3: the operation \\\"o\\\" is about");
    expectRefused(operation("o", foreign, own), "line 1: the operation");
    expectRefused(backup("b", foreign), "line 1: the backup");
    expectRefused(eventOf({}), "is about no environment");
    expectRefused(eventOf(seen), "line 1: the event");
    std::string many;
    for (int line = 0; line < 2500; ++line)
        many += eventOf(own);
    expectRefused(many + eventOf(foreign), "line 2501: the event");
}

TEST_F(AgentWritersTest, ARecordOfAnotherEnvironmentIsNotReplaced) {
    expectRefused(operation("theirs", own), "takes the place of one");
    expectRefused(backup("theirs", own), "takes the place of one");
    expectRefused(operation("touching", own), "takes the place of one");
    expectTaken(operation("twice", own) + operation("twice", below), 2);
}

TEST_F(AgentWritersTest, EnvironmentsAreReplacedAndAddedBelowOnesOwn) {
    expectTaken(environment(own), 1);
    expectTaken(environment(lowest, below) + environment(listed, foreign), 2);
    expectTaken(environment(fresh, lowest) + eventOf(fresh) + operation("new", fresh), 3);
    expectTaken(environment(fresh, own), 1);
    EXPECT_THAT(everything(), HasSubstr("[\"" + std::string(fresh) + "\",\"" + own + "\"]"));
}

TEST_F(AgentWritersTest, EnvironmentsOfOthersAreNeitherReplacedNorTakenOver) {
    expectRefused(environment(foreign), "line 1: the environment " + std::string(foreign) + " is not among");
    expectRefused(environment(foreign, own), "is not among");
    expectRefused(environment(fresh), "is new");
    expectRefused(environment(fresh, foreign), "is new");
    expectRefused(environment(fresh, listed), "is new");  // it stands for that one alone
    expectRefused(environment(awaited, own), "there are records about it already");
    root.post("/v1/records", environment(foreign, fresh));
    expectRefused(environment(fresh, own), "others are below it already");
}

// Whoever came first would see and replace everything that the other one tells from then on.
TEST_F(AgentWritersTest, AnEnvironmentThatAnotherIsToWriteAboutIsNotTakenBeforeItsFirstRecord) {
    ctl({"identity", "add", "other", "--kind", "token", "--below", fresh, "--write"});
    ctl({"identity", "add", "looker", "--kind", "token", "--below", seen, "--below", lowest});
    expectRefused(environment(fresh, own), "others are to write about it");
    expectRefused(environment(fresh, below) + eventOf(fresh), "others are to write about it");
    EXPECT_EQ(send(environment(fresh) + eventOf(fresh), {}, newToken("other")).status, 200);
    expectRefused(environment(fresh, own), "is not among the sender's");
    // Who only looks at an environment keeps nobody from telling of it, and who writes about it himself may begin.
    constexpr const char* shared = "99999999-0000-4000-8000-000000000000";
    constexpr const char* looked = "aaaaaaaa-0000-4000-8000-000000000000";
    ctl({"identity", "add", "guest", "--kind", "token", "-e", shared, "--write"});
    ctl({"identity", "add", "onlooker", "--kind", "token", "-e", looked});
    ctl({"identity", "add", "host", "--kind", "token", "--below", own, "-e", shared, "--write"});
    EXPECT_EQ(send(environment(shared, own) + environment(looked, own), {}, newToken("host")).status, 200);
    const HttpAnswer guest = send(eventOf(shared), {}, newToken("guest"));
    EXPECT_EQ(guest.status, 200) << guest.body;
}

TEST_F(AgentWritersTest, EnvironmentsAreMovedWithinOnesOwnAlone) {
    expectRefused(environment(below, foreign), "may not be moved below " + std::string(foreign));
    expectRefused(environment(below), "may not be moved from there");
    expectRefused(environment(own, foreign), "may not be moved below");
    expectRefused(environment(listed, own), "may not be moved below");  // what is below it would come along
    expectRefused(environment(listed), "may not be moved");
    expectTaken(environment(lowest, own), 1);
}

TEST_F(AgentWritersTest, KeysAreOnesOwn) {
    const std::string key = "Idempotency-Key: k\r\n";
    EXPECT_EQ(root.request("POST", "/v1/records", eventOf(foreign), key).status, 200);
    EXPECT_EQ(send(eventOf(own), key).status, 200);
    EXPECT_EQ(send(eventOf(own), key).status, 200);
    EXPECT_EQ(send(eventOf(below), key).status, 422);
    EXPECT_EQ(root.request("POST", "/v1/records", eventOf(foreign), key).status, 200);
    EXPECT_THAT(
        root.get("/v1/views/vEventLog/rows?fields=id&count=exact&where=eid%20%3C%3E%20'" + std::string(awaited) + "'")
            .body,
        HasSubstr("\"total\":2,"));
}

TEST_F(AgentWritersTest, WhoMayOnlyLookStoresNothing) {
    ctl({"identity", "add", "reader", "--kind", "token", "--below", own});
    const HttpAnswer answer = send(eventOf(own), {}, newToken("reader"));
    EXPECT_EQ(answer.status, 403);
    EXPECT_THAT(answer.body, HasSubstr("needs full access, or the right to write"));
}

TEST_F(AgentWritersTest, WhoSeesSomeRecordsExportsTheseAlone) {
    const auto exported = [&](const std::string& question) {
        HttpClient client(agent.socketPath());
        const HttpAnswer answer =
            client.request("GET", "/v1/records" + question, "", "Authorization: Bearer " + token + "\r\n");
        EXPECT_EQ(answer.status, 200) << answer.body;
        return answer.body;
    };
    expectTaken(eventOf(below), 1);
    const std::string all = exported("");
    for (const char* eid : {own, below, lowest, listed})
        EXPECT_THAT(all, HasSubstr(R"({"kind":"environment","eid":")" + std::string(eid) + '"'));
    for (const char* eid : {foreign, awaited, seen})
        EXPECT_THAT(all, Not(HasSubstr(R"("eid":")" + std::string(eid) + '"')));
    EXPECT_THAT(all, HasSubstr(R"("id":"touching")"));
    EXPECT_THAT(all, Not(HasSubstr(R"("id":"theirs")")));
    const std::string counts = R"("counts":{"environments":4,"operations":1,"events":1,"backups":0}})";
    EXPECT_THAT(all, AllOf(HasSubstr("{\"end\":{" + counts + "}\n"), Not(HasSubstr("\"of\""))));
    EXPECT_EQ(exported("?env=" + std::string(foreign)).find("kind"), std::string::npos);
    // A position gives no right to what comes behind it.
    const std::string behind =
        exported(R"(?after={%22at%22:%22environments%22,%22after%22:%22)" + std::string(listed) + "%22}");
    EXPECT_THAT(behind, AllOf(HasSubstr(R"("id":"touching")"), Not(HasSubstr("environment\""))));
    EXPECT_THAT(behind, Not(HasSubstr("theirs")));
}

TEST_F(AgentWritersTest, AnExportIsAskedForInItsOwnWords) {
    const std::pair<std::string, std::string> mistakes[] = {
        {"?source=planets", "there is no source"},
        {"?from=soon", "from is a time"},
        {"?env=host", "env is an identifier"},
        {"?after=1", R"("code":"bad_token")"},
        {"?after={%22at%22:%22events%22,%22after%22:%22x%22}", R"("code":"bad_token")"},
        {"?after={%22at%22:%22events%22}&from=2024-01-01", R"("parameter":"from")"},
        {"?kinds=events", R"("code":"unknown_parameter")"}};
    for (const auto& [question, said] : mistakes) {
        const HttpAnswer answer = root.get("/v1/records" + question);
        EXPECT_EQ(answer.status, 400) << question;
        EXPECT_THAT(answer.body, HasSubstr(said)) << question;
    }
    EXPECT_EQ(root.request("GET", "/v1/records", "", "Accept: text/csv\r\n").status, 406);
    EXPECT_EQ(root.get("/v1/records?source=events&to=0001-01-01").body.find("kind\""), std::string::npos);
}

TEST_F(AgentWritersTest, MaintenanceIsForFullAccess) {
    for (const char* target : {"/v1/check?part=schema", "/v1/prune?what=events&before=5", "/v1/identities/add"}) {
        HttpClient client(agent.socketPath());
        EXPECT_EQ(client.request("POST", target, "{}", "Authorization: Bearer " + token + "\r\n").status, 403)
            << target;
    }
}

TEST_F(AgentWritersTest, WhatTheMachineTellsOfItselfIsARecordOfIts) {
    HttpClient client(agent.socketPath());
    const HttpAnswer answer = client.request("POST", "/v1/collect", "", "Authorization: Bearer " + token + "\r\n");
    EXPECT_EQ(answer.status, 403);
    EXPECT_THAT(answer.body, HasSubstr("line 1: the environment"));
    EXPECT_THAT(root.get("/v1/status").body, AllOf(HasSubstr("\"collected\":{"), HasSubstr("line 1: the environment")))
        << "whoever looks after the agent sees why nothing was collected";
}

}  // namespace
}  // namespace QOR::test
