/// \file
/// Records of several servers: lines of them, and servers to store them at.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "QORServers/QORServers.h"
#include "ingest/QORIngest.h"
#include "support/ShardedPostgres.h"

namespace QOR::test {

inline std::string event(int time, const QOREID& eid, const std::string& category = "c") {
    return R"({"kind":"event","time":)" + std::to_string(time) + R"(,"category":")" + category + R"(","eid":")" +
           eid.toString() + "\"}\n";
}

inline std::string operation(const std::string& id, const QOREID& eid, int status = 0,
                             const std::vector<QOREID>& touched = {}) {
    std::string eids;
    for (const QOREID& one : touched)
        eids += (eids.empty() ? "\"" : ",\"") + one.toString() + "\"";
    return R"({"kind":"operation","id":")" + id + R"(","time":1700000000,"status":)" + std::to_string(status) +
           R"(,"eid":")" + eid.toString() + R"(","eids":[)" + eids + "]}\n";
}

inline std::string backup(const std::string& id, const QOREID& eid) {
    return R"({"kind":"backup","id":")" + id + R"(","time":1700000000,"eid":")" + eid.toString() + "\"}\n";
}

inline std::string environment(const QOREID& eid, const std::string& title) {
    return R"({"kind":"environment","eid":")" + eid.toString() + R"(","title":")" + title + "\"}\n";
}

/// Three servers and their home, shared by the tests of a suite, which begin without records.
class SpreadTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        QORRdbms::prepareProcess();
        s_servers = std::make_unique<ShardedPostgres>();
        // What was acknowledged shall be there after a crash, from the first commit on.
        for (unsigned number = 1; number <= 3; ++number) {
            {
                PostgresConnection server = at(number);
                server.run("ALTER SYSTEM SET synchronous_commit = on");
                server.run("ALTER SYSTEM SET wal_level = replica");
                server.run("CHECKPOINT");
            }
            ShardedPostgres::server(number).crash();
            ShardedPostgres::server(number).start();
        }
    }
    static void TearDownTestSuite() { s_servers.reset(); }

    void SetUp() override {
        for (unsigned number = 1; number <= 3; ++number) {
            at(number).run(
                "TRUNCATE qor_operation, qor_operation_environment, qor_event, qor_backup; "
                "DELETE FROM qor_request; DELETE FROM qor_removal; DELETE FROM qor_environment; "
                "UPDATE qor_followed SET n = -1");
        }
        home().run("DELETE FROM qor_environment; DELETE FROM qor_request; DELETE FROM qor_touched_server");
        QORRdbms::instance().configure(options());
    }
    void TearDown() override {
        QORServers::instance().close();
        QORRdbms::instance().shutdown();
    }

    static ASDatabaseOptions options() {
        ASDatabaseOptions options;
        options.connectionString = s_servers->connectionString();
        options.busyTimeoutMs = 1000;
        return options;
    }
    /// For tests in which somebody is waited for who comes, however long that takes.
    static void bePatient() {
        QORServers::instance().close();
        ASDatabaseOptions patient = options();
        patient.busyTimeoutMs = 60'000;
        QORRdbms::instance().configure(patient);
    }
    static PostgresConnection at(unsigned number) { return PostgresConnection(s_servers->conninfo(number)); }
    static PostgresConnection home() { return PostgresConnection(s_servers->conninfo()); }
    /// The nth environment that a server keeps.
    static QOREID on(unsigned number, unsigned nth = 1) {
        const auto placement = QORServers::instance().placement();
        for (unsigned candidate = 1;; ++candidate) {
            const QOREID eid(QORGUIDBase::fromName(QORGUIDBase(), "environment " + std::to_string(candidate)));
            if (placement->of(eid).number == static_cast<int>(number) && --nth == 0) return eid;
        }
    }
    static QORIngestResult send(const std::string& lines, const std::string& key = {}) {
        if (key.empty()) return QORIngest().importBatch(lines);
        const QORIngestRequest request(key, lines, 1);
        return QORIngest().importBatch(lines, 1, &request);
    }
    static void expectStored(const QORIngestResult& result, std::uint64_t added, std::uint64_t replaced = 0) {
        EXPECT_FALSE(result.failure) << result.failure->reason;
        EXPECT_EQ(result.total().added, added);
        EXPECT_EQ(result.total().replaced, replaced);
    }
    /// A cell of each server.
    static std::vector<std::string> each(const std::string& select) {
        std::vector<std::string> cells;
        for (unsigned number = 1; number <= 3; ++number)
            cells.push_back(at(number).cell(select));
        return cells;
    }
    static std::vector<std::string> events() { return each("SELECT count(*) FROM qor_event"); }
    static std::vector<std::string> operations() {
        return each("SELECT coalesce(string_agg(id || ':' || status, ' ' ORDER BY id), '') FROM qor_operation");
    }
    /// Makes a server refuse records of a table; or takes that back.
    static void refuse(unsigned number, bool refused, const std::string& table = "qor_event") {
        at(number).run("DROP TRIGGER IF EXISTS refused ON " + table);
        if (!refused) return;
        at(number).run(
            "CREATE OR REPLACE FUNCTION refuse() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN "
            "RAISE 'no room'; END $$; CREATE TRIGGER refused BEFORE INSERT ON " +
            table + " FOR EACH ROW EXECUTE FUNCTION refuse()");
    }

    inline static std::unique_ptr<ShardedPostgres> s_servers;
};

}  // namespace QOR::test
