// An agent whose records lie with several servers sends them on, and loses one of these.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "forward/ForwardAgents.h"
#include "support/ShardedPostgres.h"
#include "support/TcpBalancer.h"

namespace QOR::test {
namespace {

/// An environment that lies with the server.
std::string environmentAt(const ShardedPostgres& places, unsigned number) {
    return PostgresConnection(places.conninfo(number))
        .cell(
            "SELECT e.eid FROM (SELECT md5(n::text)::uuid AS eid FROM generate_series(1, 100) n) e, qor_held h WHERE "
            "satisfies_hash_partition('qor_spread'::regclass, h.modulus, h.remainder, e.eid) LIMIT 1");
}

std::string eventAbout(const std::string& eid, const std::string& source) {
    return R"({"kind":"event","time":1,"source":")" + source + R"(","eid":")" + eid + "\"}\n";
}

/// What remains when whoever keeps two servers has given up the second: the first one is to have everything.
void takeSecondAway(const ShardedPostgres& places) {
    PostgresConnection(places.conninfo(1)).run("UPDATE qor_held SET modulus = 1, remainder = 0");
    PostgresConnection(places.conninfo())
        .run(
            "BEGIN; DELETE FROM qor_server WHERE name = 's2'; UPDATE qor_server SET modulus = 1, remainder = 0; "
            "UPDATE qor_placement SET epoch = epoch + 1; COMMIT");
}

TEST(ForwardFromServers, AServerThatIsNoneOfTheDatabasesAnyMoreIsForgotten) {
    const TemporaryDirectory folder;
    const ShardedPostgres places(2);
    AgentProcess central({.more = {"--listen", "http://127.0.0.1:0"}});
    TcpBalancer way({portOf(central)});
    const std::string own = environmentAt(places, 1);
    const std::string theirs = environmentAt(places, 2);
    const std::string token = tokenFile(central, "machine", {"--below", own, "--write"}, folder);
    const AgentProcess host({.database = places.connectionString(),
                             .more = {"--forward", "http://127.0.0.1:" + std::to_string(way.port()), "--forward-token",
                                      token, "--forward-wait", "1"}});
    PostgresConnection home(places.conninfo());
    const auto known = [&] {
        return home.cell("SELECT string_agg(server, ',' ORDER BY server) FROM qor_forward_position");
    };
    store(host, eventAbout(own, "before") + eventAbout(theirs, "before"));
    awaitSent(host);
    EXPECT_EQ(known(), ",s1,s2");
    EXPECT_EQ(forwarding(host, "refused"), "1") << "the other one is not the machine's to write about";
    central.stop();
    store(host, eventAbout(theirs, "lost"));
    awaitThat([&] { return forwarding(host, "behind") == "1"; });
    takeSecondAway(places);
    awaitThat([&] { return forwarding(host, "missing") == "1" && forwarding(host, "refused") == "0"; });
    EXPECT_EQ(known(), ",s1");
    awaitSent(host);
    EXPECT_THAT(host.log(), testing::HasSubstr("server \"s2\" is none of the database's any more: "));
    // The way leads to where the agent listens now.
    central.start();
    way.setPort(0, portOf(central));
    store(host, eventAbout(own, "after"));
    awaitSent(host);
    EXPECT_EQ(rowsOf(central, "vEventLog", "source"), R"([["after"],["before"]])");
}

TEST(ForwardFromServers, OfAServerThatWentWhileNoAgentRanNobodySaysThatAllWasSent) {
    const TemporaryDirectory folder;
    const ShardedPostgres places(2);
    const AgentProcess central({.more = {"--listen", "http://127.0.0.1:0"}});
    const std::string token = tokenFile(central, "machine", {"--full"}, folder);
    AgentProcess host({.database = places.connectionString(),
                       .more = {"--forward", "http://127.0.0.1:" + std::to_string(portOf(central)), "--forward-token",
                                token, "--forward-wait", "1"}});
    store(host, eventAbout(environmentAt(places, 1), "one") + eventAbout(environmentAt(places, 2), "two"));
    awaitSent(host);
    EXPECT_EQ(host.stop(), 0);
    takeSecondAway(places);
    host.start();
    PostgresConnection home(places.conninfo());
    awaitThat(
        [&] { return home.cell("SELECT string_agg(server, ',' ORDER BY server) FROM qor_forward_position") == ",s1"; });
    // It is told once that is stored.
    awaitThat([&] {
        return host.log().find(
                   "server \"s2\" is none of the database's any more: an unknown number of changes of it "
                   "were not sent to ") != std::string::npos;
    });
}

}  // namespace
}  // namespace QOR::test
