// The tables as the database tells them, on either engine.
#include "QORDBSchema/QORSchemaTables.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "QORCommon/QORException.h"
#include "support/HostDatabase.h"

namespace QOR::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class SchemaTables : public testing::Test {
protected:
    void SetUp() override { m_database.open(); }
    static std::vector<QORSchemaTable> tables() {
        QORRdbmsTran tran(ASAccess::Read);
        return readTables(*tran);
    }
    static const QORSchemaTable& find(const std::vector<QORSchemaTable>& tables, const std::string& name) {
        return *std::find_if(tables.begin(), tables.end(), [&](const auto& table) { return table.name == name; });
    }
    static std::vector<std::string> keyOf(const QORSchemaTable& table) {
        std::vector<std::string> names;
        for (const std::size_t index : table.key)
            names.push_back(table.columns.at(index).name);
        return names;
    }

    HostDatabase m_database{TestTables::Own};
};

TEST_F(SchemaTables, AreAllThatHoldRecordsParentsFirst) {
    std::vector<std::string> names;
    for (const QORSchemaTable& table : tables()) {
        names.push_back(table.name);
        EXPECT_FALSE(table.key.empty()) << table.name;
    }
    EXPECT_THAT(
        names, ElementsAre("qor_backup", "qor_collector_position", "qor_environment", "qor_environment_address",
                           "qor_event", "qor_event_count", "qor_forward_stream", "qor_operation", "qor_operation_count",
                           "qor_operation_environment", "qor_request", "qor_unreadable_document"));
}

TEST_F(SchemaTables, HaveTheSameColumnsAndKeysOnEachEngine) {
    const auto all = tables();
    std::vector<std::string> columns;
    for (const QORSchemaColumn& column : find(all, "qor_request").columns)
        columns.push_back(column.name);
    EXPECT_THAT(columns, ElementsAre("rowid", "key", "digest", "last_line", "result", "time"));
    EXPECT_THAT(keyOf(find(all, "qor_operation_environment")), ElementsAre("operation", "eid"));
    EXPECT_THAT(keyOf(find(all, "qor_event_count")), ElementsAre("scope", "level", "bucket"));
    std::map<std::string, QORSchemaColumnKind> kinds;
    for (const QORSchemaColumn& column : find(all, "qor_backup").columns)
        kinds[column.name] = column.kind;
    EXPECT_EQ(kinds.at("eid"), QORSchemaColumnKind::Guid);
    EXPECT_EQ(kinds.at("time"), QORSchemaColumnKind::Time);
    EXPECT_EQ(kinds.at("size"), QORSchemaColumnKind::Integer);
    EXPECT_EQ(kinds.at("info"), QORSchemaColumnKind::Bytes);
    EXPECT_EQ(kinds.at("name"), QORSchemaColumnKind::Text);
    EXPECT_EQ(kinds.count("security_operation"), 0U) << "it is computed";
}

TEST_F(SchemaTables, WithAColumnOfAnUnknownTypeAreRefusedByItsName) {
    runSql("ALTER TABLE qor_backup ADD COLUMN odd date");
    try {
        tables();
        FAIL() << "read";
    } catch (const QORException& error) {
        EXPECT_THAT(error.message(), HasSubstr("qor_backup.odd has the type \"date\""));
    }
}

}  // namespace
}  // namespace QOR::test
