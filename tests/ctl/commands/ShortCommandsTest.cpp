// The short commands, times told by --since and --until, short names of fields, and the timeline.
#include <algorithm>
#include <string>
#include <vector>

#include "ctl/BothWays.h"

namespace QOR::test {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

const std::string records =
    R"({"kind":"environment","eid":"11111111-1111-1111-1111-111111111111","title":"one","config":{"hostname":"alpha"}}
{"kind":"environment","eid":"22222222-2222-2222-2222-222222222222","title":"two"}
{"kind":"operation","id":"a","op":"install","status":0,"time":"2024-01-01 10:00:00","eid":"11111111-1111-1111-1111-111111111111","message":{"package":{"name":"zlib","version":"1.2"}}}
{"kind":"operation","id":"b","op":"remove","status":7,"time":"2024-01-02 10:00:00","eid":"22222222-2222-2222-2222-222222222222"}
{"kind":"operation","id":"c","op":"install","status":0,"time":"2024-01-03 10:00:00"}
{"kind":"event","time":"2024-01-02 12:00:00","source":"cpu","category":"resource_alert"}
{"kind":"backup","id":"k","time":"2024-01-03 12:00:00","name":"web","size":5,"eid":"11111111-1111-1111-1111-111111111111"}
)";

class ShortCommands : public BothWays {
protected:
    void SetUp() override {
        begin();
        ASSERT_EQ(run({"import"}, records).status, 0);
    }
    std::string idsOf(Words arguments) const {
        arguments.insert(arguments.end(), {"-f", "id", "--template", "{id}"});
        std::string ids = outputOf(arguments);
        ids.erase(std::remove(ids.begin(), ids.end(), '\n'), ids.end());
        return ids;
    }
};
INSTANTIATE_TEST_SUITE_P(Ctl, ShortCommands, bothWays, nameOfWay);

TEST_P(ShortCommands, ShowTheNewestFirstAndTheColumnsThatTellMost) {
    EXPECT_EQ(outputOf({"log", "-o", "csv", "--limit", "2"}),
              "time,eid,op,package,version,status\r\n"
              "2024-01-03T10:00:00+0000,,install,,,0\r\n"
              "2024-01-02T10:00:00+0000,22222222-2222-2222-2222-222222222222,remove,,,7\r\n");
    EXPECT_THAT(outputOf({"events", "-o", "csv"}), StartsWith("time,eid,category,source\r\n2024-01-02T12:00:00"));
    EXPECT_THAT(outputOf({"backups", "-o", "csv"}),
                EndsWith("\r\n2024-01-03T12:00:00+0000,11111111-1111-1111-1111-111111111111,web,5,0,\r\n"));
    EXPECT_THAT(
        outputOf({"envs", "-o", "csv", "--sort", "eid"}),
        StartsWith("eid,hostname,os_name,os_version,ip,memory,state\r\n11111111-1111-1111-1111-111111111111,alpha,"));
    EXPECT_EQ(outputOf({"log", "-f", "op,count(id)", "--sort", "op", "-o", "csv"}),
              "op,count(id)\r\ninstall,2\r\nremove,1\r\n");
}

TEST_P(ShortCommands, AViewWithoutFieldsShowsThoseThatTellMost) {
    EXPECT_EQ(outputOf({"select", "vEventLog", "-o", "csv"}),
              "time,eid,category,source\r\n2024-01-02T12:00:00+0000,,resource_alert,cpu\r\n");
    EXPECT_THAT(run({"select", "vNone"}).err, HasSubstr("error 1: invalid view \"vNone\"\nthere are vBackupInfo, "));
}

TEST_P(ShortCommands, BoundsOfTimeAreIncluded) {
    EXPECT_EQ(idsOf({"log", "--since", "2024-01-02 10:00:00"}), "cb");
    EXPECT_EQ(idsOf({"log", "--until", "2024-01-02T10:00:00Z"}), "ba");
    EXPECT_EQ(idsOf({"log", "--since", "-7d"}), "");
    EXPECT_EQ(idsOf({"log", "--until", "yesterday", "--limit", "1"}), "c");
    EXPECT_EQ(idsOf({"log", "--since", "2024-01-02", "--where", "op = 'install' or op = 'x'"}), "c");
    EXPECT_EQ(idsOf({"select", "vOpLog", "--since", "2024-01-03"}), "c");
    EXPECT_EQ(outputOf({"rows", "operations", "-f", "id", "--since", "2024-01-02", "--where",
                        "op = 'install' or op = 'x'", "-o", "csv"}),
              "id\r\nc\r\n");
    EXPECT_EQ(outputOf({"rows", "-f", "pager.op_log.id", "--until", "2024-01-01T12:00", "-o", "csv"}),
              "pager.op_log.id\r\na\r\n");
}

TEST_P(ShortCommands, BoundsNeedATime) {
    const auto refusalOf = [&](const Words& arguments) { return run(arguments).err; };
    EXPECT_THAT(refusalOf({"envs", "--since", "-7d"}), HasSubstr("vEnvironment has 2, so name one in --where"));
    EXPECT_THAT(refusalOf({"rows", "environments", "--since", "-7d"}), HasSubstr("need records that have a time"));
    EXPECT_THAT(refusalOf({"log", "--until", "2024-5-1"}), HasSubstr("is no time"));
    // A mistake stands at the place where the person wrote it.
    EXPECT_THAT(refusalOf({"log", "--since", "-7d", "--where", "op = )"}), HasSubstr("at character 6\n  op = )\n"));
}

TEST_P(ShortCommands, FieldsBesideTheirRecordsMayBeShort) {
    EXPECT_EQ(outputOf({"rows", "operations", "-f", "status,time,package.name", "--where",
                        "package.name = 'zlib' and lower(op) = 'install' and pager.op_log.status = 0", "-o", "csv"}),
              "status,time,package.name\r\n0,2024-01-01T10:00:00+0000,zlib\r\n");
    EXPECT_EQ(outputOf({"rows", "operations", "-f", "id", "--sort", "-status", "-o", "csv", "--limit", "1"}),
              "id\r\nb\r\n");
    EXPECT_EQ(outputOf({"rows", "environments", "-f", "title", "--sort", "title", "-o", "csv"}),
              "title\r\none\r\ntwo\r\n");
    EXPECT_EQ(outputOf({"rows", "operations", "-f", "status", "-o", "ndjson", "--limit", "1"}), "{\"status\":0}\n");
    EXPECT_THAT(outputOf({"rows", "events", "-o", "csv"}), StartsWith("time,category,source\r\n"));
    EXPECT_THAT(outputOf({"rows", "backups", "-o", "csv"}), EndsWith(",web,\"\",5\r\n"));
    EXPECT_THAT(run({"rows", "operations", "-f", "tme"}).err, HasSubstr("\ndid you mean time?"));
}

TEST_P(ShortCommands, WatchAsksAgainUntilItIsEnded) {
    Words command = where({"events", "-f", "source", "--watch", "1s", "-o", "csv"});
    command.insert(command.begin(), ctlProgram());
    CtlProcess process(command);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(process.readLine(), "source\r");
        EXPECT_EQ(process.readLine(), "cpu\r");
    }
    process.signal(SIGINT);
    EXPECT_EQ(process.finish().status, 130);
}

TEST_P(ShortCommands, CtrlCEndsACommandThatWaits) {
    Words command = where({"request", "--lines"});
    command.insert(command.begin(), ctlProgram());
    CtlProcess process(command);
    process.write(R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vNone"]]]})"
                  "\n");
    EXPECT_NE(process.readLine(), "");
    process.signal(SIGINT);
    EXPECT_EQ(process.finish().status, 130);
}

TEST(Timeline, PutsRecordsOfAllKindsIntoOneOrder) {
    const AgentProcess agent;
    ASSERT_EQ(runCtl({"import", "--socket", agent.socketPath()}, records).status, 0);
    const auto timeline = [&](Words more) {
        more.insert(more.begin(), {"timeline", "--socket", agent.socketPath()});
        return runCtl(more);
    };
    EXPECT_EQ(timeline({"-o", "csv", "--since", "2024-01-02 11:00:00"}).out,
              "time,source,env,environment,id,text\r\n"
              "2024-01-03T12:00:00+0000,backups,11111111-1111-1111-1111-111111111111,one,k,\"backup \"\"web\"\" of 5 "
              "bytes\"\r\n"
              "2024-01-03T10:00:00+0000,operations,,,c,install succeeded\r\n"
              "2024-01-02T12:00:00+0000,events,,,1,event resource_alert from cpu\r\n");
    EXPECT_THAT(timeline({"--limit", "1"}).out, StartsWith("time                      source   environment  text\n"));
    EXPECT_THAT(
        timeline({"-e", "11111111-1111-1111-1111-111111111111", "--until", "2024-01-02", "--template", "{id}"}).out,
        "a\n");
    const CtlResult wrong = timeline({"-e", "x"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_THAT(wrong.err, StartsWith("qorctl: error 400: env is an identifier of an environment"));
}

}  // namespace
}  // namespace QOR::test
