// Every command, end to end: against a real agent over its socket, and with the host in its own process.
#include <signal.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "ctl/BothWays.h"
#include "ctl/CtlTerminal.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR::test {
namespace {

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* first = "11111111-1111-1111-1111-111111111111";
constexpr const char* second = "22222222-2222-2222-2222-222222222222";

/// Two environments; operations of both, one of them without a package.
const std::string records =
    R"({"kind":"environment","eid":"11111111-1111-1111-1111-111111111111","title":"one","config":{"hostname":"alpha"}}
{"kind":"environment","eid":"22222222-2222-2222-2222-222222222222","title":"it's, \"two\"","config":{"hostname":"beta"}}
{"kind":"operation","id":"a","op":"install","status":0,"time":"2024-01-01 10:00:00","eid":"11111111-1111-1111-1111-111111111111","message":{"package":{"name":"zlib","version":"1.2"}}}
{"kind":"operation","id":"b","op":"remove","status":7,"time":"2024-01-02 10:00:00","eid":"11111111-1111-1111-1111-111111111111"}
{"kind":"operation","id":"c","op":"install","status":0,"time":"2024-01-03 10:00:00","eid":"22222222-2222-2222-2222-222222222222"}
)";

/// A database with the records above.
class Command : public BothWays {
protected:
    void SetUp() override {
        begin();
        const CtlResult result = run({"import"}, records);
        ASSERT_EQ(result.status, 0) << result.err;
    }
};
INSTANTIATE_TEST_SUITE_P(Ctl, Command, bothWays, nameOfWay);

TEST_P(Command, ImportGivesUpOnWhatIsNoFileOfRecords) {
    std::string lines = R"({"kind":"event","time":1})"
                        "\n";
    for (int i = 0; i < 120'000; ++i)
        lines += "x\n";
    const CtlResult result = run({"import"}, lines);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("event: 1 added"));
    EXPECT_THAT(result.err, HasSubstr("lines before it are no records; the rest was not read"));
    EXPECT_THAT(result.out, testing::Not(HasSubstr("refused: 120000")));
}

TEST_P(Command, StatusTellsOfTheDatabaseAndWhatCannotBeReadInIt) {
    const std::string sound = outputOf({"status", "-o", "csv"});
    EXPECT_THAT(sound, HasSubstr("what,value\r\n"));
    EXPECT_THAT(sound, HasSubstr("engine," + oneOf("SQLite", "PostgreSQL") + "\r\n"));
    EXPECT_THAT(sound, EndsWith("unreadable documents,0\r\n"));
    EXPECT_EQ(m_agent.has_value(), sound.find("agent,ok\r\n") != std::string::npos) << sound;
    EXPECT_EQ(m_agent.has_value(), sound.find("\r\nconnections,") != std::string::npos) << sound;
    EXPECT_EQ(m_agent.has_value(),
              sound.find("\r\nlimits met,none\r\nlast collection,none since the start\r\n") != std::string::npos)
        << sound;
    EXPECT_THAT(sound, HasSubstr("\r\nrows of vEnvironment,2\r\nrows of vOpLog,3\r\nrows of vEventLog,0\r\n"
                                 "rows of vBackupInfo,0\r\n"));
    EXPECT_THAT(sound, ContainsRegex("\r\nbytes,[1-9]"));
    direct().run(
        "INSERT INTO qor_unreadable_document VALUES ('qor_backup', 'info', 1), ('qor_backup', 'info', 2), "
        "('qor_event', 'info', 1)");
    EXPECT_THAT(
        outputOf({"status", "-o", "csv"}),
        EndsWith("unreadable documents,3\r\nunreadable in qor_backup.info,2\r\nunreadable in qor_event.info,1\r\n"));
}

TEST(Agent, SaysAtItsStartWhichDocumentsCannotBeRead) {
    const TestDatabase database;
    AgentProcess agent({.database = database.connectionString()});
    EXPECT_THAT(agent.log(), testing::Not(HasSubstr("cannot be read")));
    agent.stop();
    DirectDatabase(database).run("INSERT INTO qor_unreadable_document VALUES ('qor_backup', 'info', 1)");
    agent.start();
    EXPECT_THAT(agent.log(), HasSubstr("stored documents that cannot be read: 1 in qor_backup.info"));
}

TEST_P(Command, SelectPrintsATable) {
    EXPECT_EQ(outputOf({"select", "--view", "vOpLog", "-f", "op", "id", "status", "--sort", "-time", "--limit", "2",
                        "--count"}),
              "op       id  status\n"
              "-------  --  ------\n"
              "install  c        0\n"
              "remove   b        7\n"
              "\n"
              "2 of 3 rows\n");
}

TEST_P(Command, RowsComeInTheFormThatIsAskedFor) {
    const auto select = [&](std::vector<std::string> form) {
        std::vector<std::string> arguments{"select", "--view", "vOpLog",  "-f",       "id",
                                           "-f",     "status", "--where", "id <> 'c'"};
        arguments.insert(arguments.end(), form.begin(), form.end());
        return outputOf(arguments);
    };
    EXPECT_EQ(select({"-o", "ndjson", "--sort", "id"}), "{\"id\":\"a\",\"status\":0}\n{\"id\":\"b\",\"status\":7}\n");
    EXPECT_EQ(select({"-o", "yaml", "--sort", "id"}), "- id: a\n  status: 0\n- id: b\n  status: 7\n");
    EXPECT_EQ(select({"-o", "tsv", "--sort", "id"}), "id\tstatus\na\t0\nb\t7\n");
    EXPECT_EQ(select({"-o", "tsv", "--sort", "id", "--no-header"}), "a\t0\nb\t7\n");
    EXPECT_EQ(select({"--no-header", "--sort", "id"}), "a  0\nb  7\n");
    EXPECT_EQ(select({"-o", "record", "--sort", "id"}), "id      a\nstatus  0\n\nid      b\nstatus  7\n");
    EXPECT_EQ(select({"--template", "{status}: {id}", "--sort", "id"}), "0: a\n7: b\n");
    EXPECT_EQ(outputOf({"rows", "-f", "pager.op_log.status", "-o", "ndjson", "--limit", "1"}),
              "{\"pager.op_log.status\":0}\n");
}

TEST_P(Command, FieldsStandBetweenCommasBehindTheView) {
    const std::string rows = "op,id\r\ninstall,c\r\nremove,b\r\n";
    EXPECT_EQ(outputOf({"select", "vOpLog", "-f", "op, \"id\"", "--sort", "-time, id", "--limit", "2", "-o", "csv"}),
              rows);
    EXPECT_EQ(outputOf({"rows", "-f", "pager.op_log.status,pager.op_log.time", "--limit", "1", "-o", "csv"}),
              "pager.op_log.status,pager.op_log.time\r\n0,2024-01-03T10:00:00+0000\r\n");
    const CtlResult missing = run({"select", "vOpLog", "-f", "op,,id"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "qorctl: a field has no name: \"op,,id\"\n");
}

TEST_P(Command, AStarIsAllColumnsOfTheView) {
    const std::string all = outputOf({"select", "vEventLog", "-f", "*", "-o", "csv"});
    EXPECT_EQ(all, "id,time,eid,source,category,info,securityOperation_3,securableObjId,reporter\r\n");
    EXPECT_EQ(outputOf({"select", "vEventLog", "-f", "time,*", "-o", "csv"}),
              "time,id,eid,source,category,info,securityOperation_3,securableObjId,reporter\r\n");
    EXPECT_THAT(run({"select", "vNone", "-f", "*"}).err, HasSubstr("invalid view \"vNone\""));
}

TEST_P(Command, QuietTellsNothingBesideTheRows) {
    const std::vector<std::string> arguments{"select", "--view", "vOpLog", "-f", "id", "--client", "none", "-o", "csv"};
    EXPECT_THAT(run(arguments).err, HasSubstr("note: "));
    std::vector<std::string> quiet = arguments;
    quiet.emplace_back("-q");
    const CtlResult result = run(quiet);
    EXPECT_EQ(result.out, "id\r\n");
    EXPECT_EQ(result.err, "");
}

TEST_P(Command, SelectTakesEveryPartOfARequest) {
    EXPECT_EQ(
        outputOf({"select", "--view", "VOPLOG", "-f", "id", "--where",
                  "op like 'INST%' and not (status <> 0 or id in ('x', 'y')) and package is not null", "-o", "csv"}),
        "id\r\na\r\n");
    EXPECT_EQ(outputOf({"select", "--view", "vOpLog", "-f", "op", "--distinct", "--sort", "op", "-o", "csv"}),
              "op\r\ninstall\r\nremove\r\n");
    EXPECT_EQ(outputOf({"select", "--view", "vOpLog", "-f", "op", "-f", "count(id)", "--sort", "-op", "-o", "json"}),
              "[\n{\"op\":\"remove\",\"count(id)\":1},\n{\"op\":\"install\",\"count(id)\":2}\n]\n");
    EXPECT_EQ(outputOf({"select", "--view", "vOpLog", "-f", "id", "--sort=id", "--offset", "1", "-o", "csv"}),
              "id\r\nb\r\nc\r\n");
    EXPECT_EQ(outputOf({"select", "--view", "vEnvironment", "-f", "hostname", "--where",
                        "eid in (select eid from vOpLog where status = 7 and eid = vEnvironment.eid)", "-o", "csv"}),
              "hostname\r\nalpha\r\n");
}

TEST_P(Command, ListsAndBoundsFindWhatEquationsFind) {
    const auto idsWhere = [this](const std::string& condition) {
        return outputOf({"select", "--view", "vOpLog", "-f", "id", "--where", condition, "--sort=id", "-o", "csv"});
    };
    const std::string time = outputOf({"select", "--view", "vOpLog", "-f", "time", "--where", "id = 'a'", "-o", "csv"});
    const std::string begin = time.substr(time.find('2'), std::string("2024-05-01T00:00:00+0000").size());
    const std::string only = idsWhere("time = '" + begin + "'");
    EXPECT_THAT(only, HasSubstr("\r\na\r\n"));
    EXPECT_EQ(idsWhere("time in ('" + begin + "')"), only);
    EXPECT_EQ(idsWhere("time between '" + begin + "' and '" + begin + "'"), only);
    EXPECT_EQ(idsWhere("id in (select id from vOpLog where time in ('" + begin + "'))"), only);
    const CtlResult refused = run({"select", "--view", "vOpLog", "-f", "id", "--where", "time in ('last week')"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_THAT(refused.err, HasSubstr("\"last week\" is not a date or time at character 10\n"));
}

TEST_P(Command, AClientThatStandsForNoEnvironmentIsToldSo) {
    const CtlResult select = run({"select", "--view", "vOpLog", "-f", "id", "--client", "none", "--count"});
    EXPECT_THAT(select.out, HasSubstr("0 of 0 rows"));
    EXPECT_EQ(select.err,
              "qorctl: note: this client stands for no environment, so no row of an environment is shown "
              "to it\n");
    const CtlResult rows = run({"rows", "-f", "pager.op_log.id", "--client", "none"});
    EXPECT_THAT(rows.err, HasSubstr("this client stands for no environment"));
}

TEST(Agent, TellsAUserWithoutRightsThatHeStandsForNoEnvironment) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    const std::string program = ctlProgram();
    for (std::filesystem::path folder = program; folder.has_relative_path(); folder = folder.parent_path())
        if ((std::filesystem::status(folder).permissions() & std::filesystem::perms::others_exec) ==
            std::filesystem::perms::none)
            GTEST_SKIP() << "another user cannot reach " << folder;
    AgentProcess agent({.more = {"--socket-group", "65534"}});
    std::filesystem::permissions(agent.directory(), std::filesystem::perms(0755));
    const auto ask = [&](Words words) {
        Words command{"/usr/bin/setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", program};
        command.insert(command.end(), words.begin(), words.end());
        command.insert(command.end(), {"--socket", agent.socketPath()});
        test::CtlProcess process(command);
        return process.finish();
    };
    const std::string note = "qorctl: note: you stand for no environment";
    EXPECT_THAT(ask({"select", "--view", "vOpLog", "-f", "id"}).err, HasSubstr(note));
    EXPECT_THAT(ask({"rows", "-f", "pager.op_log.id"}).err, HasSubstr(note));
    EXPECT_THAT(ask({"views"}).err, testing::Not(HasSubstr(note)));
}

TEST_P(Command, SelectedTextsAreExact) {
    EXPECT_EQ(outputOf({"select", "--view", "vEnvironment", "-f", "title", "description", "--where",
                        "title = 'it''s, \"two\"'", "-o", "csv"}),
              "title,description\r\n\"it's, \"\"two\"\"\",\r\n");
    EXPECT_EQ(outputOf({"select", "--view", "vEnvironment", "-f", "title", "description", "--where",
                        "hostname = 'beta'", "-o", "json", "--count"}),
              "{\"rows\":[\n{\"title\":\"it's, \\\"two\\\"\",\"description\":null}\n],\"count\":1,\"total\":1}\n");
    EXPECT_EQ(outputOf({"select", "--view", "vOpLog", "-f", "op", "id", "--where", "id = 'a'", "-o", "xml", "--count"}),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<row_set>\n<name>id</name>\n<name>op</name>\n"
              "<row><value>a</value><value>install</value></row>\n<statistics>1</statistics>\n<total>1</total>\n"
              "</row_set>\n");
}

TEST_P(Command, CountsOfCsvStandBesideIt) {
    const CtlResult result =
        run({"select", "--view", "vOpLog", "-f", "id", "--limit", "1", "--sort", "id", "--count", "-o", "csv"});
    EXPECT_EQ(result.out, "id\r\na\r\n");
    EXPECT_EQ(result.err, "qorctl: 1 of 3 rows\n");
}

TEST_P(Command, AClientWithoutFullAccessSeesItsOwnRows) {
    const Words ask{"select", "--view", "vOpLog", "-f", "id", "--sort", "id", "-o", "csv"};
    const auto as = [&](const Words& clients) {
        Words words = ask;
        for (const std::string& client : clients)
            words.insert(words.end(), {"--client", client});
        return outputOf(words);
    };
    EXPECT_EQ(as({second}), "id\r\nc\r\n");
    EXPECT_EQ(as({second, first}), "id\r\na\r\nb\r\nc\r\n");
    Words none = ask;
    none.insert(none.end(), {"--client", "none"});
    EXPECT_EQ(run(none).out, "id\r\n");
}

TEST_P(Command, AnErrorThatIsAnsweredEndsWithOne) {
    const CtlResult result = run({"select", "--view", "vOpLog", "-f", "nothing"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "qorctl: error 1: invalid column name \"nothing\" of view \"vOpLog\"\nthere are id, parent_id, op, "
              "status, time, eid, package, version, message and reporter\n");
}

TEST_P(Command, SortKeysApplyInTheOrderInWhichTheyAreGiven) {
    EXPECT_EQ(outputOf({"select", "vOpLog", "-f", "id", "--sort", "op", "--sort", "-id", "-o", "csv"}),
              "id\r\nc\r\na\r\nb\r\n");
    EXPECT_EQ(outputOf({"select", "vOpLog", "-f", "id", "--sort", "-id", "--sort", "op", "-o", "csv"}),
              "id\r\nc\r\nb\r\na\r\n");
}

TEST_P(Command, ARequestMayStandOnSeveralLines) {
    const CtlResult result = run({"request", "-"}, R"({
        "operator": "pager2", "request": "select",
        "body": [1740, [[1009, "vOpLog"], ["field", "id"], [1742, [[2225, [[1741, "op"], [1018, "remove"]]]]]]]
    })");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "{\"response\":[[1744,[[1026,\"id\"],[1739,[[1018,\"b\"]]]]]]}\n");
    EXPECT_EQ(result.err, "");
}

TEST_P(Command, ARequestIsReadFromAFile) {
    const std::string file = (m_directory / "request").string();
    std::ofstream(file) << R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vNone"]]]})";
    const CtlResult result = run({"request", file});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "{\"response\":[],\"error\":{\"code\":1,\"message\":\"invalid view \\\"vNone\\\"\"}}\n");
    EXPECT_EQ(result.err, "qorctl: error 1: invalid view \"vNone\"\n");
}

TEST_P(Command, ARequestThatIsNoneIsAnsweredWithAnError) {
    const CtlResult result = run({"request"}, "nonsense");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, StartsWith("{\"response\":[],\"error\":{\"code\":400,"));
    EXPECT_THAT(result.err, StartsWith("qorctl: error 400: "));
}

std::string requestOf(const std::string& id) {
    return R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vOpLog"],[1741,"id"],)"
           R"([1742,[[2225,[[1741,"id"],[1018,")" +
           id + R"("]]]]]]]})";
}
std::string answerOf(const std::string& id) {
    return "{\"response\":[[1744,[[1026,\"id\"],[1739,[[1018,\"" + id + "\"]]]]]]}";
}

TEST_P(Command, LinesAreAnsweredInOrder) {
    std::string input;
    std::string expected;
    for (int at = 0; at < 3000; ++at) {
        const std::string id(1, static_cast<char>('a' + at % 3));
        input += requestOf(id) + (at % 7 == 0 ? "\n\n" : at % 5 == 0 ? "\r\n" : "\n");
        expected += answerOf(id) + "\n";
    }
    const CtlResult result = run({"request", "--lines"}, input);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, expected);
    EXPECT_EQ(result.err, "");
}

TEST_P(Command, ABadLineIsAnsweredAndTheRestGoesOn) {
    const CtlResult result = run({"request", "--lines"}, requestOf("a") + "\n{\"bad\"\n" + requestOf("b"));
    EXPECT_EQ(result.status, 0);
    std::istringstream lines(result.out);
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line, answerOf("a"));
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_THAT(line, StartsWith("{\"response\":[],\"error\":{\"code\":400,"));
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(line, answerOf("b"));
    EXPECT_FALSE(std::getline(lines, line));
}

TEST_P(Command, ALineIsAnsweredBeforeTheNextIsWritten) {
    Words command = where({"request", "--lines"});
    command.insert(command.begin(), ctlProgram());
    CtlProcess process(command);
    for (const char* id : {"a", "b", "c"}) {
        process.write(requestOf(id) + "\n");
        EXPECT_EQ(process.readLine(), answerOf(id));
    }
    EXPECT_EQ(process.finish().status, 0);
}

TEST_P(Command, ViewsAreListedWithTheirColumns) {
    const std::string all = outputOf({"views", "-o", "csv"});
    EXPECT_THAT(all, StartsWith("view,column,type,length\r\n"));
    EXPECT_THAT(all, HasSubstr("vEnvironment,eid,uniqueidentifier,\r\n"));
    EXPECT_THAT(all, HasSubstr("vOpLog,op,nvarchar,128\r\n"));
    const std::string one = outputOf({"views", "vbackupinfo", "-o", "csv"});
    EXPECT_THAT(one, HasSubstr("vBackupInfo,size,bigint,\r\n"));
    EXPECT_THAT(one, testing::Not(HasSubstr("vOpLog")));
    const CtlResult none = run({"views", "vNone"});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err,
              "qorctl: there is no view \"vNone\"\nthere are vBackupInfo, vEnvironment, vEventLog and vOpLog\n");
}

TEST_P(Command, ImportRefusesBadLinesAndStoresTheOthers) {
    const CtlResult result = run({"import"},
                                 "{\"kind\":\"event\",\"time\":5}\n\nbad\n"
                                 "{\"kind\":\"operation\",\"id\":\"a\",\"time\":6}\n{\"kind\":\"other\"}");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "environment: 0 added, 0 replaced\noperation: 0 added, 1 replaced\nevent: 1 added, 0 replaced\n"
              "backup: 0 added, 0 replaced\nrefused: 2\n");
    EXPECT_THAT(result.err, StartsWith("qorctl: line 3: "));
    EXPECT_THAT(result.err, HasSubstr("\nqorctl: line 5: unknown kind \"other\"\n"));
    EXPECT_THAT(result.err, EndsWith("qorctl: 2 lines were refused; the others are stored\n"));
}

TEST_P(Command, ImportNumbersLinesAcrossBatches) {
    std::string input;
    for (int at = 1; at <= 2600; ++at)
        input += at == 2345 ? "bad\n" : "{\"kind\":\"event\",\"time\":" + std::to_string(at) + "}\n";
    const CtlResult result = run({"import", "--progress"}, input);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("event: 2599 added"));
    EXPECT_THAT(result.err, HasSubstr("qorctl: line 2345: "));
    EXPECT_THAT(result.err, HasSubstr("2600 lines, 2599 stored, 1 refused, "));
}

TEST_P(Command, OnlyTheFirstRefusedLinesAreNamedUnlessAllAreAskedFor) {
    std::string input;
    for (int at = 0; at < 30; ++at)
        input += "bad\n";
    const CtlResult some = run({"import"}, input);
    EXPECT_THAT(some.err, HasSubstr("line 20: "));
    EXPECT_THAT(some.err, testing::Not(HasSubstr("line 21: ")));
    EXPECT_THAT(some.err, HasSubstr("and 10 refused lines more"));
    const CtlResult all = run({"import", "--verbose"}, input);
    EXPECT_THAT(all.err, HasSubstr("line 30: "));
}

TEST_P(Command, AnInterruptedImportStoresWhatItHasRead) {
    Words command = where({"import"});
    command.insert(command.begin(), ctlProgram());
    CtlProcess process(command);
    std::string batch;
    for (int at = 0; at < 1500; ++at)
        batch += "{\"kind\":\"event\",\"time\":1}\n";
    process.write(batch);
    // The whole first batch is visible to others once it is stored.
    while (outputOf({"select", "--view", "vEventLog", "-f", "count(id)", "-o", "csv"}) != "count(id)\r\n1000\r\n") {
    }
    process.signal(SIGINT);
    const std::string environments = process.readLine();
    EXPECT_EQ(environments, "environment: 0 added, 0 replaced");
    const CtlResult result = process.finish();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(result.err, "qorctl: interrupted; the counts are what is stored\n");
    const std::string stored = outputOf({"select", "vEventLog", "-f", "count(id)", "--template", "{count(id)}"});
    EXPECT_THAT(result.out, HasSubstr("event: " + stored.substr(0, stored.size() - 1) + " added"));
}

TEST_P(Command, SamplesAreStored) {
    EXPECT_EQ(outputOf({"sample", "--environments", "3", "--operations", "1200", "--events", "4", "--backups", "5"}),
              "environment: 3 added, 0 replaced\noperation: 1200 added, 0 replaced\nevent: 4 added, 0 replaced\n"
              "backup: 5 added, 0 replaced\nrefused: 0\n");
    EXPECT_EQ(outputOf({"select", "--view", "vOpLog", "-f", "count(id)", "-o", "csv"}), "count(id)\r\n1203\r\n");
}

TEST_P(Command, CollectingAgainAddsNothing) {
    // Where this machine has something that its user may not read, that is told.
    const auto collect = [this] {
        const CtlResult result = run({"collect"});
        EXPECT_EQ(result.status, result.err.empty() ? 0 : 1) << result.err;
        return result.out;
    };
    EXPECT_THAT(collect(), StartsWith("environment: 1 added, 0 replaced\noperation: "));
    EXPECT_THAT(collect(), StartsWith("environment: 0 added, 1 replaced\noperation: 0 added, 0 replaced"));
    const std::string status = outputOf({"status", "-o", "csv"});
    EXPECT_EQ(m_agent.has_value(), status.find("\r\nlast collection,2") != std::string::npos) << status;
    EXPECT_EQ(m_agent.has_value(), status.find("\r\ncollector machine,done at 2") != std::string::npos) << status;
}

TEST(CollectCommand, WhatCannotBeReadIsToldAndEndsWithAnError) {
    const TemporaryDirectory root;
    const TestDatabase database;
    const AgentProcess agent(
        {.database = database.connectionString(), .more = {"--collect-root", root.path().string()}});
    const Words collect{"collect", "--socket", agent.socketPath()};
    const CtlResult nothing = runCtl(collect);
    EXPECT_EQ(nothing.status, 0) << "sources that are missing are no failure: " << nothing.err;
    std::filesystem::create_directories(root / "proc/pressure");
    std::ofstream(root / "proc/pressure/io") << "nonsense\n";
    const CtlResult result = runCtl(collect);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, StartsWith("environment: 0 added, 1 replaced\n")) << "the rest is stored";
    EXPECT_THAT(result.err, HasSubstr("/proc/pressure/io: it has no line"));
    EXPECT_THAT(result.err, HasSubstr("qorctl: error 1: not everything could be collected\n"));
}

TEST_P(Command, AReaderThatHasSeenEnoughIsNoError) {
    ASSERT_EQ(run({"sample", "--operations", "20000"}).status, 0);
    std::string line = ctlProgram();
    for (const std::string& word : where({"select", "--view", "vOpLog", "-f", "id", "message", "-o", "csv"}))
        line += " '" + word + "'";
    CtlProcess process({"/bin/sh", "-c", line + " | head -n 1"});
    const CtlResult result = process.finish();
    EXPECT_EQ(result.out, "id,message\r\n");
    EXPECT_EQ(result.err, "");
}

TEST_P(Command, ATableFitsItsTerminal) {
    const TerminalResult result =
        runOnTerminal(where({"select", "--view", "vOpLog", "-f", "id", "message", "--where", "id = 'a'"}), 30,
                      {"QOR_PAGER=", "TERM=dumb"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "id  message\r\n"
              "--  --------------------------\r\n"
              "a   <info><package><name>zlib\xE2\x80\xA6\r\n");
}

TEST_P(Command, ATableOnATerminalIsForPeople) {
    const Words select = where({"select", "--view", "vOpLog", "-f", "time", "package", "eid", "--sort", "time"});
    EXPECT_EQ(runOnTerminal(select, 80, {"QOR_PAGER=cat", "TERM=xterm", "TZ=QOR-2"}).out,
              "\x1b[1mtime                 package  eid\x1b[0m\r\n"
              "-------------------  -------  --------------\r\n"
              "2024-01-01 12:00:00  zlib     11111111 alpha\r\n"
              "2024-01-02 12:00:00  \x1b[2m-\x1b[0m        11111111 alpha\r\n"
              "2024-01-03 12:00:00  \x1b[2m-\x1b[0m        22222222 beta\r\n");
    EXPECT_THAT(runOnTerminal(select, 80, {"QOR_PAGER=", "TERM=xterm", "NO_COLOR=1"}).out,
                testing::Not(HasSubstr("\x1b")));
    Words wide = select;
    wide.insert(wide.end(), {"-o", "wide", "--color", "never", "--times", "iso"});
    EXPECT_THAT(runOnTerminal(wide, 20, {"QOR_PAGER="}).out,
                HasSubstr("2024-01-02T10:00:00+0000  -        11111111-1111-1111-1111-111111111111 alpha\r\n"));
    Words machine = select;
    machine.insert(machine.end(), {"-o", "csv"});
    EXPECT_THAT(
        runOnTerminal(machine, 80, {"QOR_PAGER=false", "TERM=xterm"}).out,
        StartsWith("time,package,eid\r\r\n2024-01-01T10:00:00+0000,zlib,11111111-1111-1111-1111-111111111111\r\r\n"));
}

TEST_P(Command, AnOutputThatIsClosedOrFullIsToldWhateverIsWritten) {
    const std::vector<Words> commands{
        where({"log"}),
        where({"export"}),
        where({"check"}),
        where({"prune", "--before", "9000d"}),
        where({"status"}),
        where({"views"}),
        where({"collect"}),
        where({"rows", "operations", "--limit", "1"}),
        where({"token", "list"}),
        {"completion", "bash"},
        {"filter", "pager.op_log.status != 0"},
        {"--help"},
    };
    for (const Words& words : commands) {
        std::string line = ctlProgram();
        for (const std::string& word : words)
            line += " '" + word + "'";
        for (const char* const output : {" >&-", " >/dev/full"}) {
            const CtlResult result = CtlProcess({"/bin/sh", "-c", line + output}).finish();
            EXPECT_NE(result.status, 0) << line << output;
            EXPECT_THAT(result.err, HasSubstr("cannot write the output")) << line << output;
        }
    }
}

TEST_P(Command, AnInputThatIsClosedIsTold) {
    std::string line = ctlProgram();
    for (const std::string& word : where({"import", "-"}))
        line += " '" + word + "'";
    const CtlResult result = CtlProcess({"/bin/sh", "-c", line + " <&-"}).finish();
    EXPECT_NE(result.status, 0) << result.out;
    EXPECT_THAT(result.err, HasSubstr("Bad file descriptor"));
}

TEST_P(Command, APagerThatDoesNotWorkHidesNoRows) {
    const auto rows = [&](const std::string& pager) {
        return runOnTerminal(where({"select", "vOpLog", "-f", "id", "--limit", "1"}), 80, {pager});
    };
    const TerminalResult none = rows("QOR_PAGER=no-such-pager -x");
    EXPECT_EQ(none.status, 0) << none.out;
    EXPECT_THAT(none.out, AllOf(HasSubstr("QOR_PAGER: \"no-such-pager -x\" cannot be run"), HasSubstr("id\r\n")));
    const TerminalResult broken = rows("QOR_PAGER=sh -c 'cat; exit 3'");
    EXPECT_EQ(broken.status, 1) << broken.out;
    EXPECT_THAT(broken.out, HasSubstr("the pager has failed"));
    EXPECT_EQ(rows("QOR_PAGER=head -1").status, 0) << "its reader has seen enough";
}

TEST_P(Command, StatusOnATerminalIsToldInUnits) {
    const std::string shown = runOnTerminal(where({"status"}), 200, {"QOR_PAGER="}).out;
    EXPECT_THAT(shown, ContainsRegex("bytes +[0-9]+\\.[0-9] [KM]iB"));
    const std::string exact = runOnTerminal(where({"status", "-o", "csv"}), 200, {"QOR_PAGER="}).out;
    EXPECT_THAT(exact, ContainsRegex("bytes,[0-9]+\r"));
    EXPECT_THAT(outputOf({"status"}), ContainsRegex("bytes +[0-9]+\n"));
}

TEST_P(Command, LongTablesGoThroughThePersonsPager) {
    const Words select =
        where({"select", "--view", "vOpLog", "-f", "op", "--no-header", "--sort", "op", "--times", "iso"});
    EXPECT_EQ(runOnTerminal(select, 80, {"PAGER=tr a-z A-Z"}).out, "INSTALL\r\nINSTALL\r\nREMOVE\r\n");
    EXPECT_EQ(runOnTerminal(select, 80, {"PAGER=tr a-z A-Z", "QOR_PAGER=cat"}).out, "install\r\ninstall\r\nremove\r\n");
    Words without = select;
    without.emplace_back("--no-pager");
    EXPECT_EQ(runOnTerminal(without, 80, {"PAGER=tr a-z A-Z"}).out, "install\r\ninstall\r\nremove\r\n");
    const TerminalResult left = runOnTerminal(select, 80, {"PAGER=true"});
    EXPECT_EQ(left.status, 0);
    EXPECT_EQ(left.out, "");
}

TEST_P(Command, TimesOfTablesAreToldInTheZoneThatIsAskedFor) {
    const auto select = [&](Words more) {
        Words arguments{"select", "--view", "vOpLog", "-f", "time", "--where", "id = 'a'", "--no-header"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return outputOf(arguments);
    };
    EXPECT_EQ(select({}), "2024-01-01T10:00:00+0000\n");
    EXPECT_EQ(select({"--tz", "UTC"}), "2024-01-01T10:00:00+0000\n");
    EXPECT_EQ(select({"--tz", "UTC", "--times", "short"}), "2024-01-01 10:00:00\n");
    EXPECT_THAT(select({"--times", "relative"}), testing::MatchesRegex("[0-9]+ y ago\n"));
    EXPECT_EQ(select({"--times", "short", "--tz", "UTC", "-o", "csv"}), "2024-01-01T10:00:00+0000\r\n");
    EXPECT_THAT(run({"select", "--view", "vOpLog", "-f", "time", "--tz", "../etc/passwd"}).err,
                HasSubstr("there is no time zone \"../etc/passwd\""));
}

// ---- what does not depend on who answers ------------------------------------------------------------------------

class Standalone : public testing::Test {
protected:
    Words with(Words arguments) const { return with(std::move(arguments), m_database.connectionString()); }
    /// A database that is not there.
    Words without(Words arguments, const std::string& name) const {
        return with(std::move(arguments), testEngine() == ASEngine::SQLite
                                              ? "Driver=SQLite3;Database=" + (m_directory / name).string()
                                              : PostgresServer::shared().connectionString(name));
    }
    TemporaryDirectory m_directory;
    TestDatabase m_database;

private:
    static Words with(Words arguments, const std::string& database) {
        arguments.insert(arguments.end(), {"--standalone", "--database", database});
        return arguments;
    }
};

TEST_F(Standalone, TheSameSeedMakesTheSameSample) {
    const Words ask{"sample", "--environments", "5", "--operations", "50", "--events",
                    "5",      "--backups",      "5", "--seed",       "9"};
    Words toOutput = ask;
    toOutput.insert(toOutput.end(), {"--output", "-"});
    const CtlResult result = runCtl(toOutput);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 65);
    EXPECT_EQ(runCtl(toOutput).out, result.out);
    Words toFile = ask;
    toFile.insert(toFile.end(), {"--output", (m_directory / "sample").string()});
    EXPECT_EQ(runCtl(toFile).status, 0);
    std::ifstream file(m_directory / "sample");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), result.out);
    EXPECT_EQ(runCtl(with({"import", (m_directory / "sample").string()})).status, 0);
}

TEST_F(Standalone, AForeignDatabaseIsReadAndNotWritten) {
    // Tables, but no mark of the host's.
    DirectDatabase(m_database)
        .run("create table t (a int, b " + oneOf("text", "bytea") +
             "); insert into t values (1, 'x'), (2, null); create view v as select a, b as c from t");
    const auto contents = [&] {
        if (testEngine() == ASEngine::PostgreSQL)
            return DirectDatabase(m_database).cell("select string_agg(relname, ' ' order by relname) from pg_class");
        std::ifstream stream(m_database.file(), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(stream), {});
    };
    const std::string before = contents();
    const CtlResult read = runCtl(with({"select", "--view", "v", "-f", "a", "--where", "a > 1", "-o", "csv"}));
    EXPECT_EQ(read.status, 0) << read.err;
    EXPECT_EQ(read.out, "a\r\n2\r\n");
    EXPECT_EQ(runCtl(with({"views", "--read-only", "-o", "csv"})).out,
              "view,column,type,length\r\nv,a,int,\r\nv,c," + oneOf("text", "image") + ",\r\n");
    const CtlResult stored = runCtl(with({"import"}), records);
    EXPECT_EQ(stored.status, 3);
    EXPECT_THAT(stored.err, HasSubstr(oneOf("agent.db", "test_")));
    EXPECT_EQ(contents(), before);
}

TEST_F(Standalone, AForeignDatabaseIsReadByWhoMayReadNothingButAView) {
    QOR_ONLY_ON(ASEngine::PostgreSQL);
    DirectDatabase(m_database)
        .run(
            "create schema apart; create table apart.t (a int, b text, g uuid); insert into apart.t values "
            "(1, 'x', 'AAAAAAAA-0000-0000-0000-000000000001'), (2, null, null); create view apart.v as select * from "
            "apart.t; create materialized view \"Kept\" as select a from apart.t; "
            "create role reader login; grant usage on schema apart to reader; grant select on apart.v, \"Kept\" to "
            "reader; alter role reader set search_path = public, apart");
    std::string database = m_database.connectionString();
    database.replace(database.find("UID="), std::string::npos, "UID=reader");
    const auto ask = [&](Words arguments) {
        arguments.insert(arguments.end(), {"--standalone", "--database", database, "--read-only", "-o", "csv"});
        return runCtl(arguments);
    };
    const CtlResult read = ask({"select", "--view", "v", "-f", "a", "-f", "g", "--where", "b like 'X'"});
    EXPECT_EQ(read.out, "a,g\r\n1,aaaaaaaa-0000-0000-0000-000000000001\r\n") << read.err;
    EXPECT_EQ(ask({"select", "--view", "kept", "-f", "a", "--sort", "-a"}).out, "a\r\n2\r\n1\r\n");
    EXPECT_EQ(ask({"views"}).out,
              "view,column,type,length\r\nKept,a,int,\r\nv,a,int,\r\nv,b,nvarchar,\r\nv,g,uniqueidentifier,\r\n");
    DirectDatabase(m_database).run("drop owned by reader; drop role reader");
}

TEST_F(Standalone, WhatIsNotThereIsNoConnection) {
    const CtlResult database = runCtl(without({"select", "--view", "v", "-f", "a", "--read-only"}, "missing.db"));
    EXPECT_EQ(database.status, 3);
    EXPECT_THAT(database.err, HasSubstr("missing.db"));
    EXPECT_FALSE(std::filesystem::exists(m_directory / "missing.db"));
    const CtlResult folder = runCtl(without({"views"}, "no/such/folder.db"));
    EXPECT_EQ(folder.status, 3);
    const CtlResult agent = runCtl({"views", "--socket", (m_directory / "none.sock").string()});
    EXPECT_EQ(agent.status, 3);
    EXPECT_THAT(agent.err, HasSubstr("no agent answers at"));
    EXPECT_THAT(agent.err, HasSubstr("--standalone"));
    EXPECT_EQ(runCtl({"views", "--socket", std::string(300, 'x')}).status, 3);
}

TEST_F(Standalone, CommandsThatAskCreateNoDatabase) {
    QOR_ONLY_ON(ASEngine::SQLite);
    const Words commands[] = {
        {"select", "--view", "vOpLog", "-f", "id"},
        {"rows", "-f", "pager.op_log.id"},
        {"views"},
        {"fields"},
        {"request"},
    };
    const test::TemporaryDirectory folder;
    const std::string file = (folder / "none.db").string();
    for (const Words& command : commands) {
        for (const bool readOnly : {false, true}) {
            Words words = command;
            words.insert(words.end(), {"--standalone", "--database", "Driver=SQLite3;Database=" + file});
            if (readOnly) words.emplace_back("--read-only");
            const CtlResult result = runCtl(words, "{}");
            EXPECT_EQ(result.status, 3) << command.front() << result.err;
            EXPECT_THAT(result.err, HasSubstr(file));
            EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << command.front();
        }
    }
}

TEST_F(Standalone, BadUsageIsToldApart) {
    struct Case {
        Words arguments;
        const char* text;
    };
    const Case cases[] = {
        {{}, "A subcommand is required"},
        {{"nosuch"}, "there is no command \"nosuch\""},
        {{"select", "-f", "a"}, "--view is required"},
        {{"rows"}, "--field is required"},
        {{"select", "v", "-f", "a", "--since", "soon"}, "--since \"soon\" is no time"},
        {{"rows", "things"}, "\"things\" is none of environments, operations, events, backups"},
        {{"log", "--follow", "--standalone", "--database", "x"}, "following needs an agent"},
        {{"log", "--follow", "-o", "json"}, "--follow never has"},
        {{"log", "--follow", "--limit", "1"}, "--limit excludes --follow"},
        {{"log", "--watch", "soon"}, "--watch takes a duration"},
        {{"timeline", "--standalone", "--database", "x"}, "the timeline needs an agent"},
        {{"select", "--view", "v", "-f", "a", "--bad"}, "--bad"},
        {{"select", "--view", "v", "-f", "a", "-o", "yml"}, "yml"},
        {{"select", "--view", "v", "-f", "a", "--limit", "x"}, "--limit"},
        {{"select", "--view", "v", "-f", "a", "--limit", "-1"}, "--limit must lie between 0 and 2147483647"},
        {{"select", "--view", "v", "-f", "a", "--where", "a = )"}, "\n  a = )\n      ^\n"},
        {{"select", "--view", "v", "-f", "a", "--where", ""}, "expected a column or a value"},
        {{"select", "--view", "v", "-f", "a", "--client", "x"}, "--client"},
        {{"views", "--standalone"}, "--standalone needs a database"},
        {{"views", "--read-only"}, "need --database or --standalone"},
        {{"views", "--standalone", "--database", "x", "--socket", "y"}, "exclude each other"},
        {{"import", "--read-only", "--standalone", "--database", "x"}, "--read-only"},
        {{"import", "/no/such/file", "--standalone", "--database", "x"}, "cannot open /no/such/file"},
        {{"request", "/no/such/file"}, "cannot open /no/such/file"},
        {{"sample", "--standalone", "--database", "x"}, "say how much"},
        {{"sample", "--environments", "1", "--output", "/no/such/file"}, "cannot write /no/such/file"},
    };
    for (const Case& usage : cases) {
        const CtlResult result = runCtl(usage.arguments);
        EXPECT_EQ(result.status, 2) << testing::PrintToString(usage.arguments) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, StartsWith("qorctl: "));
        EXPECT_THAT(result.err, HasSubstr(usage.text));
    }
}

TEST_F(Standalone, ADatabaseIsAskedWithoutAnAgent) {
    ASSERT_EQ(runCtl(with({"import"}), records).status, 0);
    Words words = with({"select", "vOpLog", "-f", "id", "--where", "id = 'a'", "-o", "csv"});
    words.erase(std::remove(words.begin(), words.end(), "--standalone"), words.end());
    EXPECT_EQ(runCtl(words).out, "id\r\na\r\n");
}

TEST_F(Standalone, HelpIsNoError) {
    for (const Words& arguments :
         {Words{"--help"}, Words{"select", "--help"}, Words{"--version"}, Words{"--help-all"}}) {
        const CtlResult result = runCtl(arguments);
        EXPECT_EQ(result.status, 0);
        EXPECT_NE(result.out, "");
        EXPECT_EQ(result.err, "");
    }
}

TEST_F(Standalone, AnOutputThatCannotBeWrittenIsTold) {
    ASSERT_EQ(runCtl(with({"import"}), records).status, 0);
    std::string line = ctlProgram();
    for (const std::string& word : with({"select", "--view", "vOpLog", "-f", "id"}))
        line += " '" + word + "'";
    CtlProcess process({"/bin/sh", "-c", line + " > /dev/full"});
    const CtlResult result = process.finish();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("cannot write the output"));
}

// ---- when the agent goes ----------------------------------------------------------------------------------------

TEST(Agent, ThatHangsIsGivenUpInTime) {
    AgentProcess agent;
    ::kill(agent.pid(), SIGSTOP);
    for (const Words& words : {Words{"log"}, Words{"status"}, Words{"views"}, Words{"export"}, Words{"check"}}) {
        Words command = words;
        command.insert(command.end(), {"--timeout", "1s", "--socket", agent.socketPath()});
        const CtlResult result = runCtl(command);
        EXPECT_EQ(result.status, 3) << words.front();
        EXPECT_THAT(result.err, HasSubstr("no answer has come within 1 s (--timeout)")) << words.front();
    }
    ::kill(agent.pid(), SIGCONT);
}

TEST(Lines, AnAgentThatGoesAwayIsNoConnection) {
    AgentProcess agent;
    CtlProcess process({ctlProgram(), "request", "--lines", "--socket", agent.socketPath()});
    const std::string request = R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vNone"]]]})";
    process.write(request + "\n");
    EXPECT_THAT(process.readLine(), HasSubstr("invalid view"));
    agent.kill();
    process.write(request + "\n");
    // Its input stays open: it must not wait for more of it.
    EXPECT_EQ(process.readLine(), "");
    const CtlResult result = process.finish();
    EXPECT_EQ(result.status, 3);
    EXPECT_THAT(result.err, HasSubstr("lost the agent at " + agent.socketPath()));
}

TEST(Agent, RecordsLargerThanItTakesAreRefusedWithItsOwnWords) {
    AgentProcess agent({.more = {"--body-limit", "500"}});
    const CtlResult result = runCtl({"import", "--socket", agent.socketPath()}, records);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("error 413: "));
    EXPECT_THAT(runCtl({"status", "-o", "csv", "--socket", agent.socketPath()}).out,
                HasSubstr("\r\nlimit body-limit met,1\r\n"));
}

}  // namespace
}  // namespace QOR::test
