// The catalogue: built-in fields, those of the configuration, and those made on demand.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "QORFunctionality/QORAccess.h"
#include "QORPager/QORBuiltInFields.h"
#include "QORPager/QORFieldGetters.h"
#include "QORPager/QORFieldSet.h"
#include "plugins/QORPager/Operators/Pager/Vocabulary.h"

namespace QOR::test {
namespace {

class Provider final : public QORAccessProviderPrototype {};

constexpr const char* vocabulary = R"(<vocabulary><category name="pager_fields">
  <parameter id="my.memory"><source>env/virtual_config/memory</source><type>int</type></parameter>
  <parameter id="my.os"><source>env/config/os</source><value>name</value></parameter>
  <parameter id="my.disk" multi="1" base64="1"><source>env/virtual_config/disk</source><value>/</value></parameter>
  <parameter id="my.cached"><source>a/b</source><cache>the cache</cache><type>time</type></parameter>
  <parameter id="my.odd"><source>env/config/x</source><type>Boolean</type></parameter>
  <parameter id="my.flag"><source>env/config/x</source><type>boolean</type></parameter>
  <parameter id="my.flag"><source>second/one</source></parameter>
  <parameter id="pager.env.title"><source>env/config/x</source><type>int</type></parameter>
  <parameter id="my.nowhere"><type>int</type></parameter>
  <parameter><source>env/config/x</source></parameter>
</category></vocabulary>)";

class FieldSet : public ::testing::Test {
protected:
    const QORField& field(std::string_view name) {
        const auto found = fields.find(name);
        if (found == fields.end()) throw std::runtime_error("no field " + std::string(name));
        return *found;
    }
    ScopedVocabulary scope{vocabulary};
    QORFieldSet fields;
    QORPtr<QORAccessProviderPrototype> provider{new Provider};
};

TEST_F(FieldSet, HasTheBuiltInFieldsAsTheTableSays) {
    fields.init(provider);
    for (const QORBuiltInField& expected : builtInFields()) {
        const QORField& actual = field(expected.name);
        EXPECT_EQ(actual.cursorType, expected.cursorType);
        EXPECT_EQ(actual.valueType, expected.valueType);
        EXPECT_EQ(actual.structType, expected.structType);
        EXPECT_EQ(actual.getter, expected.getter);
        EXPECT_EQ(actual.path, expected.path);
        EXPECT_EQ(actual.valueName, "");
        EXPECT_EQ(actual.cacheName, "");
        EXPECT_EQ(actual.accessProvider, expected.providerBound ? provider : nullptr) << expected.name;
    }
}

TEST_F(FieldSet, HoldsTheProviderInFiveBuiltInFields) {
    fields.init(provider);
    std::vector<std::string> bound;
    for (const QORBuiltInField& builtIn : builtInFields()) {
        if (field(builtIn.name).accessProvider) bound.emplace_back(builtIn.name);
    }
    EXPECT_THAT(
        bound, ::testing::ElementsAre("pager.env.config.ip", "pager.env.vconfig.ip", "pager.env.vconfig.base_sample_id",
                                      "pager.env.vconfig.base_snapshot_id", "pager.op_log_eid.eid"));
}

struct ConfiguredRow {
    const char* name;
    TCursorType cursorType;
    TValueType valueType;
    FieldStructType structType;
    QORFieldGetter getter;
    const char* path;
    const char* valueName;
    const char* cacheName;
};

TEST_F(FieldSet, TakesFieldsFromTheConfiguration) {
    using enum TCursorType;
    using enum TValueType;
    using enum FieldStructType;
    const std::vector<ConfiguredRow> rows{
        {"my.memory", Env, Integer, Single, getENVValueByPath, "memory", "", ""},
        {"my.os", Env, String, Single, getFieldValueByPath, "env/config/os", "name", ""},
        {"my.disk", Env, String, Multi, getENVValueByPath, "disk", "/", ""},
        {"my.cached", Info, Time, Single, getFieldValueByPath, "a/b", "", "the cache"},
        {"my.odd", Env, String, Single, getFieldValueByPath, "env/config/x", "", ""},
        {"pager.env.title", Env, String, Single, getFieldValueEnvTitle, "", "", ""},
    };
    fields.init(provider);
    for (const ConfiguredRow& row : rows) {
        const QORField& actual = field(row.name);
        EXPECT_EQ(actual.cursorType, row.cursorType) << row.name;
        EXPECT_EQ(actual.valueType, row.valueType) << row.name;
        EXPECT_EQ(actual.structType, row.structType) << row.name;
        EXPECT_EQ(actual.getter, row.getter) << row.name;
        EXPECT_EQ(actual.path, row.path) << row.name;
        EXPECT_EQ(actual.valueName, row.valueName) << row.name;
        EXPECT_EQ(actual.cacheName, row.cacheName) << row.name;
        EXPECT_FALSE(actual.base64) << row.name;
    }
    EXPECT_EQ(field("my.memory").accessProvider, provider);
    EXPECT_EQ(fields.find("my.nowhere"), fields.end());
    EXPECT_EQ(fields.size(), builtInFields().size() + 6);
}

TEST_F(FieldSet, FindsNamesByTheirExactCase) {
    fields.init(provider);
    EXPECT_EQ(fields.find("Pager.env.eid"), fields.end());
    EXPECT_EQ(fields.find("pager.env.ei"), fields.end());
}

TEST_F(FieldSet, MakesFieldsOfNamesUnderAPrefix) {
    fields.init(provider);
    fields.registerPrefix("pager.op_log.parameter.", TCursorType::OpLog, "");
    const auto made = fields.checkPrefix("pager.op_log.parameter.env.eid");
    ASSERT_NE(made, fields.end());
    EXPECT_EQ(made->cursorType, TCursorType::OpLog);
    EXPECT_EQ(made->valueType, TValueType::String);
    EXPECT_EQ(made->structType, FieldStructType::Single);
    EXPECT_EQ(made->getter, getFieldValueParameter);
    EXPECT_EQ(made->path, "env/eid");
    EXPECT_EQ(made->accessProvider, provider);
    EXPECT_EQ(fields.find("pager.op_log.parameter.env.eid"), made);
    EXPECT_EQ(fields.checkPrefix("pager.op_log.parameter.env.eid"), made);
    EXPECT_EQ(fields.checkPrefix("pager.op_log.parameter"), fields.end());
    EXPECT_EQ(fields.checkPrefix("PAGER.op_log.parameter.x"), fields.end());
    EXPECT_EQ(fields.checkPrefix("pager.op_log.parameter.")->path, "");
}

TEST_F(FieldSet, TakesThePrefixThatSortsFirst) {
    fields.init(provider);
    fields.registerPrefix("a.b.", TCursorType::Info, "longer");
    fields.registerPrefix("a.", TCursorType::Info, "shorter");
    EXPECT_EQ(fields.checkPrefix("a.b.c")->cacheName, "shorter");
    EXPECT_EQ(fields.find("a.b.c")->path, "b/c");
}

TEST_F(FieldSet, ReplacesWhatAPrefixStandsFor) {
    fields.init(provider);
    fields.registerPrefix("a.", TCursorType::Info, "first");
    fields.registerPrefix("a.", TCursorType::EventLog, "second");
    EXPECT_EQ(fields.checkPrefix("a.x")->cacheName, "second");
    EXPECT_EQ(fields.find("a.x")->cursorType, TCursorType::EventLog);
}

TEST_F(FieldSet, InitForgetsProviderAndDemandedFieldsAndKeepsPrefixes) {
    fields.init(provider);
    fields.registerPrefix("a.", TCursorType::Info, "cache");
    fields.checkPrefix("a.x");
    EXPECT_EQ(fields.demandedCount(), 1U);
    fields.init(nullptr);
    EXPECT_EQ(fields.demandedCount(), 0U);
    EXPECT_EQ(fields.find("a.x"), fields.end());
    EXPECT_TRUE(fields.hasPrefix("a.x"));
    EXPECT_TRUE(std::all_of(fields.begin(), fields.end(), [](const QORField& f) { return !f.accessProvider; }));
}

TEST_F(FieldSet, TakesOutDemandedFieldsAlone) {
    fields.init(provider);
    const std::size_t before = fields.size();
    fields.registerPrefix("a.", TCursorType::Info, "cache");
    fields.registerPrefix("my.", TCursorType::Info, "cache");
    for (const char* name : {"a.x", "a.y", "my.memory"})
        fields.checkPrefix(name);
    EXPECT_EQ(fields.demandedBytes(), 6U);
    EXPECT_EQ(fields.takeDemanded(), (std::vector<std::string>{"a.x", "a.y"}));
    EXPECT_EQ(fields.size(), before);
    EXPECT_EQ(fields.demandedCount(), 0U);
    EXPECT_EQ(fields.demandedBytes(), 0U);
    EXPECT_EQ(fields.find("a.x"), fields.end());
    EXPECT_NE(fields.find("my.memory"), fields.end());
    EXPECT_TRUE(fields.takeDemanded().empty());
}

}  // namespace
}  // namespace QOR::test
