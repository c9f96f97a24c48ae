#include "ingest/collectors/AptCollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ingest/OneCollector.h"
#include "ingest/QORAptHistory.h"
#include "support/HostDatabase.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;
using testing::HasSubstr;

constexpr const char* historyOfInstall =
    "\n"
    "Start-Date: 2024-03-01  10:00:00\n"
    "Commandline: apt-get install curl\n"
    "Requested-By: alice (1000)\n"
    "Install: libcurl4:amd64 (7.88.1-10, automatic), curl:amd64 (7.88.1-10)\n"
    "Upgrade: tzdata:all (2024a-0, 2024b-0)\n"
    "End-Date: 2024-03-01  10:00:07\n";
constexpr const char* historyOfFailure =
    "\n"
    "Start-Date: 2024-03-02  11:00:00\n"
    "Commandline: apt purge -y nano\n"
    "Purge: nano:amd64 (7.2-1)\n"
    "Error: Sub-process /usr/bin/dpkg returned an error code (1)\n"
    "End-Date: 2024-03-02  11:00:01\n";
constexpr const char* historyStillRunning =
    "\n"
    "Start-Date: 2024-03-03  12:00:00\n"
    "Commandline: /usr/bin/unattended-upgrade\n"
    "Upgrade: bash:amd64 (5.2-1, 5.2-2)\n";
constexpr const char* historyEnd = "End-Date: 2024-03-03  12:00:09\n";

class AptCollectorTest : public testing::Test {
protected:
    AptCollectorTest() { std::filesystem::create_directories(m_folder); }

    void write(const std::string& name, const std::string& text, std::ios::openmode mode = std::ios::trunc) const {
        std::ofstream(m_folder / name, std::ios::out | mode) << text;
    }
    void pack(const std::string& name, const std::string& text) const {
        const gzFile file = gzopen((m_folder / name).c_str(), "wb");
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(gzwrite(file, text.data(), static_cast<unsigned>(text.size())), static_cast<int>(text.size()));
        EXPECT_EQ(gzclose(file), Z_OK);
    }
    QORAptHistory read(std::int64_t since = 0) const { return readAptHistory(m_root.path(), since); }
    QORCollectResult collect() const { return test::runOnce("apt", m_root.path()); }

    const test::TemporaryDirectory m_root;
    const std::filesystem::path m_folder = m_root / "var/log/apt";
};

TEST_F(AptCollectorTest, ATransactionTellsWhoAskedForWhat) {
    write("history.log", std::string(historyOfInstall) + historyOfFailure + historyStillRunning);
    const QORAptHistory history = read();
    EXPECT_EQ(history.files, 1U);
    EXPECT_EQ(history.malformed, 0U);
    ASSERT_EQ(history.transactions.size(), 3U);
    const QORAptTransaction& first = history.transactions[0];
    EXPECT_EQ(first.command, "apt-get install curl");
    EXPECT_EQ(first.requester, "alice (1000)");
    EXPECT_EQ(first.end, first.time + 7);
    ASSERT_EQ(first.packages.size(), 3U);
    EXPECT_EQ(first.packages[0].name, "libcurl4");
    EXPECT_EQ(first.packages[0].version, "7.88.1-10");
    EXPECT_TRUE(first.packages[0].automatic);
    EXPECT_EQ(first.packages[1].name, "curl");
    EXPECT_EQ(first.packages[1].action, "install");
    EXPECT_FALSE(first.packages[1].automatic);
    EXPECT_EQ(first.packages[2].action, "upgrade");
    EXPECT_EQ(first.packages[2].architecture, "all");
    EXPECT_EQ(first.packages[2].oldVersion, "2024a-0");
    EXPECT_EQ(first.packages[2].version, "2024b-0");
    EXPECT_THAT(history.transactions[1].error, HasSubstr("error code (1)"));
    EXPECT_EQ(history.transactions[2].end, std::nullopt);
}

TEST_F(AptCollectorTest, LinesOfAnyKindAreTaken) {
    const std::string manyPackages = "Install: " + std::string(200'000, 'x') + ":amd64 (1)\n";
    write("history.log", "End-Date: 2024-03-01  09:00:00\nnonsense\n\nStart-Date: yesterday\n" +
                             std::string(historyOfInstall) +
                             "\nStart-Date: 2024-03-01  10:30:00\nCommandline: apt install caf\xe9\n" + manyPackages +
                             "Unknown: member\nEnd-Date: 2024-03-01");
    const QORAptHistory history = read();
    EXPECT_EQ(history.malformed, 4U);
    ASSERT_EQ(history.transactions.size(), 2U);
    EXPECT_EQ(history.transactions[1].command, "apt install caf\xef\xbf\xbd");
    ASSERT_EQ(history.transactions[1].packages.size(), 1U);
    EXPECT_EQ(history.transactions[1].packages[0].name.size(), 200'000U);
    EXPECT_EQ(history.transactions[1].end, std::nullopt) << "its line is still being written";
}

TEST_F(AptCollectorTest, RotationsAreReadInTheirOrderAndOldOnesNotAgain) {
    pack("history.log.2.gz", historyOfInstall);
    write("history.log.1", historyOfFailure);
    write("history.log", historyStillRunning);
    EXPECT_EQ(read().transactions.size(), 3U);
    EXPECT_EQ(read().transactions[0].requester, "alice (1000)");
    std::filesystem::last_write_time(m_folder / "history.log.2.gz",
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(48));
    const auto yesterday = std::chrono::system_clock::now() - std::chrono::hours(24);
    const QORAptHistory later = read(std::chrono::system_clock::to_time_t(yesterday));
    EXPECT_EQ(later.files, 3U);
    ASSERT_EQ(later.transactions.size(), 2U);
    EXPECT_EQ(later.transactions[0].command, "apt purge -y nano");
}

TEST_F(AptCollectorTest, TransactionsAreStoredOnceWhateverBecomesOfTheFiles) {
    const test::HostDatabase database(test::TestTables::Own);
    database.open();
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None);
    write("history.log", std::string(historyOfInstall) + historyOfFailure + historyStillRunning);
    EXPECT_EQ(collect().stored.of(QORRecordKind::Operation).added, 3U);
    EXPECT_EQ(
        queryRows("SELECT op, status, package, version FROM \"vOpLog\" ORDER BY time", 4),
        (std::vector<Row>{
            {"apt", "0", "libcurl4", "7.88.1-10"}, {"apt", "1", "nano", "7.2-1"}, {"apt", "2", "bash", "5.2-2"}}));
    EXPECT_THAT(queryText("SELECT message FROM \"vOpLog\" WHERE status = 0"),
                HasSubstr("<info><request><command>apt-get install curl</command><user>alice (1000)</user></request>"
                          "<package><name>libcurl4</name><version>7.88.1-10</version><architecture>amd64</architecture>"
                          "<action>install</action><automatic>true</automatic></package><package><name>curl</name>"));

    write("history.log", historyEnd, std::ios::app);
    std::filesystem::rename(m_folder / "history.log", m_folder / "history.log.1");
    write("history.log", "");
    const QORCollectResult rotated = collect();
    EXPECT_EQ(rotated.stored.of(QORRecordKind::Operation).added, 0U);
    EXPECT_EQ(rotated.stored.of(QORRecordKind::Operation).replaced, 1U) << "the last one has come to its end";
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vOpLog\" WHERE status = 2"), "0");

    std::filesystem::remove(m_folder / "history.log.1");
    EXPECT_EQ(collect().stored.accepted(), 0U);
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vOpLog\""), "3") << "what the files have lost is kept";
}

}  // namespace
}  // namespace QOR
