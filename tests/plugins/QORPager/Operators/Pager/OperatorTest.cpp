// The operator object: what it reads from the configuration, and what it keeps from one request and client to the next.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <malloc.h>

#include "QORPager/QORBuiltInFields.h"
#include "plugins/QORPager/Operators/Pager/PagerHost.h"
#include "plugins/QORPager/Operators/Pager/Vocabulary.h"
#include "support/ResidentMemory.h"

namespace QOR::test {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

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
    readCachesFromVoc(caches);
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

/// Sorting finds a name only when it is known.
std::string sortedBy(const std::string& name) {
    return Ask{{"pager.op_log.id"}, {}, ",[1743,[[1741," + Ask::quoted(name) + "]]]"}.body();
}

QORClientContextPtr standingFor(std::vector<const char*> eids, bool all = false) {
    QORToken::SidSet others;
    for (const char* id : eids)
        others.insert(std::make_shared<QORLocalSID>(0, 1, eid(id)));
    auto context = std::make_shared<QORClientContext>();
    context->fullAccess = all;
    context->token = std::make_shared<QORToken>(nullptr, std::move(others));
    return context;
}

TEST_F(Operator, NamesStayKnownUntilTheClientGoes) {
    PagerClient client;
    for (int number = 0; number < 1000; ++number)
        ASSERT_EQ(client.errorOf(prefixed(number).body()), "") << number;
    for (const int number : {0, 500, 999})
        EXPECT_EQ(client.errorOf(sortedBy("pager.op_log.parameter.n" + std::to_string(number))), "") << number;
}

TEST_F(Operator, NamesAreKnownToThoseThatFoundThem) {
    PagerClient client;
    const std::string selected = "pager.op_log.parameter.selected";
    const std::string filtered = "pager.op_log.parameter.filtered";
    const auto a = standingFor({eidA});
    const auto b = standingFor({eidB});
    ASSERT_EQ(client.errorOf(Ask{{selected}, filtered + " = 'x'"}.body(), a), "");
    // Others know no more than on a connection of their own: what is not under a prefix is not declared either.
    const std::string inAnyCase = Ask{{"pager.op_log.id"}, "PAGER.op_log.parameter.filtered = 'x'"}.body();
    for (const auto& other : {b, fullAccess(), standingFor({eidA}, true), standingFor({eidA, eidB}), standingFor({})}) {
        for (const std::string& name : {selected, filtered})
            EXPECT_EQ(client.errorOf(sortedBy(name), other), "3111 Pager error: unknown field \"" + name + "\"");
        EXPECT_EQ(client.errorOf(inAnyCase, other),
                  "3151 Pager parsing error: Undeclared identifier: PAGER.op_log.parameter.filtered");
    }
    // Whoever found them goes on knowing them, under another context of the same identity too.
    for (const auto& again : {a, standingFor({eidA})}) {
        for (const std::string& name : {selected, filtered})
            EXPECT_EQ(client.errorOf(sortedBy(name), again), "");
        EXPECT_EQ(client.errorOf(inAnyCase, again), "");
    }
    ASSERT_EQ(client.errorOf(Ask{{"pager.op_log.parameter.ofB"}}.body(), b), "");
    EXPECT_EQ(client.errorOf(sortedBy(selected), a), "");
    EXPECT_NE(client.errorOf(sortedBy("pager.op_log.parameter.ofB"), a), "");
    EXPECT_EQ(client.errorOf(sortedBy("pager.op_log.parameter.ofB"), b), "");
    client.disconnect();
    EXPECT_NE(client.errorOf(sortedBy(selected), a), "");
}

TEST_F(Operator, FurtherNamesAreRefusedWhenThereAreTooMany) {
    PagerClient client;
    const auto name = [](int number) { return "pager.op_log.parameter.n" + std::to_string(number); };
    for (int number = 0; number < 1024; ++number)
        ASSERT_EQ(client.errorOf(Ask{{name(number)}}.body()), "") << number;
    const std::string refusal = "too many names under prefixes on this connection: no room for \"" + name(1024) + "\"";
    const std::string message = client.errorOf(Ask{{name(1024)}}.body());
    EXPECT_THAT(message, AllOf(StartsWith("400 "), HasSubstr(refusal)));
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.id"}, name(1024) + " = 1"}.body()), message);
    for (const int number : {0, 1023}) {
        EXPECT_EQ(client.errorOf(sortedBy(name(number))), "") << "known names are not forgotten";
        EXPECT_EQ(client.errorOf(Ask{{name(number)}, name(number) + " = 1"}.body()), "");
    }
    EXPECT_EQ(client.errorOf(Ask{{name(1024)}}.body(), standingFor({eidA})), "") << "others have room of their own";
}

TEST_F(Operator, WhatOneConnectionMakesItKeepIsBounded) {
    PagerClient client;
    const std::string prefix = "pager.op_log.parameter.";
    EXPECT_EQ(client.errorOf(Ask{{prefix + std::string(200'000, 'x')}}.body()), "");
    const std::string refusal = client.errorOf(Ask{{prefix + std::string(200'000, 'y')}}.body());
    EXPECT_THAT(refusal, AllOf(StartsWith("400 "), HasSubstr("too many names"), HasSubstr("yyy...\"")));
    EXPECT_LT(refusal.size(), 300U);
    // Very many identities may have a few names, or some very long ones.
    const auto identity = [](int number) {
        return standingFor({("00000000-0000-4000-8000-" + std::to_string(100000000000 + number)).c_str()});
    };
    for (int number = 0; number < 1000; ++number) {
        ASSERT_EQ(client.errorOf(Ask{{prefix + "x", prefix + "y"}}.body(), identity(number)), "") << number;
    }
    int named = 0;
    for (int number = 0; number < 100; ++number) {
        if (client.errorOf(Ask{{prefix + std::string(200'000, 'z')}}.body(), identity(number)).empty()) ++named;
    }
    EXPECT_GT(named, 70);
    EXPECT_LT(named, 84);
    const std::string another = Ask{{prefix + std::string(200'000, 'w')}}.body();
    EXPECT_THAT(client.errorOf(another, identity(2000)), HasSubstr("too many names"));
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.id"}}.body(), identity(2000)), "");
    EXPECT_EQ(client.errorOf(sortedBy(prefix + "y"), identity(999)), "");
    client.disconnect();
    EXPECT_EQ(client.errorOf(another, identity(2000)), "");
}

/// Bytes that this process keeps in memory.
std::size_t keptBytes() {
    malloc_trim(0);
    return test::residentBytes();
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
                case 0: {
                    const std::string error = client.errorOf(prefixed(number).body());
                    ASSERT_TRUE(number >= 5120 ? error.starts_with("400 ") : error.empty()) << error;
                    break;
                }
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
    const std::size_t before = keptBytes();
    const std::size_t live = mallinfo2().uordblks;
    serve(6000, 16000);
    EXPECT_LE(client.op().fields().size(), builtInFields().size() + 1024);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(mallinfo2().uordblks, live + (std::size_t{1} << 20));
    EXPECT_LT(keptBytes(), before + (std::size_t{2} << 20));
#else
    static_cast<void>(before);
    static_cast<void>(live);
#endif
    EXPECT_EQ(client.errorOf(Ask{{"pager.op_log.id"}, "pager.op_log.parameter.n5 = 1"}.body()), "");
}

}  // namespace
}  // namespace QOR::test
