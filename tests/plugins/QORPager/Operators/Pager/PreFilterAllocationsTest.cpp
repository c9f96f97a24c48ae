// Counts allocations: an environment costs the pre-filter none, whatever its texts are.
#include "support/AllocationCounter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QORPager/Operators/Pager/QOREnvPreFilter.h"
#include "QORPager/QORFieldGetters.h"
#include "QORPager/QORFieldSet.h"

namespace QOR::test {
namespace {

QORPtr<const QOREnv> envWithLongTexts(int number) {
    const std::string tail = std::to_string(number) + std::string(static_cast<std::size_t>(20 + number % 200), 'x');
    QOREnvConfigData data;
    data[QOREnvMember::Hostname] = (number % 2 == 0 ? "web" : "mail") + tail;
    data[QOREnvMember::OsName] = "an operating system with a long name " + tail;
    data.addresses = {{"2001:0db8:0000:0000:0000:0000:0000:" + std::to_string(number), "10.0.0.1"}};
    data.further.add("memory", std::to_string(number * 1000));
    data.further.add("note", "a note " + tail);
    const auto config = makeQORPtr<const QOREnvConfig>(std::move(data));
    QOREID eid;
    eid.fromString("aaaaaaaa-0000-4000-8000-" + std::to_string(100000000000 + number));
    return makeQORPtr<const QOREnv>(eid, eid, "title " + tail, QOREnv::Status{number % 9, -number}, config, config);
}

TEST(PreFilterAllocations, AnEnvironmentCostsNone) {
    QORFieldSet fields;
    fields.init(nullptr);
    TExpressionEvaluation filter;
    for (const QORField& field : fields)
        filter.setIdentifier(field.name, "", field.cursorType == TCursorType::Env);
    const QORField note("note", TCursorType::Env, TValueType::String, getENVValueByPath, nullptr,
                        FieldStructType::Single, "note", "", "");
    const QORField memory("memory", TCursorType::Env, TValueType::Integer, getFieldValueByPath, nullptr,
                          FieldStructType::Single, "env/config/memory", "", "");
    const QORField flag("flag", TCursorType::Env, TValueType::Boolean, getFieldValueEnvTitle, nullptr,
                        FieldStructType::Single, "", "", "");
    const QORField absent("absent", TCursorType::Env, TValueType::String, getFieldValueByPath, nullptr,
                          FieldStructType::Single, "env/config/absent", "", "");
    filter.setIdentifier("note", "", true);
    filter.setIdentifier("memory", 0, true);
    filter.setIdentifier("flag", false, true);
    filter.setIdentifier("absent", "", true);
    filter.setExpression(
        "pager.env.config.hostname like 'web%' and pager.env.state < 7 and pager.env.transition <= 0 and "
        "pager.env.config.os.name <> '' and pager.env.config.ip <> '' and pager.env.vconfig.ip_text <> '' and "
        "pager.env.eid <> '' and pager.env.parent_eid <> '' and pager.env.title <> '' and note like 'a note%' and "
        "memory < 90000 and not flag and absent = ''");
    ASSERT_FALSE(filter.prepareSpecial()) << filter.getErrorMessage();
    std::vector<const QORField*> used{&note, &memory, &flag, &absent};
    for (const std::string& name : filter.usedIdentifiers()) {
        if (const auto field = fields.find(name); field != fields.end()) used.push_back(&*field);
    }
    ASSERT_EQ(used.size(), 13U);
    std::vector<QORPtr<const QOREnv>> envs;
    for (int number = 0; number < 200; ++number)
        envs.push_back(envWithLongTexts(number));
    QOREnvPreFilter preFilter(filter, used);
    bool passed = false;
    ASSERT_EQ(preFilter.evaluate(envs.front(), passed), 0) << preFilter.error();
    const std::size_t before = test::allocations;
    int passing = 0;
    for (const QORPtr<const QOREnv>& env : envs) {
        ASSERT_EQ(preFilter.evaluate(env, passed), 0);
        passing += passed ? 1 : 0;
    }
    EXPECT_EQ(test::allocations - before, 0U);
    EXPECT_EQ(passing, 35);
}

}  // namespace
}  // namespace QOR::test
