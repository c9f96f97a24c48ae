// qorctl rows and qorctl fields, against a real agent and with the host in qorctl's own process; and what a person is
// told about conditions that have no effect.
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ctl/BothWays.h"
#include "rows/RowsAdvice.h"

namespace QOR::test {
namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

const std::string records =
    R"({"kind":"operation","id":"a","op":"install","status":0,"time":"2024-01-01 10:00:00","eid":"11111111-1111-1111-1111-111111111111","eids":["11111111-1111-1111-1111-111111111111","22222222-2222-2222-2222-222222222222"]}
{"kind":"operation","id":"b","op":"remove","status":7,"time":"2024-01-02 10:00:00","eid":"11111111-1111-1111-1111-111111111111","message":{"package":{"name":"zlib"}}}
{"kind":"event","time":"2024-01-02 10:00:00","source":"cpu","category":"resource_alert"}
{"kind":"backup","id":"k","time":"2024-01-03 10:00:00","name":"web","size":5}
)";

class RowsCommand : public BothWays {
protected:
    void SetUp() override {
        std::ofstream(vocabulary())
            << R"(<vocabulary><category name="pager_fields"><parameter id="my.field">)"
               R"(<source>env/config/mine</source><type>int</type></parameter></category></vocabulary>)";
        begin({"--config", vocabulary()});
        const CtlResult result = run({"import"}, records);
        ASSERT_EQ(result.status, 0) << result.err;
    }
    std::string vocabulary() const { return (m_directory / "my.xml").string(); }
};
INSTANTIATE_TEST_SUITE_P(Ctl, RowsCommand, bothWays, nameOfWay);

TEST_P(RowsCommand, PrintsATable) {
    EXPECT_EQ(outputOf({"rows", "-f", "pager.op_log.id", "-f", "pager.op_log.status", "--count"}),
              "pager.op_log.id  pager.op_log.status\n"
              "---------------  -------------------\n"
              "b                                  7\n"
              "a                                  0\n"
              "\n"
              "2 of 2 rows\n");
}

TEST_P(RowsCommand, PrintsListsAsOneText) {
    EXPECT_EQ(
        outputOf({"rows", "-f", "pager.op_log_eid.eid", "pager.op_log.parameter.package.name", "--where",
                  "pager.op_log.time >= '2024-01-01' and pager.op_log.time <= '2024-01-01T23:59:59'", "-o", "json"}),
        "[\n{\"pager.op_log_eid.eid\":\"11111111-1111-1111-1111-111111111111, "
        "22222222-2222-2222-2222-222222222222\",\"pager.op_log.parameter.package.name\":\"\"}\n]\n");
}

TEST_P(RowsCommand, PrintsPagesAndCounts) {
    const CtlResult page =
        run({"rows", "-f", "pager.op_log.id", "--limit", "1", "--offset", "1", "--count", "-o", "csv"});
    EXPECT_EQ(page.status, 0);
    EXPECT_EQ(page.out, "pager.op_log.id\r\na\r\n");
    EXPECT_THAT(page.err, HasSubstr("1 of 2 rows"));
    EXPECT_EQ(outputOf({"rows", "-f", "pager.event_log.source", "--where", "pager.event_log.category='resource_alert'",
                        "-o", "csv"}),
              "pager.event_log.source\r\ncpu\r\n");
    EXPECT_EQ(outputOf({"rows", "-f", "pager.backup.id", "pager.backup.time", "--where",
                        "pager.backup.info.name like 'w%'", "-o", "csv"}),
              "pager.backup.id,pager.backup.time\r\nk,2024-01-03T10:00:00+0000\r\n");
}

TEST_P(RowsCommand, NamesInFiltersMatchInAnyCase) {
    const std::string operations = outputOf({"rows", "-f", "pager.op_log.id", "--where",
                                             "pager.op_log.time >= '2024-01-01' and "
                                             "pager.op_log.time <= '2024-01-01T23:59:59'",
                                             "-o", "csv"});
    EXPECT_EQ(
        outputOf({"rows", "-f", "pager.op_log.id", "--where",
                  "PAGER.OP_LOG.TIME >= '2024-01-01' AND Pager.Op_Log.Time <= '2024-01-01T23:59:59'", "-o", "csv"}),
        operations);
    const std::string eid = "'11111111-1111-1111-1111-111111111111'";
    EXPECT_EQ(
        outputOf({"rows", "-f", "pager.op_log.id", "--where", "Pager.OP_log.Parameter.ENV.Eid = " + eid, "-o", "csv"}),
        outputOf({"rows", "-f", "pager.op_log.id", "--where", "pager.op_log.parameter.env.eid = " + eid, "-o", "csv"}));
    EXPECT_EQ(outputOf({"rows", "-f", "pager.event_log.source", "--where", "PAGER.event_log.CATEGORY='resource_alert'",
                        "-o", "csv"}),
              "pager.event_log.source\r\ncpu\r\n");
    EXPECT_EQ(outputOf({"rows", "-f", "pager.backup.id", "--where", "PAGER.BACKUP.INFO.NAME like 'w%'", "-o", "csv"}),
              "pager.backup.id\r\nk\r\n");
}

TEST_P(RowsCommand, NamesThatFieldsListsMayStandInFiltersEverywhere) {
    std::istringstream listed(outputOf({"fields", "-o", "csv"}));
    std::string all;
    std::string ofRows;
    std::string line;
    std::getline(listed, line);
    while (std::getline(listed, line)) {
        std::string name = line.substr(0, line.find(','));
        if (name.back() == '*') name.pop_back();  // the shortest name that begins with a prefix
        const std::string condition = name + " = " + name;
        all += (all.empty() ? "" : " and ") + condition;
        // Stands only beside the unit that the language puts there.
        if (name != "pager.env.eid.InPlaceholder") ofRows += (ofRows.empty() ? "" : " and ") + condition;
    }
    for (const char* name : {"my.field", "pager.env.config.memory", "pager.backup.", "pager.op_log.parameter."})
        EXPECT_THAT(all, HasSubstr(std::string(name) + " = " + name));
    const CtlResult shown = runCtl({"filter", "--config", vocabulary(), all});
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_THAT(shown.out, ContainsRegex("my.field +integer, environments"));
    const CtlResult asked = run({"rows", "-f", "pager.event_log.source", "--where", ofRows});
    EXPECT_EQ(asked.status, 0) << asked.err;
}

TEST_P(RowsCommand, AsksAsAnotherClientWhoSeesOperationsOfItsOwnButNoneThatOnlyTouchIt) {
    const auto seenBy = [this](const char* client) {
        return outputOf({"rows", "-f", "pager.op_log.id", "--client", client, "-o", "csv"});
    };
    EXPECT_EQ(seenBy("11111111-1111-1111-1111-111111111111"), "pager.op_log.id\r\nb\r\na\r\n");
    EXPECT_EQ(seenBy("22222222-2222-2222-2222-222222222222"), "pager.op_log.id\r\n");
}

TEST_P(RowsCommand, EndsWithTheAnswersError) {
    const CtlResult result = run({"rows", "-f", "nothing"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(R"(3111)"));
    EXPECT_THAT(result.err, HasSubstr(R"(unknown field "nothing")"));
}

TEST_P(RowsCommand, SaysWhatHasNoEffectAndWhatDoesIt) {
    const CtlResult result =
        run({"rows", "-f", "pager.op_log.id", "--sort", "pager.op_log.status", "--narrow", "-o", "csv"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "pager.op_log.id\r\nb\r\na\r\n");
    EXPECT_THAT(result.err, HasSubstr("--sort has no effect"));
    EXPECT_THAT(result.err, HasSubstr("qorctl select --view vOpLog -f id --sort status"));
}

TEST_P(RowsCommand, AFilterMeansWhatItSaysAndRowsAreSorted) {
    const CtlResult failed =
        run({"rows", "-f", "pager.op_log.id", "--where", "pager.op_log.status != 0", "--count", "-o", "csv"});
    EXPECT_EQ(failed.out, "pager.op_log.id\r\nb\r\n");
    EXPECT_THAT(failed.err, HasSubstr("1 of 1 row"));
    EXPECT_THAT(failed.err, testing::Not(HasSubstr("no effect")));
    EXPECT_EQ(outputOf({"rows", "-f", "pager.op_log.id", "--sort", "pager.op_log.status", "-o", "csv"}),
              "pager.op_log.id\r\na\r\nb\r\n");
    EXPECT_EQ(
        run({"rows", "-f", "pager.op_log.id", "--where", "pager.op_log.status != 0", "--narrow", "-o", "csv"}).out,
        "pager.op_log.id\r\nb\r\na\r\n");
    EXPECT_EQ(outputOf({"rows", "-f", "pager.event_log.source", "-o", "csv"}), "pager.event_log.source\r\ncpu\r\n");
}

TEST_P(RowsCommand, FieldsListsWhatCanBeAskedFor) {
    const std::string all = outputOf({"fields", "-o", "csv"});
    EXPECT_THAT(all, StartsWith("field,source,type,values\r\n"));
    for (const char* line :
         {"my.field,environments,int,one\r\n", "pager.op_log_eid.eid,operation log,string,list\r\n",
          "pager.op_log.status,operation log,int,one\r\n", "pager.event_log.parameter.*,event log,string,one\r\n",
          "pager.backup.time,backups,time,one\r\n", "pager.backup.*,backups,string,one\r\n"}) {
        EXPECT_THAT(all, HasSubstr(line));
    }
    EXPECT_EQ(outputOf({"fields", "my.", "-o", "csv"}),
              "field,source,type,values\r\nmy.field,environments,int,one\r\n");
}

struct AdviceRow {
    const char* field;
    const char* where;
    bool wholly;
};

TEST(RowsAdvice, TellsConditionsThatHaveNoEffect) {
    constexpr const char* op = "pager.op_log.id";
    constexpr const char* event = "pager.event_log.time";
    constexpr const char* backup = "pager.backup.id";
    const std::vector<AdviceRow> rows{
        {op, "pager.op_log.time >= '2024-01-01' and pager.op_log.time <= '2024-02-01'", true},
        {op, "pager.op_log.time >= '2024-01-01' and pager.op_log.parameter.env.eid = 'x'", true},
        {op, "(pager.op_log.parameter.env.eid = 'x')", true},
        {op, "pager.op_log.time > '2024-01-01'", false},
        {op, "pager.op_log.time >= '2024-01-01' or pager.op_log.time <= '2024-02-01'", false},
        {op, "pager.op_log.time >= '2024-01-01' and pager.op_log.time >= '2024-02-01'", false},
        {op, "'2024-01-01' <= pager.op_log.time", false},
        {op, "pager.op_log.status = 1", false},
        {op, "not (pager.op_log.parameter.env.eid = 'x')", false},
        {op, "true", false},
        {op, "no filter at all", true},
        {event, "pager.event_log.category='env_status'", true},
        {event, "pager.event_log.category='env_status' or pager.event_log.category='resource_alert'", true},
        {event, "(pager.event_log.category='env_status') and pager.event_log.time >= '2024-01-01'", true},
        {event, "pager.event_log.category = 'env_status'", false},
        {event, "pager.event_log.category='other'", false},
        {event, "pager.event_log.category='env_status' or pager.event_log.time >= '2024-01-01'", false},
        {backup, "pager.backup.info.name like 'a%'", true},
        {backup, "lower(pager.backup.info.name) like 'a%' and pager.backup.storage_eid = 'x'", true},
        {backup, "pager.backup.info.name like 'a%' and pager.backup.info.hostname like 'b'", false},
        {backup, "pager.backup.time >= 1 and pager.backup.time <= 2", true},
        {backup, "pager.backup.time >= 1 and pager.backup.info.ip like '10'", false},
        {backup, "pager.backup.id = 'x'", false},
    };
    for (const AdviceRow& row : rows) {
        RowsOptions options;
        options.fields = {row.field};
        options.where = row.where;
        EXPECT_THAT(adviseOnRows(options), IsEmpty()) << "all of an exact request has an effect";
        options.narrow = true;
        if (row.wholly) {
            EXPECT_THAT(adviseOnRows(options), IsEmpty()) << row.where;
        } else {
            EXPECT_THAT(adviseOnRows(options),
                        ElementsAre(HasSubstr("--where holds conditions"), HasSubstr("qorctl select --view ")))
                << row.where;
        }
    }
}

TEST(RowsAdvice, NamesTheViewOfTheSource) {
    RowsOptions options;
    options.narrow = true;
    options.fields = {"pager.env.title", "pager.env.eid"};
    EXPECT_THAT(adviseOnRows(options), ElementsAre(HasSubstr("environments are not listed"),
                                                   HasSubstr("qorctl select --view vEnvironment -f title -f eid")));
    options.fields = {"pager.backup.size"};
    options.limit = 5;
    EXPECT_THAT(adviseOnRows(options), ElementsAre(HasSubstr("--limit and --offset have no effect"),
                                                   HasSubstr("--view vBackupInfo -f size --limit 5")));
    options.fields = {"pager.event_log.parameter.x"};
    EXPECT_THAT(adviseOnRows(options),
                ElementsAre(HasSubstr("by their category only"), HasSubstr("--view vEventLog -f time --limit 5")));
    options.fields = {"somebody.elses"};
    EXPECT_THAT(adviseOnRows(options), IsEmpty());
}

}  // namespace
}  // namespace QOR::test
