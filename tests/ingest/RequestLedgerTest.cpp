// A request that brings records under a key is stored once, however often it is sent.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "QORCommon/QORException.h"
#include "ingest/QORIngest.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::HostDatabase;
using test::queryText;
using test::runSql;

constexpr const char* events = "SELECT count(*) FROM qor_event";

std::string ledgerLine(int time) {
    return R"({"kind":"event","time":)" + std::to_string(time) + "}\n";
}

class RequestLedgerTest : public ::testing::Test {
protected:
    RequestLedgerTest() {
        options.batchRecords = 3;
        for (int number = 1; number <= 10; ++number)
            lines += number == 5 || number == 10 ? "bad line\n" : ledgerLine(number);
    }
    void SetUp() override { database.open(); }

    QORIngestResult send(std::string_view what, std::uint64_t firstLine = 1, std::string_view key = "key") const {
        const QORIngestRequest request(key, what, firstLine);
        return QORIngest(options).importBatch(what, firstLine, &request);
    }
    int codeOf(std::string_view what, std::uint64_t firstLine = 1, std::string_view key = "key") const {
        try {
            send(what, firstLine, key);
        } catch (const QORException& error) {
            return error.code();
        }
        return 0;
    }
    static void expectWhole(const QORIngestResult& result) {
        EXPECT_EQ(result.of(QORRecordKind::Event).added, 8U);
        EXPECT_EQ(result.refused, 2U);
        EXPECT_EQ(result.lastLine, 10U);
        ASSERT_EQ(result.refusedLines.size(), 2U);
        EXPECT_EQ(result.refusedLines[0].line, 5U);
        EXPECT_EQ(result.refusedLines[1].line, 10U);
        EXPECT_FALSE(result.failure);
    }

    HostDatabase database{test::TestTables::Own};
    QORIngestOptions options;
    std::string lines;
};

TEST_F(RequestLedgerTest, ARequestThatIsSentAgainHasItsAnswerAgain) {
    for (int attempt = 0; attempt < 3; ++attempt) {
        expectWhole(send(lines));
        EXPECT_EQ(queryText(events), "8");
    }
    expectWhole(send(lines, 1, "another-key"));
    EXPECT_EQ(queryText(events), "16");
}

TEST_F(RequestLedgerTest, ARequestThatWasBrokenOffGoesOnWhereItWas) {
    QOR_NOT_WITH_SERVERS("what keeps home from storing keeps no server from it");
    for (const int room : {0, 3, 6, 8}) {
        runSql("DELETE FROM qor_event");
        test::limitEvents(room);
        const std::string key = "room-" + std::to_string(room);
        const auto first = send(lines, 1, key);
        EXPECT_EQ(first.accepted(), static_cast<std::uint64_t>(room));
        EXPECT_EQ(first.failure.has_value(), room < 8);
        test::limitEvents(std::nullopt);
        expectWhole(send(lines, 1, key));
        EXPECT_EQ(queryText(events), "8") << room;
    }
}

TEST_F(RequestLedgerTest, LinesMayBeNumberedFromAnywhere) {
    const auto first = send(lines, 1000);
    const auto again = send(lines, 1000);
    EXPECT_EQ(first.lastLine, 1009U);
    EXPECT_EQ(again.lastLine, 1009U);
    EXPECT_EQ(again.accepted(), 8U);
    EXPECT_EQ(again.refusedLines.at(0).line, 1004U);
    EXPECT_EQ(queryText(events), "8");
}

TEST_F(RequestLedgerTest, TheSameKeyWithAnotherContentIsRefused) {
    send(lines);
    EXPECT_EQ(codeOf(lines + ledgerLine(11)), errOtherContent);
    EXPECT_EQ(codeOf(lines, 2), errOtherContent);
    EXPECT_EQ(queryText(events), "8");
}

TEST_F(RequestLedgerTest, AKeyIsShortAndVisible) {
    for (const std::string& key : {std::string(), std::string(256, 'k'), std::string("a b"), std::string("tab\t"),
                                   std::string("\xc3\xa4"), std::string("nul\0", 4)})
        EXPECT_EQ(codeOf(lines, 1, key), errBadRequest);
    EXPECT_EQ(codeOf(lines, 1, std::string(255, '~')), 0);
}

TEST_F(RequestLedgerTest, OldKeysAreForgotten) {
    send(lines);
    runSql("UPDATE qor_request SET time = time - 90000");
    send(ledgerLine(1), 1, "newer");
    EXPECT_EQ(test::queryRows("SELECT key FROM qor_request", 1), (std::vector<test::Row>{{"newer"}}));
}

TEST_F(RequestLedgerTest, TenThousandKeysAreKeptAtMost) {
    runSql(
        "INSERT INTO qor_request (key, digest, last_line, result, time) WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL "
        "SELECT i + 1 FROM n WHERE i < 10005) SELECT 'k' || i, '', 1, '', 4000000000 FROM n");
    send(ledgerLine(1), 1, "newest");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_request"), "10000");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_request WHERE key IN ('newest', 'k7')"), "2");
}

TEST_F(RequestLedgerTest, WithoutAKeyNothingIsKept) {
    QORIngest(options).importBatch(lines);
    QORIngest(options).importBatch(lines);
    EXPECT_EQ(queryText(events), "16");
    EXPECT_EQ(queryText("SELECT count(*) FROM qor_request"), "0");
}

}  // namespace
}  // namespace QOR
