#include "QORLibAgent/QOREnv.h"

#include <gtest/gtest.h>

#include "LogDatabase.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORMessageRead.h"

namespace QOR::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* environmentLine =
    R"({"kind":"environment","eid":"6ba7b810-9dad-11d1-80b4-000000000001",)"
    R"("parent_eid":"6ba7b810-9dad-11d1-80b4-000000000002","title":"web","state":6,"transition":1,)"
    R"("config":{"name":"n","hostname":"web1","type":"container","ip":["10.0.0.1","10.0.0.2"],"memory":512,)"
    R"("os":{"name":"Debian","kernel":"6.1","edition":"x"},"disk":{"size":3}},)"
    R"("virtual_config":{"base_sample_id":"s-1","name":"v"}})";

std::string textAt(const QORMessageIterator& root, std::string_view path) {
    std::string text = "(nothing)";
    readText(root, path, text);
    return text;
}

class QOREnvTest : public LogDatabaseTest {
protected:
    void SetUp() override {
        LogDatabaseTest::SetUp();
        setEnvCache(&m_cache);
    }
    void TearDown() override {
        setEnvCache(nullptr);
        LogDatabaseTest::TearDown();
    }
    std::vector<QOREID> listed(const QORClientContextPtr& client) {
        const QORClientContextScope scope(client);
        std::vector<QOREID> eids;
        const auto list = m_cache.getEnvList();
        for (const auto& env : *list)
            eids.push_back(env->getEID());
        EXPECT_EQ(eids.size(), list->size());
        return eids;
    }
    QORPtr<const QOREnv> env(unsigned number) {
        const QORClientContextScope scope(fullAccess());
        return m_cache.getEnvCopy(eidOf(number));
    }

    QOREnvCache m_cache;
};

void expectExample(const QOREnv& env) {
    EXPECT_EQ(env.getEID(), eidOf(1));
    EXPECT_EQ(env.getParentEID(), eidOf(2));
    EXPECT_EQ(env.getTitle(), "web");
    EXPECT_EQ(env.getStatus().state, 6);
    EXPECT_EQ(env.getStatus().transition, 1);
    EXPECT_EQ(env.getConfig()->text(QOREnvMember::Hostname), "web1");
    EXPECT_EQ(env.getConfig()->text(QOREnvMember::Domain), std::nullopt);
    EXPECT_EQ(env.getConfig()->text(QOREnvMember::OsKernel), "6.1");
    ASSERT_TRUE(env.getConfig()->addresses());
    EXPECT_THAT(*env.getConfig()->addresses(), ElementsAre("10.0.0.1", "10.0.0.2"));
    EXPECT_EQ(env.getVirtualConfig()->text(QOREnvMember::Name), "v");
    EXPECT_EQ(env.getVirtualConfig()->addresses(), std::nullopt);
}

TEST_F(QOREnvTest, AnImportedEnvironmentIsKnownAtOnceAndAfterLoading) {
    ASSERT_EQ(import(environmentLine).accepted(), 1U);
    ASSERT_TRUE(env(1));
    expectExample(*env(1));
    m_cache.replace({});
    EXPECT_FALSE(env(1));
    m_cache.load();
    ASSERT_TRUE(env(1));
    expectExample(*env(1));
}

TEST_F(QOREnvTest, AnEnvironmentBecomesAMessageOfItsMembersNames) {
    ASSERT_EQ(import(environmentLine).accepted(), 1U);
    QORMessage message;
    QORBinaryIterator root = message.root();
    ASSERT_EQ(putObj(root, tag::env, *env(1)), 0);
    EXPECT_EQ(root.curID(), 0U) << "the cursor stays where it is";
    EXPECT_EQ(textAt(root, "env/title"), "web");
    EXPECT_EQ(textAt(root, "env/state"), "6");
    EXPECT_EQ(textAt(root, "env/parent_eid"), eidOf(2).toString());
    EXPECT_EQ(textAt(root, "env/config/hostname"), "web1");
    EXPECT_EQ(textAt(root, "env/config/memory"), "512");
    EXPECT_EQ(textAt(root, "env/config/os/name"), "Debian");
    EXPECT_EQ(textAt(root, "env/config/os/edition"), "x");
    EXPECT_EQ(textAt(root, "env/config/disk/size"), "3");
    EXPECT_EQ(textAt(root, "env/virtual_config/base_sample_id"), "s-1");
    EXPECT_EQ(textAt(root, "env/config/domain"), "(nothing)");
    ASSERT_EQ(root.seekPath("env/config/ip"), 0);
    EXPECT_EQ(textAt(root, ""), "10.0.0.1");
    ASSERT_EQ(nextSameName(root), 0);
    EXPECT_EQ(textAt(root, ""), "10.0.0.2");
    EXPECT_NE(nextSameName(root), 0);
}

TEST_F(QOREnvTest, NamesInDataDoNotGrowTheDictionary) {
    ASSERT_EQ(import(R"({"kind":"environment","eid":")" + eidOf(1).toString() +
                     R"(","config":{"unheard-of-1":{"unheard-of-2":"x"}},"virtual_config":{"unheard-of-3":"y"}})")
                  .accepted(),
              1U);
    QORMessage message;
    QORBinaryIterator root = message.root();
    ASSERT_EQ(putObj(root, tag::env, *env(1)), 0);
    EXPECT_EQ(textAt(root, "env/config/unheard-of-1/unheard-of-2"), "x");
    EXPECT_EQ(textAt(*env(1)->getVirtualConfig()->getMessageIterator(), "unheard-of-3"), "y");
    ASSERT_EQ(putObj(root, tag::message, env(1)->getConfig()->further()), 0);
    EXPECT_EQ(textAt(root, "message/unheard-of-1/unheard-of-2"), "x");
    for (const char* name : {"unheard-of-1", "unheard-of-2", "unheard-of-3"})
        EXPECT_EQ(QORTagDictionary::instance().find(name), std::nullopt) << name;
}

TEST_F(QOREnvTest, AConfigurationHasAMessageOfItsOwn) {
    ASSERT_EQ(import(environmentLine).accepted(), 1U);
    const auto at = env(1)->getVirtualConfig()->getMessageIterator();
    ASSERT_TRUE(at);
    EXPECT_EQ(textAt(*at, "base_sample_id"), "s-1");
    EXPECT_TRUE(makeQORPtr<QOREnvConfig>()->getMessageIterator());
}

TEST_F(QOREnvTest, WhatIsNotKnownIsEmpty) {
    const auto bare = makeQORPtr<QOREnv>(eidOf(1));
    EXPECT_FALSE(bare->getParentEID().isValid());
    EXPECT_TRUE(bare->getConfig()->empty());
    EXPECT_TRUE(bare->getVirtualConfig()->empty());
    EXPECT_EQ(bare->getStatus().state, 0);
}

TEST_F(QOREnvTest, AClientSeesTheEnvironmentsOfItsIdentitiesOnly) {
    m_cache.update({makeQORPtr<QOREnv>(eidOf(3)), makeQORPtr<QOREnv>(eidOf(1)), makeQORPtr<QOREnv>(eidOf(2))});
    EXPECT_THAT(listed(fullAccess()), ElementsAre(eidOf(1), eidOf(2), eidOf(3)));
    EXPECT_THAT(listed(accessTo({3, 7, 1})), ElementsAre(eidOf(1), eidOf(3)));
    EXPECT_THAT(listed(accessTo({})), IsEmpty());
    const QORClientContextScope scope(accessTo({1}));
    EXPECT_TRUE(m_cache.getEnvCopy(eidOf(1)));
    EXPECT_FALSE(m_cache.getEnvCopy(eidOf(2)));
}

TEST_F(QOREnvTest, ASnapshotStaysWhileTheCacheChanges) {
    m_cache.update({makeQORPtr<QOREnv>(eidOf(1))});
    const QORClientContextScope scope(fullAccess());
    const auto before = m_cache.getEnvList();
    m_cache.update({makeQORPtr<QOREnv>(eidOf(2))});
    EXPECT_EQ(before->size(), 1U);
    EXPECT_EQ(m_cache.getEnvList()->size(), 2U);
}

TEST_F(QOREnvTest, ManyChangesInAnyOrderKeepTheListInOrder) {
    std::set<QOREID> expected;
    for (unsigned round = 0; round < 40; ++round) {
        std::vector<QORPtr<const QOREnv>> batch;
        for (unsigned i = 0; i < 100; ++i) {
            const QOREID eid = eidOf((round * 7919 + i * 104729) % 3000);
            expected.insert(eid);
            batch.push_back(
                makeQORPtr<QOREnv>(eid, QOREID(), std::to_string(round), QOREnv::Status(), nullptr, nullptr));
        }
        m_cache.update(std::move(batch));
    }
    EXPECT_EQ(listed(fullAccess()), std::vector<QOREID>(expected.begin(), expected.end()));
    for (const QOREID& eid : expected) {
        const QORClientContextScope scope(fullAccess());
        ASSERT_TRUE(m_cache.getEnvCopy(eid));
    }
    EXPECT_EQ(env(39 * 7919 % 3000)->getTitle(), "39") << "the last one put in counts";
}

}  // namespace
}  // namespace QOR::test
