// The operator object: what it reads from the configuration, and what it keeps from one request and client to the next.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include <fstream>

#include "PagerHost.h"
#include "QORPager/QORBuiltInFields.h"
#include "Vocabulary.h"

namespace QOR::testing {
namespace {

constexpr const char* vocabulary = R"(<vocabulary>
  <category name="pager_caches">
    <parameter id="full"><source>first</source><info_prefix>full.</info_prefix><info_path>a/b</info_path>
      <sync_timeout>30</sync_timeout><security_operation>7</security_operation></parameter>
    <parameter id="bare"><source>second</source></parameter>
    <parameter id="nameless"><info_prefix>nameless.</info_prefix></parameter>
    <parameter id="odd"><source>third</source><info_prefix></info_prefix><sync_timeout>soon</sync_timeout></parameter>
  </category>
</vocabulary>)";

class Operator : public ::testing::Test {
protected:
    Ask prefixed(int number) const {
        const std::string name = "pager.op_log.parameter.n" + std::to_string(number);
        return Ask{{name, "pager.op_log.time"}, name + " = 'x' and pager.op_log.time >= '2024-01-01'"};
    }
    PagerHost host;
};

TEST_F(Operator, ReadsTheCachesOfTheConfiguration) {
    const ScopedVocabulary scope(vocabulary);
    PagerClient client;
    const CacheInfoMap& caches = client.op().caches();
    ASSERT_EQ(caches.size(), 3U);
    const CacheInfo& full = caches.at("full");
    EXPECT_EQ(full.name, "first");
    EXPECT_EQ(full.info_prefix, "full.");
    EXPECT_EQ(full.info_path, "a/b");
    EXPECT_EQ(full.sync_timeout, 30);
    EXPECT_EQ(full.security_operation, 7);
    const CacheInfo& bare = caches.at("bare");
    EXPECT_EQ(bare.name, "second");
    EXPECT_EQ(bare.info_prefix, "");
    EXPECT_EQ(bare.info_path, "");
    EXPECT_EQ(bare.sync_timeout, -1);
    EXPECT_EQ(bare.security_operation, 0);
    EXPECT_EQ(caches.at("odd").sync_timeout, -1);
    EXPECT_TRUE(client.op().fields().hasPrefix("full.x"));
    EXPECT_FALSE(client.op().fields().hasPrefix("nameless.x"));
    EXPECT_FALSE(client.op().fields().hasPrefix("x"));
}

TEST_F(Operator, WorksWithoutAnyConfiguration) {
    PagerClient client;
    EXPECT_TRUE(client.op().caches().empty());
    EXPECT_EQ(client.op().fields().size(), builtInFields().size());
    EXPECT_TRUE(client.op().fields().hasPrefix("pager.op_log.parameter.x"));
    EXPECT_TRUE(client.op().fields().hasPrefix("pager.event_log.parameter.x"));
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.id"}}.body()), "");
}

TEST_F(Operator, AReplacedCacheIsTheLaterOne) {
    CacheInfoMap caches;
    caches["bare"].info_path = "old";
    const ScopedVocabulary scope(vocabulary);
    QORPagerOperatorPrototype::readCachesFromVoc(caches);
    EXPECT_EQ(caches.at("bare").info_path, "");
    EXPECT_EQ(caches.size(), 3U);
}

TEST_F(Operator, ResetsThePageAfterEveryRequest) {
    PagerClient client;
    EXPECT_EQ(client.op().limitSize(), 2147483647);
    EXPECT_EQ(client.op().limitOffset(), 0);
    client.ask(Ask{{"pager.op_log.id"}, {}, limit(5, 10)}.body());
    EXPECT_EQ(client.op().limitSize(), 2147483647);
    EXPECT_EQ(client.op().limitOffset(), 0);
}

TEST_F(Operator, HoldsNoSnapshotBetweenRequests) {
    host.import(std::string(R"({"kind":"environment","eid":")") + eidA + R"("})");
    PagerClient client;
    const QORClientContextScope scope(fullAccess());
    client.ask(Ask{{"pager.event_log.source"}, "pager.env.state = 1"}.body());
    const QORPtr<const QOREnvList> before = host.envs.cache.getEnvList();
    EXPECT_EQ(before->size(), 1U);
    host.envs.cache.replace({});
    EXPECT_EQ(host.envs.cache.getEnvList()->size(), 0U);
}

TEST_F(Operator, DisconnectLeavesNothingOfTheClient) {
    const ScopedVocabulary scope(vocabulary);
    PagerClient client;
    const std::size_t fields = client.op().fields().size();
    const std::string filter = "pager.op_log.parameter.mine = 'x'";
    ASSERT_EQ(client.errorOf(Ask{{"pager.op_log.parameter.mine"}, filter}.body()), "");
    ASSERT_GT(client.op().fields().size(), fields);
    client.disconnect();
    EXPECT_EQ(client.op().fields().size(), fields);
    EXPECT_EQ(client.op().fields().find("pager.op_log.parameter.mine"), client.op().fields().end());
    for (const QORField& field : client.op().fields())
        EXPECT_EQ(field.accessProvider, nullptr) << field.name;
    // What follows is served like a first request.
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.id"}, {}, R"(,[1743,[[1741,"pager.op_log.parameter.mine"]]])"}.body()),
              R"(3111 Pager error: unknown field "pager.op_log.parameter.mine")");
    EXPECT_EQ(client.errorOf(Ask{{"full.x"}, "full.x = 1"}.body()), "");
}

TEST_F(Operator, ClientsDoNotSeeEachOthersNames) {
    PagerClient one;
    PagerClient two;
    ASSERT_EQ(one.errorOf(prefixed(1).body()), "");
    EXPECT_EQ(two.errorOf(Ask{{"pager.op_log.id"}, {}, R"(,[1743,[[1741,"pager.op_log.parameter.n1"]]])"}.body()),
              R"(3111 Pager error: unknown field "pager.op_log.parameter.n1")");
}

/// Bytes that this process keeps in memory.
std::size_t residentBytes() {
    malloc_trim(0);
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0;
    std::size_t resident = 0;
    file >> size >> resident;
    return resident * 4096;
}

TEST_F(Operator, DoesNotGrowHoweverManyRequestsItServes) {
    host.import(std::string(R"({"kind":"environment","eid":")") + eidA + R"(","state":6,"title":"web"}
{"kind":"operation","id":"o","time":1700000000,"eid":")" +
                eidA + R"("}
{"kind":"event","time":1700000000,"category":"env_status"})");
    PagerClient client;
    const auto serve = [&](int from, int to) {
        for (int number = from; number < to; ++number) {
            switch (number % 5) {
                case 0:
                    ASSERT_EQ(client.errorOf(prefixed(number).body()), "");
                    break;
                case 1:
                    ASSERT_EQ(client.errorOf(Ask{{"pager.op_log.id", "pager.op_log_eid.eid"}, {}, counts}.body()), "");
                    break;
                case 2:
                    ASSERT_EQ(client.errorOf(Ask{{"pager.event_log.source"},
                                                 "pager.env.state = 6 and pager.event_log.category='env_status'"}
                                                 .body()),
                              "");
                    break;
                case 3:
                    ASSERT_NE(client.errorOf(Ask{{"pager.op_log.id"}, "nothing = " + std::to_string(number)}.body()),
                              "");
                    break;
                default:
                    ASSERT_NE(client.errorOf(Ask{{"pager.env.eid", "no field"}}.body()), "");
            }
        }
    };
    // Long enough for every buffer, pool and limit to have been filled once.
    serve(0, 6000);
    const std::size_t before = residentBytes();
    const std::size_t live = mallinfo2().uordblks;
    serve(6000, 16000);
    EXPECT_LE(client.op().fields().size(), builtInFields().size() + 1024);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // Live objects: apart from the fields found by their prefixes, whose number goes up and down.
    EXPECT_LT(mallinfo2().uordblks, live + (std::size_t{1} << 20));
    EXPECT_LT(residentBytes(), before + (std::size_t{2} << 20));
#else
    static_cast<void>(before);
    static_cast<void>(live);
#endif
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.id"}, "pager.op_log.parameter.n15995 = 1"}.body()), "");
}

}  // namespace
}  // namespace QOR::testing
