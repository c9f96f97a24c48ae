// What every field reads from rows that have its value, from rows that lack it, and from rows of another kind.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "QORFunctionality/QORAccess.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORPager/QORBuiltInFields.h"
#include "QORPager/QORFieldGetters.h"
#include "QORPager/QORFieldSet.h"
#include "plugins/QORPager/Operators/Pager/Rows.h"
#include "support/Pager2Harness.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;

constexpr const char* infoXml =
    "<info><task_id>task</task_id><source_env><title>source title</title>"
    "<eid>cccccccc-0000-4000-8000-000000000003</eid><type>container</type></source_env></info>";
constexpr const char* messageXml =
    "<message><task_id>task</task_id><source_env><title>source title</title>"
    "<eid>cccccccc-0000-4000-8000-000000000003</eid><type>container</type></source_env></message>";
constexpr const char* epoch = "1970-01-01T00:00:00+0000";
constexpr const char* time = "2023-11-14T22:13:20+0000";

enum Kind { Environment, Operation, Event };

/// One field: what a row of its kind gives when it has the value, when it has nothing, and what a row of another kind
/// gives.
struct FieldRow {
    const char* name;
    Kind kind;
    std::string full;
    std::string lacking = {};
    std::string foreign = {};
};

const std::vector<FieldRow>& fieldRows() {
    static const std::vector<FieldRow> rows{
        {"pager.env.eid", Environment, eidA, eidA},
        {"pager.env.parent_eid", Environment, eidB},
        {"pager.env.parent_hostname", Environment, "c-hostname"},
        {"pager.env.eid.InPlaceholder", Environment, ""},
        {"pager.env.title", Environment, "title"},
        {"pager.env.state", Environment, "6", "0"},
        {"pager.env.transition", Environment, "3", "0"},
        {"pager.env.config.name", Environment, "c-name"},
        {"pager.env.config.description", Environment, "c-description"},
        {"pager.env.config.domain", Environment, "c-domain"},
        {"pager.env.config.hostname", Environment, "c-hostname"},
        {"pager.env.config.architecture", Environment, "c-architecture"},
        {"pager.env.config.type", Environment, "c-type"},
        {"pager.env.config.os.name", Environment, "c-os"},
        {"pager.env.config.os.platform", Environment, "c-platform"},
        {"pager.env.config.os.version", Environment, "c-version"},
        {"pager.env.config.ip_text", Environment, "c-1"},
        {"pager.env.config.ip", Environment, "c-1"},
        {"pager.env.vconfig.name", Environment, "v-name"},
        {"pager.env.vconfig.description", Environment, "v-description"},
        {"pager.env.vconfig.domain", Environment, "v-domain"},
        {"pager.env.vconfig.hostname", Environment, "v-hostname"},
        {"pager.env.vconfig.architecture", Environment, "v-architecture"},
        {"pager.env.vconfig.type", Environment, "v-type"},
        {"pager.env.vconfig.os.name", Environment, "v-os"},
        {"pager.env.vconfig.os.platform", Environment, "v-platform"},
        {"pager.env.vconfig.os.version", Environment, "v-version"},
        {"pager.env.vconfig.ip_text", Environment, "v-1"},
        {"pager.env.vconfig.ip", Environment, "v-1"},
        {"pager.env.vconfig.base_sample_id", Environment, "v-sample"},
        {"pager.env.vconfig.base_snapshot_id", Environment, "v-snapshot"},
        {"pager.op_log.origin.eid", Operation, eidC},
        {"pager.op_log.origin.type", Operation, "container"},
        {"pager.op_log.origin.title", Operation, "source title"},
        {"pager.op_log_eid.eid", Operation, eidA},
        {"pager.op_log.time", Operation, time, epoch},
        {"pager.op_log.id", Operation, "id"},
        {"pager.op_log.parent_id", Operation, "parent"},
        {"pager.op_log.op", Operation, "op"},
        {"pager.op_log.status", Operation, "-7", "0"},
        {"pager.op_log.message", Operation, infoXml},
        {"pager.op_log.messagexml", Operation, messageXml, "<message/>"},
        {"pager.op_log.latest", Operation, "true", "true", "true"},
        {"pager.op_log.task_id", Operation, "task"},
        {"pager.event_log.origin.eid", Event, eidC},
        {"pager.event_log.origin.type", Event, "container"},
        {"pager.event_log.origin.title", Event, "source title"},
        {"pager.event_log.time", Event, time, epoch},
        {"pager.event_log.source", Event, "source"},
        {"pager.event_log.category", Event, "category"},
        {"pager.event_log.info", Event, infoXml},
    };
    return rows;
}

ArgCSP fullRow(Kind kind) {
    switch (kind) {
        case Operation:
            return fullOperation();
        case Event:
            return fullEvent();
        default:
            return std::make_shared<QORArg>(fullEnv());
    }
}

ArgCSP lackingRow(Kind kind) {
    switch (kind) {
        case Operation:
            return std::make_shared<QORProgressArg>(nullptr);
        case Event:
            return std::make_shared<QOREventArg>(nullptr);
        default:
            return std::make_shared<QORArg>(bareEnv());
    }
}

/// A row of which the field is none. Rows of logs carry an environment, so only a row without one is foreign to those.
ArgCSP foreignRow(Kind kind) {
    switch (kind) {
        case Operation:
            return std::make_shared<QOREventArg>(nullptr);
        case Event:
            return fullOperation();
        default:
            return std::make_shared<QORProgressArg>(nullptr);
    }
}

class FieldValue : public ::testing::Test {
protected:
    void SetUp() override {
        envs.cache.update(
            {makeQORPtr<const QOREnv>(eid(eidB), QOREID(), std::nullopt, QOREnv::Status{}, fullConfig("c-"), nullptr)});
        fields.init(nullptr);
    }
    std::vector<std::string> valuesOf(const QORField& field, const QORArg& row) {
        std::vector<std::string> values;
        for (bool last = false; !last;) {
            last = true;
            values.push_back(field.getValue(row, last, static_cast<int>(values.size())));
        }
        return values;
    }
    QORField messageField(TValueType type, const std::string& path, const std::string& value = {},
                          QORFieldGetter getter = getFieldValueByPath) {
        return {"x", TCursorType::Env, type, getter, nullptr, FieldStructType::Multi, path, value, ""};
    }

    QORClientContextScope scope{fullAccess()};
    ScopedEnvCache envs;
    QORFieldSet fields;
};

TEST_F(FieldValue, EveryBuiltInFieldIsInTheTable) {
    ASSERT_EQ(fieldRows().size(), builtInFields().size());
    for (std::size_t i = 0; i < fieldRows().size(); ++i)
        EXPECT_EQ(fieldRows()[i].name, builtInFields()[i].name);
}

TEST_F(FieldValue, IsReadFromARowThatHasIt) {
    for (const FieldRow& row : fieldRows()) {
        EXPECT_EQ(fields.find(row.name)->getValue(*fullRow(row.kind)), row.full) << row.name;
    }
}

TEST_F(FieldValue, IsTheEmptyTextInARowThatLacksIt) {
    for (const FieldRow& row : fieldRows()) {
        EXPECT_EQ(fields.find(row.name)->getValue(*lackingRow(row.kind)), row.lacking) << row.name;
    }
}

TEST_F(FieldValue, IsTheEmptyTextInARowOfAnotherKind) {
    for (const FieldRow& row : fieldRows()) {
        EXPECT_EQ(fields.find(row.name)->getValue(*foreignRow(row.kind)), row.foreign) << row.name;
    }
}

TEST_F(FieldValue, KernelsCanBeReadThoughNoBuiltInFieldDoes) {
    bool last = false;
    EXPECT_EQ(getFieldValueConfigOSkernel(*fullRow(Environment), nullptr, last, 0), "c-kernel");
    EXPECT_EQ(getFieldValueVConfigOSkernel(*fullRow(Environment), nullptr, last, 0), "v-kernel");
    EXPECT_EQ(fields.find("pager.env.config.os.kernel"), fields.end());
}

TEST_F(FieldValue, RowsOfLogsShowTheirEnvironmentWithoutAConfiguration) {
    for (const Kind kind : {Operation, Event}) {
        const ArgCSP row = fullRow(kind);
        EXPECT_EQ(fields.find("pager.env.eid")->getValue(*row), eidA);
        EXPECT_EQ(fields.find("pager.env.state")->getValue(*row), "0");
        EXPECT_EQ(fields.find("pager.env.transition")->getValue(*row), "0");
        EXPECT_EQ(fields.find("pager.env.config.hostname")->getValue(*row), "");
        EXPECT_EQ(fields.find("pager.env.vconfig.base_sample_id")->getValue(*row), "");
    }
}

TEST_F(FieldValue, ParentHostnameIsBlankForAParentThatTheClientMayNotSee) {
    const QORClientContextScope other(restricted({QORLocalSID(0, 1, eid(eidA))}));
    EXPECT_EQ(fields.find("pager.env.parent_hostname")->getValue(*fullRow(Environment)), "");
}

struct ListRow {
    const char* name;
    Kind kind;
    std::vector<std::string> values;
};

TEST_F(FieldValue, ListsAreReadByIndexUntilTheLast) {
    const std::vector<ListRow> lists{
        {"pager.env.config.ip", Environment, {"c-1", "c-2", "c-3"}},
        {"pager.env.vconfig.ip", Environment, {"v-1", "v-2", "v-3"}},
        {"pager.op_log_eid.eid", Operation, {eidA, eidB, eidC}},
    };
    for (const ListRow& list : lists) {
        const QORField& field = *fields.find(list.name);
        const ArgCSP row = fullRow(list.kind);
        for (int index = 0; index < 3; ++index) {
            bool last = index != 2;
            EXPECT_EQ(field.getValue(*row, last, index), list.values[static_cast<std::size_t>(index)]) << list.name;
            EXPECT_EQ(last, index == 2) << list.name;
        }
        bool last = true;
        EXPECT_EQ(field.getValue(*row, last, 3), "") << list.name;
        EXPECT_FALSE(last) << list.name << ": the list does not end here";
        EXPECT_EQ(field.getValue(*row, last, 1), list.values[1]) << list.name << ": backwards";
    }
}

TEST_F(FieldValue, AListThatIsAbsentEndsAtOnce) {
    for (const char* name : {"pager.env.config.ip", "pager.env.vconfig.ip", "pager.op_log_eid.eid"}) {
        for (const ArgCSP& row : {lackingRow(Environment), lackingRow(Operation), lackingRow(Event)}) {
            bool last = false;
            EXPECT_EQ(fields.find(name)->getValue(*row, last, 0), "") << name;
            EXPECT_TRUE(last) << name;
        }
    }
}

TEST_F(FieldValue, MessageFieldsReadTheSiblingsOfTheirNode) {
    const ArgCSP row = fullRow(Environment);
    EXPECT_THAT(valuesOf(messageField(TValueType::String, "env/virtual_config/disk", "path"), *row),
                ElementsAre("/a", "/b"));
    EXPECT_THAT(valuesOf(messageField(TValueType::Integer, "disk", "size", getENVValueByPath), *row),
                ElementsAre("10", "20"));
    EXPECT_THAT(valuesOf(messageField(TValueType::String, "env/config/ip"), *row), ElementsAre("c-1", "c-2", "c-3"));
    bool last = false;
    EXPECT_EQ(messageField(TValueType::String, "env/config/ip").getValue(*row, last, 3), "");
    EXPECT_TRUE(last);
}

struct MessageRow {
    TValueType type;
    const char* path;
    const char* value;
    const char* expected;
};

TEST_F(FieldValue, MessageFieldsReadByTheirType) {
    const std::vector<MessageRow> rows{
        {TValueType::String, "env/virtual_config/memory", "", "2048"},
        {TValueType::String, "env/virtual_config", "memory", "2048"},
        {TValueType::Integer, "env/virtual_config", "memory", "2048"},
        {TValueType::Time, "env/virtual_config/made", "", time},
        {TValueType::Time, "env/virtual_config", "made", time},
        {TValueType::Time, "env/virtual_config", "memory2", ""},
        {TValueType::Boolean, "env/virtual_config", "flag", "1"},
        {TValueType::Boolean, "env/virtual_config/flag", "", "1"},
        {TValueType::Boolean, "env/virtual_config", "absent", "0"},
        {TValueType::Boolean, "absent/altogether", "absent", ""},
        {TValueType::String, "env/virtual_config/disk", "/", "<disk><size>10</size><path>/a</path></disk>"},
        {TValueType::Boolean, "env/virtual_config/disk", "/", "<disk><size>10</size><path>/a</path></disk>"},
        {TValueType::String, "env/virtual_config", "absent", ""},
        {TValueType::String, "env/absent", "", ""},
        {TValueType::String, "env/virtual_config/disk", "", ""},
    };
    const ArgCSP row = fullRow(Environment);
    for (const MessageRow& expected : rows) {
        EXPECT_EQ(messageField(expected.type, expected.path, expected.value).getValue(*row), expected.expected)
            << expected.path << " " << expected.value;
    }
}

TEST_F(FieldValue, ReadersFindWhatGettersGive) {
    std::vector<QORField> asked;
    for (const QORField& field : fields) {
        if (field.cursorType == TCursorType::Env) asked.push_back(field);
    }
    const std::vector<std::string> paths{"memory",  "absent",  "disk",       "disk/size", "disk/size/deeper",
                                         "os",      "os/name", "os/absent",  "ip",        "hostname",
                                         "/memory", "memory/", "disk//size", "1018",      ""};
    for (const std::string& path : paths) {
        for (const TValueType type : {TValueType::String, TValueType::Integer, TValueType::Boolean, TValueType::Time}) {
            for (const char* const value : {"", "memory", "/"}) {
                asked.push_back(messageField(type, path, value, getENVValueByPath));
                for (const char* const place : {"env/config/", "env/virtual_config/", "env/", ""})
                    asked.push_back(messageField(type, place + path, value));
            }
        }
    }
    const std::vector<QORPtr<const QOREnv>> rows{fullEnv(), bareEnv(), fullEnv()};
    for (const QORField& field : asked) {
        QOREnvFieldReader reader(field);
        for (const QORPtr<const QOREnv>& env : rows) {
            QOREnvRow row(env);
            EXPECT_EQ(reader.read(row), field.getValue(QORArg(env))) << field.name << " " << field.path;
        }
    }
}

TEST_F(FieldValue, MembersAreWhatTheirMessageSays) {
    const QORArg row(fullEnv());
    for (const char* const path :
         {"memory", "absent", "disk", "disk/size", "disk/absent", "disk/size/deeper", "flag"}) {
        for (const QORFieldGetter getter : {getFieldValueByPath, getENVValueByPath}) {
            const bool whole = getter == getFieldValueByPath;
            const QORField field =
                messageField(TValueType::String, (whole ? "env/config/" : "") + std::string(path), "", getter);
            bool last = false;
            bool expectedLast = false;
            const auto message = whole ? row.getMessage() : row.env()->getVirtualConfig()->getMessageIterator();
            EXPECT_EQ(getter(row, &field, last, 0), getValueFromMessage(message, field, expectedLast, 0)) << path;
            EXPECT_EQ(last, expectedLast) << path;
        }
    }
}

TEST_F(FieldValue, Base64IsReadWhenTheFieldSaysSo) {
    QORField field = messageField(TValueType::String, "secret", "", getENVValueByPath);
    EXPECT_EQ(field.getValue(*fullRow(Environment)), "c2VjcmV0");
    field.base64 = true;
    EXPECT_EQ(field.getValue(*fullRow(Environment)), "secret");
}

TEST_F(FieldValue, TheMessageOfARowIsMadeOnceAndLivesAsLongAsTheRow) {
    const QORArg row(fullEnv());
    const auto first = row.getMessage();
    const auto second = row.getMessage();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(&dynamic_cast<QORBinaryIterator&>(*first).message(),
              &dynamic_cast<QORBinaryIterator&>(*second).message());
    EXPECT_EQ(first->curID(), 0U);
    EXPECT_EQ(first->firstChild(), 0);
    EXPECT_EQ(first->curID(), tag::env);
    EXPECT_EQ(QORArg().getMessage(), nullptr);
}

TEST_F(FieldValue, ParametersAreReadFromTheInfoDocumentOfAnyRow) {
    fields.registerPrefix("p.", TCursorType::OpLog, "");
    const QORField& field = *fields.checkPrefix("p.source_env.title");
    EXPECT_EQ(field.getValue(*fullOperation()), "source title");
    EXPECT_EQ(field.getValue(*fullEvent()), "source title");
    EXPECT_EQ(field.getValue(QORArg(fullEnv())), "");
    EXPECT_EQ(fields.checkPrefix("p.source_env")->getValue(*fullEvent()).substr(0, 12), "<source_env>");
}

struct OriginRow {
    std::vector<std::pair<std::string, std::string>> parameters;
    const char* eid;
    const char* type;
    std::optional<std::string> title;
};

TEST(LogOrigin, TakesWhatTheDocumentTells) {
    const std::vector<OriginRow> rows{
        {{}, "", "", std::nullopt},
        {{{"title", ""}}, "", "", ""},
        {{{"eid", "no GUID"}, {"type", "x"}}, "", "x", std::nullopt},
        {{{"eid", "{CCCCCCCC-0000-4000-8000-000000000003}"}}, eidC, "", std::nullopt},
        {{{"type", "0123456789abcdef"}}, "", "0123456789abcdef", std::nullopt},
        {{{"type", "0123456789abcdefg"}}, "", "0123456789abcdef", std::nullopt},
        {{{"type", "0123456789abcde\xc3\xa9"}}, "", "0123456789abcde", std::nullopt},
        {{{"type", "0123456789abcd\xc3\xa9xyz"}}, "", "0123456789abcd\xc3\xa9", std::nullopt},
        {{{"type", "0123456789abc\xf0\x9f\x98\x80"}}, "", "0123456789abc", std::nullopt},
        {{{"type", "0123456789ab\xf0\x9f\x98\x80z"}}, "", "0123456789ab\xf0\x9f\x98\x80", std::nullopt},
    };
    for (const OriginRow& row : rows) {
        QORInfo info;
        info.add(parameter("source_env", row.parameters));
        const QORLogDBEntryOrigin origin = QORLogDBEntryOrigin::fromInfo(info);
        EXPECT_EQ(fieldText(origin.eid), row.eid);
        EXPECT_EQ(origin.type, row.type);
        EXPECT_EQ(origin.title, row.title);
    }
    EXPECT_EQ(QORLogDBEntryOrigin::fromInfo(QORInfo()).title, std::nullopt);
}

}  // namespace
}  // namespace QOR::test
