#include "ingest/QORRecords.h"

#include "QORCommon/QORException.h"
#include "ingest/JsonTree.h"

namespace QOR {
namespace {

constexpr const char* firstEid = "aaaaaaaa-0000-4000-8000-000000000001";
constexpr const char* secondEid = "bbbbbbbb-0000-4000-8000-000000000002";

template <class Record>
Record parsed(const std::string& line) {
    QORRecordParser parser;
    return std::get<Record>(parser.parse(line));
}

std::string refusal(const std::string& line) {
    QORRecordParser parser;
    try {
        parser.parse(line);
    } catch (const QORException& error) {
        EXPECT_EQ(error.code(), errBadRequest);
        return error.message();
    }
    return "accepted";
}

TEST(QORRecordsTest, AnEnvironmentWithEverything) {
    const auto record = parsed<QOREnvironmentRecord>(
        R"({"kind":"environment","eid":"{AAAAAAAA-0000-4000-8000-000000000001}",)"
        R"("parent_eid":"bbbbbbbb-0000-4000-8000-000000000002","title":"web 1","state":6,"transition":-1,)"
        R"("config":{"name":"n","description":"d","domain":"example.com","hostname":"web1","architecture":"x86_64",)"
        R"("type":"host","os":{"name":"Debian","platform":"linux","version":"12","kernel":"6.1"},)"
        R"("ip":["10.0.0.1","10.0.0.2"],"memory":2048,"boot_time":"2024-01-01","tags":["a","b"]},)"
        R"("virtual_config":{"hostname":"inner","ip":[],"base_sample_id":"s","base_snapshot_id":null}})");
    EXPECT_EQ(record.eid.toString(), firstEid);
    EXPECT_EQ(record.parentEid.toString(), secondEid);
    EXPECT_EQ(record.title, "web 1");
    EXPECT_EQ(record.state, 6);
    EXPECT_EQ(record.transition, -1);
    ASSERT_TRUE(record.config);
    EXPECT_EQ(record.config->text(QOREnvMember::Name), "n");
    EXPECT_EQ(record.config->text(QOREnvMember::Description), "d");
    EXPECT_EQ(record.config->text(QOREnvMember::Domain), "example.com");
    EXPECT_EQ(record.config->text(QOREnvMember::Hostname), "web1");
    EXPECT_EQ(record.config->text(QOREnvMember::Architecture), "x86_64");
    EXPECT_EQ(record.config->text(QOREnvMember::Type), "host");
    EXPECT_EQ(record.config->text(QOREnvMember::OsName), "Debian");
    EXPECT_EQ(record.config->text(QOREnvMember::OsPlatform), "linux");
    EXPECT_EQ(record.config->text(QOREnvMember::OsVersion), "12");
    EXPECT_EQ(record.config->text(QOREnvMember::OsKernel), "6.1");
    EXPECT_EQ(record.config->addresses, (std::vector<std::string>{"10.0.0.1", "10.0.0.2"}));
    EXPECT_EQ(record.config->memory, 2048);
    EXPECT_EQ(record.config->bootTime, 1704067200);
    EXPECT_EQ(record.config->document.getParameterByPath("os/version"), "12");
    EXPECT_EQ(record.config->document.children().back().value(), "b");
    ASSERT_TRUE(record.virtualConfig);
    EXPECT_EQ(record.virtualConfig->text(QOREnvMember::Hostname), "inner");
    EXPECT_EQ(record.virtualConfig->text(QOREnvMember::Name), std::nullopt);
    EXPECT_EQ(record.virtualConfig->document.getParameterByPath("base_sample_id"), "s");
}

TEST(QORRecordsTest, NullIsNoTextInAColumnAndTheEmptyOneInTheConfiguration) {
    const auto record = parsed<QOREnvironmentRecord>(
        std::string(R"({"kind":"environment","eid":")") + firstEid +
        R"(","config":{"name":null,"domain":"","os":{"kernel":null,"version":""},"ip":["","10.0.0.1"]}})");
    ASSERT_TRUE(record.config);
    EXPECT_EQ(record.config->text(QOREnvMember::Name), std::nullopt);
    EXPECT_EQ(record.config->text(QOREnvMember::Domain), "");
    EXPECT_EQ(record.config->text(QOREnvMember::OsKernel), std::nullopt);
    EXPECT_EQ(record.config->text(QOREnvMember::OsVersion), "");
    EXPECT_EQ(record.config->text(QOREnvMember::Hostname), std::nullopt);
    EXPECT_EQ(record.config->addresses, (std::vector<std::string>{"", "10.0.0.1"}));
    const QOREnvConfig& config = *record.config->config;
    for (const QOREnvMember member : {QOREnvMember::Name, QOREnvMember::Domain, QOREnvMember::OsKernel})
        EXPECT_EQ(config.text(member), "");
    EXPECT_EQ(config.text(QOREnvMember::Hostname), std::nullopt);
    EXPECT_EQ(config.addresses(), (std::vector<std::string>{"10.0.0.1"}));
}

TEST(QORRecordsTest, AnEnvironmentWithTheLeast) {
    const auto record =
        parsed<QOREnvironmentRecord>(std::string(R"({"eid":")") + firstEid + R"(","kind":"environment"})");
    EXPECT_FALSE(record.parentEid.isValid());
    EXPECT_EQ(record.title, std::nullopt);
    EXPECT_EQ(record.state, 0);
    EXPECT_FALSE(record.config);
    EXPECT_FALSE(record.virtualConfig);
}

TEST(QORRecordsTest, AnOperation) {
    const auto record = parsed<QOROperationRecord>(
        R"({"kind":"operation","id":"op-1","parent_id":"op-0","op":"start","status":-5,"time":1704067200,)"
        R"("eid":"aaaaaaaa-0000-4000-8000-000000000001","eids":["bbbbbbbb-0000-4000-8000-000000000002",)"
        R"("AAAAAAAA-0000-4000-8000-000000000001","bbbbbbbb-0000-4000-8000-000000000002"],"message":{"task_id":7}})");
    EXPECT_EQ(record.id, "op-1");
    EXPECT_EQ(record.parentId, "op-0");
    EXPECT_EQ(record.op, "start");
    EXPECT_EQ(record.status, -5);
    EXPECT_EQ(record.time, 1704067200);
    EXPECT_EQ(record.eid.toString(), firstEid);
    ASSERT_EQ(record.eids.size(), 2U);
    EXPECT_EQ(record.eids[0].toString(), secondEid);
    EXPECT_EQ(record.eids[1].toString(), firstEid);
    EXPECT_EQ(record.message->getParameterByPath("task_id"), "7");
}

TEST(QORRecordsTest, AnEvent) {
    const auto record = parsed<QOREventRecord>(
        R"({"kind":"event","time":"2024-01-01T00:00:00+01:00","eid":"","source":"agent","category":"env_status","info":{}})");
    EXPECT_EQ(record.time, 1704067200 - 3600);
    EXPECT_FALSE(record.eid.isValid());
    EXPECT_EQ(record.source, "agent");
    EXPECT_EQ(record.category, "env_status");
    EXPECT_TRUE(record.info && record.info->empty());
}

TEST(QORRecordsTest, ABackup) {
    const auto record = parsed<QORBackupRecord>(
        R"({"kind":"backup","id":"b-1","eid":"aaaaaaaa-0000-4000-8000-000000000001","storage_eid":null,"time":0,)"
        R"("size":9223372036854775807,"type":2,"description":null,"name":"n","hostname":"h","info":{"veid":"101"}})");
    EXPECT_EQ(record.id, "b-1");
    EXPECT_FALSE(record.storageEid.isValid());
    EXPECT_EQ(record.size, 9223372036854775807);
    EXPECT_EQ(record.type, 2);
    EXPECT_EQ(record.description, std::nullopt);
    EXPECT_EQ(record.info->getParameterByPath("veid"), "101");
}

TEST(QORRecordsTest, ObjectsArraysAndScalarsBecomeParameters) {
    const auto record = parsed<QOREventRecord>(
        R"({"kind":"event","time":1,"info":{"t":"x","n":1.50e3,"b":true,"f":false,"z":null,"none":[],"o":{},)"
        R"("list":["a",2,{"k":"v"},["p",["q"]]],"deep":{"er":{"est":"end"}}}})");
    EXPECT_EQ(record.info->serializeToString(),
              "<info><t>x</t><n>1.50e3</n><b>true</b><f>false</f><z/><o/>"
              "<list>a</list><list>2</list><list><k>v</k></list><list><item>p</item><item><item>q</item></item></list>"
              "<deep><er><est>end</est></er></deep></info>");
}

std::string nestedEvent(std::size_t depth, const char* open, const char* close) {
    std::string line = R"({"kind":"event","time":1,"info":{"p":)";
    for (std::size_t i = 1; i < depth; ++i)
        line += open;
    line += "1";
    for (std::size_t i = 1; i < depth; ++i)
        line += close;
    return line + "}}";
}

TEST(QORRecordsTest, DepthOfDocumentsIsBounded) {
    EXPECT_EQ(parsed<QOREventRecord>(nestedEvent(QORInfo::maxDepth, R"({"p":)", "}")).info->depth(), QORInfo::maxDepth);
    EXPECT_EQ(refusal(nestedEvent(QORInfo::maxDepth + 1, R"({"p":)", "}")),
              "an info document is deeper than 64 levels");
    EXPECT_THAT(refusal(nestedEvent(100000, R"({"p":)", "}")), ::testing::StartsWith("nested deeper than 136 levels"));
    EXPECT_THAT(refusal(nestedEvent(100000, "[", "]")), ::testing::StartsWith("nested deeper than 136 levels"));
}

TEST(QORRecordsTest, ValuesInALineAreBounded) {
    std::string line = R"({"kind":"event","time":1,"info":{"p":[0)";
    for (std::size_t i = 0; i < JsonTree::maxValues; ++i)
        line += ",0";
    EXPECT_THAT(refusal(line + "]}}"), ::testing::StartsWith("more than 200000 values"));
}

TEST(QORRecordsTest, TheSecondBeforeTheEpochIsATime) {
    QORRecordParser parser;
    for (const char* time : {"-1", "\"1969-12-31 23:59:59\"", "\"1970-01-01T01:59:59+02:00\""}) {
        const std::string line = std::string(R"({"kind":"event","time":)") + time + "}";
        EXPECT_EQ(std::get<QOREventRecord>(parser.parse(line)).time, -1) << time;
    }
}

TEST(QORRecordsTest, AParserGoesOnAfterABadLine) {
    QORRecordParser parser;
    EXPECT_THROW(parser.parse(R"({"kind":"event","info":{"a":[[{)"), QORException);
    EXPECT_EQ(std::get<QOREventRecord>(parser.parse(R"({"kind":"event","time":5})")).time, 5);
}

struct RefusedCase {
    const char* rule;
    std::string line;
    const char* reason;
};

class RefusedRecords : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(RefusedRecords, AreRefusedWithTheReason) {
    EXPECT_EQ(refusal(GetParam().line), GetParam().reason);
}

struct BrokenCase {
    const char* rule;
    std::string line;
    int byte;
};

class BrokenLines : public ::testing::TestWithParam<BrokenCase> {};

TEST_P(BrokenLines, AreRefusedWithThePlace) {
    EXPECT_THAT(refusal(GetParam().line), ::testing::StartsWith("not JSON: "));
    EXPECT_THAT(refusal(GetParam().line), ::testing::EndsWith(" (byte " + std::to_string(GetParam().byte) + ")"));
}

INSTANTIATE_TEST_SUITE_P(All, BrokenLines,
                         ::testing::Values(BrokenCase{"NoJson", "hello", 0},
                                           BrokenCase{"CutShort", R"({"kind":"event")", 15},
                                           BrokenCase{"TwoOnALine", R"({"kind":"event","time":1} {})", 26},
                                           BrokenCase{"NotUtf8", "{\"kind\":\"ev\xFF\"}", 11},
                                           BrokenCase{"HalfACharacterPair", R"({"kind":"\ud800"})", 9},
                                           BrokenCase{"TrailingComma", R"({"kind":"event",})", 16}),
                         [](const auto& tested) { return tested.param.rule; });

const std::string environment = R"({"kind":"environment","eid":"aaaaaaaa-0000-4000-8000-000000000001")";

INSTANTIATE_TEST_SUITE_P(
    All, RefusedRecords,
    ::testing::Values(
        RefusedCase{"NulByte", std::string("{\"kind\":\"event\",\"time\":1}\0{}", 28), "a NUL byte at byte 25"},
        RefusedCase{"NoObject", "[1]", "a record is a JSON object, not an array"},
        RefusedCase{"NoKind", "{}", "member \"kind\" is missing"},
        RefusedCase{"UnknownKind", R"({"kind":"person"})", "unknown kind \"person\""},
        RefusedCase{"UnknownKindThatResemblesOne", R"({"kind":"operaton"})",
                    "unknown kind \"operaton\" (did you mean operation?)"},
        RefusedCase{"UnknownMemberThatResemblesOne", environment + R"(,"tilte":"x"})",
                    "unknown member \"tilte\" (did you mean title?)"},
        RefusedCase{"KindIsNoText", R"({"kind":4})", "unknown kind 4"},
        RefusedCase{"UnknownMember", environment + R"(,"colour":"red"})", "unknown member \"colour\""},
        RefusedCase{"MemberTwice", environment + R"(,"state":1,"state":2})", "member \"state\" is there twice"},
        RefusedCase{"MemberOfAnotherKind", environment + R"(,"time":1})",
                    "unknown member \"time\" (did you mean title?)"},
        RefusedCase{"NoEid", R"({"kind":"environment"})", "member \"eid\" is missing"},
        RefusedCase{"EidIsNull", R"({"kind":"environment","eid":null})",
                    "member \"eid\": null is not the GUID of an environment"},
        RefusedCase{"EidIsEmpty", R"({"kind":"environment","eid":""})",
                    "member \"eid\": \"\" is not the GUID of an environment"},
        RefusedCase{"EidIsNil", R"({"kind":"environment","eid":"00000000-0000-0000-0000-000000000000"})",
                    "member \"eid\": \"00000000-0000-0000-0000-000000000000\" is not the GUID of an environment"},
        RefusedCase{"BadGuid", R"({"kind":"environment","eid":"web1"})", "member \"eid\": \"web1\" is not a GUID"},
        RefusedCase{"BadParent", environment + R"(,"parent_eid":7})", "member \"parent_eid\": 7 is not a GUID"},
        RefusedCase{"TitleIsNoText", environment + R"(,"title":7})", "member \"title\": 7 is not a text"},
        RefusedCase{"TextWithNul", environment + R"(,"title":"a\u0000b"})",
                    "member \"title\": \"a\\x00b\" is not a text without NUL characters"},
        RefusedCase{"StateIsAText", environment + R"(,"state":"6"})",
                    "member \"state\": \"6\" is not an integer of 32 bits"},
        RefusedCase{"StateIsAFraction", environment + R"(,"state":6.0})",
                    "member \"state\": 6.0 is not an integer of 32 bits"},
        RefusedCase{"StateIsTooLarge", environment + R"(,"state":2147483648})",
                    "member \"state\": 2147483648 is not an integer of 32 bits"},
        RefusedCase{"ConfigIsNoObject", environment + R"(,"config":[]})",
                    "member \"config\": an array is not an object"},
        RefusedCase{"HostnameIsNoText", environment + R"(,"config":{"hostname":5}})",
                    "member \"config.hostname\": 5 is not a text"},
        RefusedCase{"OsIsNoObject", environment + R"(,"virtual_config":{"os":"linux"}})",
                    "member \"virtual_config.os\": \"linux\" is not an object"},
        RefusedCase{"OsVersionIsNoText", environment + R"(,"config":{"os":{"version":12}}})",
                    "member \"config.os.version\": 12 is not a text"},
        RefusedCase{"AddressesAreNoArray", environment + R"(,"config":{"ip":"10.0.0.1"}})",
                    "member \"config.ip\": \"10.0.0.1\" is not an array of texts"},
        RefusedCase{"AddressIsNoText", environment + R"(,"config":{"ip":["10.0.0.1",4]}})",
                    "member \"config.ip\": 4 is not a text"},
        RefusedCase{"NoOperationId", R"({"kind":"operation","time":1})", "member \"id\" is missing"},
        RefusedCase{"EmptyOperationId", R"({"kind":"operation","time":1,"id":""})",
                    "member \"id\": \"\" is not an identifier"},
        RefusedCase{"NoTime", R"({"kind":"operation","id":"a"})", "member \"time\" is missing"},
        RefusedCase{"TimeIsNull", R"({"kind":"event","time":null})",
                    "member \"time\": null is not a time (whole seconds since 1970, or a text such as "
                    "\"2024-01-31T12:00:00Z\")"},
        RefusedCase{"TimeIsNoTime", R"({"kind":"event","time":"yesterday"})",
                    "member \"time\": \"yesterday\" is not a time (whole seconds since 1970, or a text such as "
                    "\"2024-01-31T12:00:00Z\")"},
        RefusedCase{"TimeIsAFraction", R"({"kind":"event","time":1.5})",
                    "member \"time\": 1.5 is not a time (whole seconds since 1970, or a text such as "
                    "\"2024-01-31T12:00:00Z\")"},
        RefusedCase{"TimeBeyondTheCalendar", R"({"kind":"event","time":253402300800})",
                    "member \"time\": 253402300800 is not a time (whole seconds since 1970, or a text such as "
                    "\"2024-01-31T12:00:00Z\")"},
        RefusedCase{"EidsAreNoArray", R"({"kind":"operation","id":"a","time":1,"eids":"x"})",
                    "member \"eids\": \"x\" is not an array of GUIDs"},
        RefusedCase{"EidsHoldNoGuid", R"({"kind":"operation","id":"a","time":1,"eids":["x"]})",
                    "member \"eids\": \"x\" is not a GUID"},
        RefusedCase{"MessageIsAText", R"({"kind":"operation","id":"a","time":1,"message":"x"})",
                    "member \"message\": \"x\" is not an object"},
        RefusedCase{"NegativeSize", R"({"kind":"backup","id":"a","time":1,"size":-1})",
                    "member \"size\": -1 is not a size (a whole number from 0 to 9223372036854775807)"}),
    [](const auto& tested) { return tested.param.rule; });

}  // namespace
}  // namespace QOR
