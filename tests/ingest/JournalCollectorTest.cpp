#include "ingest/collectors/JournalCollector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ingest/OneCollector.h"
#include "support/HostDatabase.h"
#include "support/Unpacked.h"

namespace QOR {
namespace {

using test::queryRows;
using test::queryText;
using test::Row;
using testing::HasSubstr;

/// A tree with journals that journal/record.py recorded.
class JournalCollectorTest : public testing::Test {
protected:
    JournalCollectorTest() {
        registerCollectors();  // the host's own keeps its name
        std::filesystem::create_directories(m_folder);
        std::filesystem::create_directories(m_root / "etc");
        std::ofstream(m_root / "etc/machine-id") << "0123456789abcdef0123456789abcdef\n";
        m_database.open();
    }

    void put(const std::string& recorded, const std::string& name) const {
        std::ifstream packed(std::filesystem::path(QOR_TEST_DATA_DIR) / "journal" / (recorded + ".journal.gz"),
                             std::ios::binary);
        ASSERT_TRUE(packed);
        std::ofstream(m_folder / name, std::ios::binary)
            << test::unpackedWhole({std::istreambuf_iterator<char>(packed), std::istreambuf_iterator<char>()});
    }
    QORCollectResult collect() const { return test::runOnce("journal", m_root.path()); }
    static std::string count() { return queryText("SELECT count(*) FROM \"vEventLog\""); }
    static std::vector<Row> eventsSince(const std::string& time) {
        return queryRows("SELECT time, category, info FROM \"vEventLog\" WHERE time >= '" + time + "' ORDER BY time",
                         3);
    }
    static std::string at(const std::string& minute) { return "2024-05-01 10:" + minute; }

    const test::TemporaryDirectory m_root;
    const std::filesystem::path m_folder = m_root / "var/log/journal/0123456789abcdef0123456789abcdef";
    test::HostDatabase m_database{test::TestTables::Own};
};

TEST_F(JournalCollectorTest, ErrorsChangesOfUnitsAndShortagesAreEvents) {
    EXPECT_EQ(collect().outcome, QORCollectOutcome::None) << "there is no journal";
    put("first", "system.journal");
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_EQ(result.stored.of(QORRecordKind::Event).added, 9U);
    EXPECT_EQ(queryText("SELECT count(*) FROM \"vEventLog\" WHERE source = 'journal'"), "9");
    EXPECT_EQ(
        eventsSince("2024-01-01"),
        (std::vector<Row>{
            {at("00:00"), "env_status",
             "<info><unit>ssh.service</unit><identifier>sshd</identifier><priority>3</priority>"
             "<message>fatal: no hostkeys</message></info>"},
            {at("00:02"), "env_status",
             "<info><unit>cron.service</unit><state>started</state><message>Started cron.service.</message></info>"},
            {at("00:05"), "resource_alert",
             "<info><resource>memory</resource><identifier>kernel</identifier><priority>3</priority>"
             "<message>Out of memory: Killed process 812 (worker) total-vm:1024kB</message></info>"},
            {at("00:06"), "env_status",
             "<info><identifier>joker</identifier><priority>3</priority>"
             "<message>Out of memory: Killed process 1</message></info>"},
            {at("00:07"), "resource_alert",
             "<info><resource>memory</resource><unit>shop.service</unit><state>killed</state>"
             "<message>shop.service: A process of this unit has been killed by the OOM killer.</message></info>"},
            {at("00:08"), "env_status",
             "<info><unit>shop.service</unit><state>failed</state><result>oom-kill</result>"
             "<message>shop.service: Failed with result 'oom-kill'.</message></info>"},
            {at("00:09"), "resource_alert",
             "<info><resource>cpu</resource><identifier>kernel</identifier><priority>4</priority><message>CPU3: Core "
             "temperature above threshold, cpu clock throttled (total events = 1)</message></info>"},
            {at("00:11"), "resource_alert",
             "<info><resource>space</resource><unit>db.service</unit><identifier>writer</identifier>"
             "<priority>3</priority><message>cannot write: No space left on device</message></info>"},
            {at("00:12"), "env_status",
             "<info><identifier>bytes</identifier><priority>2</priority>"
             "<message>caf\xef\xbf\xbd is shut</message></info>"},
        }));
}

TEST_F(JournalCollectorTest, ItIsReadOnFromWhereItWasThroughRotations) {
    put("first", "system.journal");
    EXPECT_EQ(collect().stored.of(QORRecordKind::Event).added, 9U);
    EXPECT_EQ(collect().stored.accepted(), 0U) << "nothing is new";
    std::filesystem::rename(m_folder / "system.journal", m_folder / "system@1.journal");
    put("second", "system.journal");
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Done) << result.text;
    EXPECT_EQ(result.stored.of(QORRecordKind::Event).added, 2U);
    EXPECT_EQ(result.stored.accepted(), 2U) << "nothing was brought again";
    EXPECT_EQ(eventsSince("2024-05-01 10:01:00"),
              (std::vector<Row>{{at("01:40"), "env_status",
                                 "<info><unit>cron.service</unit><state>stopped</state>"
                                 "<message>Stopped cron.service.</message></info>"},
                                {at("01:41"), "env_status",
                                 "<info><unit>web.service</unit><state>not_started</state>"
                                 "<message>Failed to start web.service.</message></info>"}}));
}

TEST_F(JournalCollectorTest, WhereItsPlaceIsGoneItGoesOnByTimeAndSaysSo) {
    put("first", "system.journal");
    collect();
    std::filesystem::remove(m_folder / "system.journal");
    put("second", "system.journal");
    const QORCollectResult later = collect();
    EXPECT_EQ(later.outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(later.text, HasSubstr("the journal's entry up to which it was read: it is no more"));
    EXPECT_EQ(later.stored.of(QORRecordKind::Event).added, 2U);
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done) << "that is told once";

    std::filesystem::remove(m_folder / "system.journal");
    put("first", "system.journal");
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Failed);
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done) << "also where nothing came later";
    EXPECT_EQ(count(), "11");
}

/// Cuts a file when the first record of a run has come.
class CuttingCollection final : public QORCollection {
public:
    CuttingCollection(std::filesystem::path root, std::filesystem::path file, std::uintmax_t size)
        : m_root(std::move(root)), m_file(std::move(file)), m_size(size) {}

    const std::filesystem::path& root() const noexcept override { return m_root; }
    const QOREID& machine() const noexcept override { return m_machine; }
    const std::string& position() const noexcept override { return m_position; }
    bool isStopping() const noexcept override { return false; }
    void add(std::string_view) override {
        if (m_records++ == 0) std::filesystem::resize_file(m_file, m_size);
    }
    void setPosition(std::string position) override { m_position = std::move(position); }
    void cannotRead(std::string what) override { m_unreadable.push_back(std::move(what)); }
    void passOver(std::uint64_t) override {}

    int records() const { return m_records; }
    const std::vector<std::string>& unreadable() const { return m_unreadable; }

private:
    const std::filesystem::path m_root;
    const std::filesystem::path m_file;
    const std::uintmax_t m_size;
    const QOREID m_machine{QORGUIDBase::random()};
    std::string m_position;
    int m_records = 0;
    std::vector<std::string> m_unreadable;
};

TEST_F(JournalCollectorTest, AFileThatIsCutWhileItIsReadIsTold) {
    put("first", "system.journal");
    CuttingCollection collection(m_root.path(), m_folder / "system.journal", 4096);
    JournalCollector collector;
    EXPECT_TRUE(collector.collect(collection));
    EXPECT_EQ(collection.records(), 1) << "nothing is made of what is gone";
    ASSERT_EQ(collection.unreadable().size(), 1U);
    EXPECT_THAT(collection.unreadable()[0], HasSubstr("a file of it is damaged or was cut"));
}

TEST_F(JournalCollectorTest, AFileWhoseUnusedEndIsCutOffMeanwhileIsWhole) {
    put("first", "system.journal");
    const std::uintmax_t used = std::filesystem::file_size(m_folder / "system.journal");
    std::filesystem::resize_file(m_folder / "system.journal", 2 * used);
    CuttingCollection collection(m_root.path(), m_folder / "system.journal", used);
    JournalCollector collector;
    EXPECT_TRUE(collector.collect(collection));
    EXPECT_EQ(collection.records(), 9);
    EXPECT_THAT(collection.unreadable(), testing::IsEmpty());
}

TEST_F(JournalCollectorTest, AFileThatIsNoMoreWhenItIsOpenedIsNoFailure) {
    put("first", "system.journal");
    std::filesystem::create_symlink("gone", m_folder / "system@1.journal");
    std::filesystem::create_symlink("system@2.journal", m_folder / "system@2.journal");
    CuttingCollection collection(m_root.path(), m_root / "etc/machine-id", 33);
    JournalCollector collector;
    EXPECT_TRUE(collector.collect(collection));
    EXPECT_EQ(collection.records(), 9);
    EXPECT_EQ(collection.unreadable().size(), 1U) << "what was found twice is told once";
}

TEST_F(JournalCollectorTest, WhatIsReadAgainDoesNotCountAsAFlood) {
    put("first", "system@1.journal");
    put("second", "system.journal");
    std::filesystem::resize_file(m_folder / "system@1.journal", 8192);
    JournalCollector bounded({.entries = 4, .events = 2, .ofOne = 1});
    test::runOnce(bounded, m_root.path());
    EXPECT_EQ(count(), "2");
    std::filesystem::remove(m_folder / "system@1.journal");
    put("first", "system@1.journal");
    for (int run = 0; run < 6; ++run)
        EXPECT_EQ(test::runOnce(bounded, m_root.path()).outcome, QORCollectOutcome::Done);
    EXPECT_EQ(count(), "11") << "all of it, and nothing that was left out";
    EXPECT_EQ(test::runOnce(bounded, m_root.path()).stored.accepted(), 0U);
}

TEST_F(JournalCollectorTest, AnotherFileThatCannotBeReadMakesNothingBeReadAgain) {
    put("first", "system@1.journal");
    put("second", "system.journal");
    std::filesystem::resize_file(m_folder / "system@1.journal", 8192);
    EXPECT_EQ(collect().stored.accepted(), 2U);
    put("first", "system@2.journal");
    std::filesystem::resize_file(m_folder / "system@2.journal", 8192);
    EXPECT_EQ(collect().stored.accepted(), 0U);
    put("first", "system@1.journal");
    EXPECT_EQ(collect().stored.of(QORRecordKind::Event).added, 9U) << "what is owed is still known";
    EXPECT_EQ(collect().stored.accepted(), 0U);
}

TEST_F(JournalCollectorTest, WhatADamagedFileHoldsIsBroughtWhenItCanBeRead) {
    put("first", "system@1.journal");
    put("second", "system.journal");
    std::filesystem::resize_file(m_folder / "system@1.journal", 8192);
    for (int run = 0; run < 2; ++run) {
        const QORCollectResult damaged = collect();
        EXPECT_EQ(damaged.outcome, QORCollectOutcome::Failed);
        EXPECT_THAT(damaged.text, HasSubstr("system@1.journal: it is damaged or cut"));
        EXPECT_EQ(count(), "2") << "the other one is read";
        EXPECT_EQ(damaged.stored.accepted(), run == 0 ? 2U : 0U) << "and not again as long as nothing changes";
    }
    std::filesystem::remove(m_folder / "system@1.journal");
    put("first", "system@1.journal~");
    EXPECT_EQ(collect().outcome, QORCollectOutcome::Done);
    EXPECT_EQ(count(), "11");
    EXPECT_EQ(collect().stored.accepted(), 0U);
}

TEST_F(JournalCollectorTest, AFloodIsBoundedAndWhatItLeftOutIsToldAsOneEvent) {
    put("first", "system.journal");
    JournalCollector bounded({.entries = 100, .events = 6, .ofOne = 1});
    EXPECT_EQ(test::runOnce(bounded, m_root.path()).stored.of(QORRecordKind::Event).added, 7U);
    EXPECT_EQ(queryRows("SELECT time, source, category, info FROM \"vEventLog\" WHERE info LIKE '%left_out%'", 4),
              (std::vector<Row>{{at("00:12"), "journal", "env_status",
                                 "<info><left_out>3</left_out><from>2024-05-01T10:00:08+0000</from>"
                                 "<until>2024-05-01T10:00:12+0000</until><most_of>shop.service</most_of>"
                                 "<of_it>1</of_it></info>"}}));
    EXPECT_EQ(test::runOnce(bounded, m_root.path()).stored.accepted(), 0U) << "they are not brought later";
}

TEST_F(JournalCollectorTest, AJournalThatMayNotBeReadIsTold) {
    if (::geteuid() == 0) GTEST_SKIP() << "root may read everything";
    put("first", "system.journal");
    std::filesystem::permissions(m_folder / "system.journal", std::filesystem::perms::none);
    const QORCollectResult result = collect();
    EXPECT_EQ(result.outcome, QORCollectOutcome::Failed);
    EXPECT_THAT(result.text, HasSubstr("system.journal: Permission denied"));
}

}  // namespace
}  // namespace QOR
