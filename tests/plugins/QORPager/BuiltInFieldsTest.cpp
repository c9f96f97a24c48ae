#include "QORPager/QORBuiltInFields.h"

#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

namespace QOR {
namespace {

TEST(BuiltInFields, ThereAreFiftyOneWithDifferentNames) {
    std::set<std::string_view> names;
    for (const QORBuiltInField& field : builtInFields())
        names.insert(field.name);
    EXPECT_EQ(builtInFields().size(), 51U);
    EXPECT_EQ(names.size(), 51U);
    EXPECT_EQ(builtInFields().front().name, "pager.env.eid");
    EXPECT_EQ(builtInFields().back().name, "pager.event_log.info");
    EXPECT_FALSE(names.contains("pager.env.config.os.kernel"));
    EXPECT_TRUE(names.contains("pager.env.eid.InPlaceholder"));
}

TEST(BuiltInFields, SourcesFollowTheNames) {
    const std::pair<std::string_view, TCursorType> sources[] = {
        {"pager.env.", TCursorType::Env},
        {"pager.op_log", TCursorType::OpLog},
        {"pager.event_log.", TCursorType::EventLog},
    };
    std::map<TCursorType, int> counts;
    for (const QORBuiltInField& field : builtInFields()) {
        for (const auto& [prefix, source] : sources) {
            if (!field.name.starts_with(prefix)) continue;
            EXPECT_EQ(field.cursorType, source) << field.name;
        }
        ++counts[field.cursorType];
    }
    EXPECT_EQ(counts[TCursorType::Env], 31);
    EXPECT_EQ(counts[TCursorType::OpLog], 13);
    EXPECT_EQ(counts[TCursorType::EventLog], 7);
}

TEST(BuiltInFields, OnlyAFewAreNotSingleTexts) {
    const std::map<std::string_view, TValueType> types = {
        {"pager.op_log.time", TValueType::Time},
        {"pager.event_log.time", TValueType::Time},
        {"pager.op_log.status", TValueType::Integer},
        {"pager.op_log.latest", TValueType::Boolean},
    };
    const std::set<std::string_view> multi = {"pager.env.config.ip", "pager.env.vconfig.ip", "pager.op_log_eid.eid"};
    const std::map<std::string_view, std::string_view> paths = {
        {"pager.env.vconfig.base_sample_id", "env/virtual_config/base_sample_id"},
        {"pager.env.vconfig.base_snapshot_id", "env/virtual_config/base_snapshot_id"},
    };
    for (const QORBuiltInField& field : builtInFields()) {
        const auto type = types.find(field.name);
        EXPECT_EQ(field.valueType, type == types.end() ? TValueType::String : type->second) << field.name;
        EXPECT_EQ(field.structType == FieldStructType::Multi, multi.contains(field.name)) << field.name;
        EXPECT_EQ(field.providerBound, multi.contains(field.name) || paths.contains(field.name)) << field.name;
        const auto path = paths.find(field.name);
        EXPECT_EQ(field.path, path == paths.end() ? "" : path->second) << field.name;
    }
}

}  // namespace
}  // namespace QOR
