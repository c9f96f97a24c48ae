#include "ingest/QORPackageLog.h"

#include <zlib.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

/// The process's time zone for the length of a test.
class TimeZone {
public:
    explicit TimeZone(const char* zone) {
        if (const char* old = std::getenv("TZ")) m_old = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~TimeZone() {
        if (m_old.empty()) {
            ::unsetenv("TZ");
        } else {
            ::setenv("TZ", m_old.c_str(), 1);
        }
        ::tzset();
    }

private:
    std::string m_old;
};

constexpr const char* middleEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

class QORPackageLogTest : public ::testing::Test {
protected:
    QORPackageLogTest() { std::filesystem::create_directories(m_root / "var/log"); }

    std::filesystem::path path(const std::string& name) const { return m_root.path() / "var/log" / name; }
    void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }
    void writeCompressed(const std::string& name, const std::string& text) const {
        const gzFile file = gzopen(path(name).c_str(), "wb");
        ASSERT_NE(file, nullptr);
        ASSERT_EQ(gzwrite(file, text.data(), static_cast<unsigned>(text.size())), static_cast<int>(text.size()));
        ASSERT_EQ(gzclose(file), Z_OK);
    }
    QORPackageLog read() const { return readPackageLog(m_root.path()); }

    TimeZone m_zone{"UTC0"};
    test::TemporaryDirectory m_root;
};

std::string summary(const QORPackageAction& action) {
    return action.action + " " + action.package + " " + action.architecture + " " + action.version + " " +
           action.oldVersion + " " + std::to_string(action.status) + " " + action.state;
}

std::vector<std::string> summaries(const QORPackageLog& log) {
    std::vector<std::string> texts;
    for (const auto& action : log.actions)
        texts.push_back(summary(action));
    return texts;
}

std::string log(const std::vector<const char*>& lines) {
    std::string text;
    for (const char* line : lines)
        text += std::string("2024-03-01 10:00:00 ") + line + "\n";
    return text;
}

struct OutcomeCase {
    const char* rule;
    std::vector<const char*> lines;
    std::vector<std::string> actions;
};

class Outcomes : public QORPackageLogTest, public ::testing::WithParamInterface<OutcomeCase> {};

TEST_P(Outcomes, ComeFromTheStatusLines) {
    write("dpkg.log", log(GetParam().lines));
    const QORPackageLog found = read();
    EXPECT_EQ(summaries(found), GetParam().actions);
    EXPECT_EQ(found.malformed, 0U);
}

INSTANTIATE_TEST_SUITE_P(
    All, Outcomes,
    ::testing::Values(
        OutcomeCase{
            "AnInstallation",
            {"startup archives unpack", "install curl:amd64 <none> 7.88", "status half-installed curl:amd64 7.88",
             "status unpacked curl:amd64 7.88", "startup packages configure", "configure curl:amd64 7.88 <none>",
             "status unpacked curl:amd64 7.88", "status half-configured curl:amd64 7.88",
             "status installed curl:amd64 7.88"},
            {"install curl amd64 7.88  0 ", "configure curl amd64 7.88  0 "}},
        OutcomeCase{"AnUpgrade",
                    {"upgrade curl:amd64 7.87 7.88", "status half-configured curl:amd64 7.87",
                     "status unpacked curl:amd64 7.87", "status half-installed curl:amd64 7.87",
                     "status unpacked curl:amd64 7.88"},
                    {"upgrade curl amd64 7.88 7.87 0 "}},
        OutcomeCase{"AnUpgradeThatWasUndone",
                    {"upgrade curl:amd64 7.87 7.88", "status half-installed curl:amd64 7.87",
                     "status installed curl:amd64 7.87"},
                    {"upgrade curl amd64 7.88 7.87 3 installed"}},
        OutcomeCase{"LeftHalfInstalled",
                    {"install curl:amd64 <none> 7.88", "status half-installed curl:amd64 7.88"},
                    {"install curl amd64 7.88  1 half-installed"}},
        OutcomeCase{"LeftHalfConfigured",
                    {"configure curl:amd64 7.88 <none>", "status unpacked curl:amd64 7.88",
                     "status half-configured curl:amd64 7.88"},
                    {"configure curl amd64 7.88  2 half-configured"}},
        OutcomeCase{"ARemovalAndPurge",
                    {"remove vim:all 9.0 <none>", "status installed vim:all 9.0", "status half-configured vim:all 9.0",
                     "status half-installed vim:all 9.0", "status config-files vim:all 9.0", "purge vim:all 9.0 <none>",
                     "status config-files vim:all 9.0", "status not-installed vim:all <none>"},
                    {"remove vim all 9.0  0 ", "purge vim all 9.0  0 "}},
        OutcomeCase{"ARemovalThatThePackageRefused",
                    {"remove vim:all 9.0 <none>", "status half-configured vim:all 9.0", "status installed vim:all 9.0"},
                    {"remove vim all 9.0  3 installed"}},
        OutcomeCase{"TriggersThatWait",
                    {"configure man:amd64 1 <none>", "status half-configured man:amd64 1",
                     "status triggers-awaited man:amd64 1", "trigproc libc-bin:amd64 2.36 <none>",
                     "status half-configured libc-bin:amd64 2.36", "status triggers-pending libc-bin:amd64 2.36"},
                    {"configure man amd64 1  0 ", "trigproc libc-bin amd64 2.36  0 "}},
        OutcomeCase{"PackagesBetweenEachOther",
                    {"install a:amd64 <none> 1", "status half-installed a:amd64 1", "install b:amd64 <none> 2",
                     "status half-installed b:amd64 2", "status unpacked a:amd64 1"},
                    {"install a amd64 1  0 ", "install b amd64 2  1 half-installed"}},
        OutcomeCase{"OfOtherPackagesAndFilesNothing",
                    {"status installed other:amd64 1", "conffile /etc/a file keep", "startup packages remove"},
                    {}},
        OutcomeCase{"WithoutArchitecture", {"remove old 1.0 <none>"}, {"remove old  1.0  0 "}},
        OutcomeCase{"AReinstallationOverItsOldFiles",
                    {"install vim:all 8.9 9.0", "status unpacked vim:all 9.0"},
                    {"install vim all 9.0 8.9 0 "}}),
    [](const auto& tested) { return tested.param.rule; });

TEST_F(QORPackageLogTest, LinesThatAreNoneOfTheLogsAreCounted) {
    write("dpkg.log",
          std::string("\nhello\n2024-03-01 10:00:00\n2024-03-01 10:00:00 \n2024-02-30 10:00:00 startup archives "
                      "unpack\n2024-03-01 10:00:00 explode a:amd64 1 2\n2024-03-01 10:00:00 install a:amd64 "
                      "<none>\n2024-03-01 10:00+01 install a:amd64 <none> 1\n2024-03-01 10:00:00 status "
                      "installed\n\xFF\n2024-03-01 10:00:00 install ok:amd64 <none> 1\n") +
              std::string("2024-03-01 10:00:00 install a\0:amd64 <none> 1\n", 46) + std::string(200000, 'x') +
              "\n2024-03-01 10:00:01 install last:amd64 <none> 1\n");
    const QORPackageLog found = read();
    EXPECT_EQ(summaries(found), (std::vector<std::string>{"install ok amd64 1  0 ", "install last amd64 1  0 "}));
    EXPECT_EQ(found.malformed, 11U);
    EXPECT_TRUE(found.unreadable.empty());
}

TEST_F(QORPackageLogTest, ALineThatIsStillBeingWrittenIsLeftOut) {
    write("dpkg.log", "2024-03-01 10:00:00 install a:amd64 <none> 1\n2024-03-01 10:00:01 install b:amd64 <none> 1");
    const QORPackageLog found = read();
    EXPECT_EQ(summaries(found), (std::vector<std::string>{"install a amd64 1  0 "}));
    EXPECT_EQ(found.malformed, 0U);
}

TEST_F(QORPackageLogTest, EqualLinesAreToldApartByTheirCount) {
    write("dpkg.log", log({"configure a:amd64 1 <none>", "configure b:amd64 1 <none>", "configure a:amd64 1 <none>"}));
    const QORPackageLog found = read();
    ASSERT_EQ(found.actions.size(), 3U);
    EXPECT_EQ(found.actions[0].repeated, 0U);
    EXPECT_EQ(found.actions[1].repeated, 0U);
    EXPECT_EQ(found.actions[2].repeated, 1U);
    EXPECT_EQ(found.actions[0].line, found.actions[2].line);
}

TEST_F(QORPackageLogTest, RotationsAreReadOldestFirst) {
    write("dpkg.log", log({"install e:all <none> 1"}));
    write("dpkg.log.1", log({"install d:all <none> 1"}));
    writeCompressed("dpkg.log.2.gz", log({"install c:all <none> 1"}));
    writeCompressed("dpkg.log.10.gz", log({"install b:all <none> 1"}));
    writeCompressed("dpkg.log.11.gz", log({"install a:all <none> 1"}));
    writeCompressed("dpkg.log.1.gz", log({"install twice:all <none> 1"}));
    write("dpkg.log.old", log({"install no:all <none> 1"}));
    write("dpkg.log.bak.1", log({"install no:all <none> 1"}));
    write("dpkg.log.+3", log({"install no:all <none> 1"}));
    write("dpkg.logs", log({"install no:all <none> 1"}));
    std::vector<std::string> packages;
    for (const auto& action : read().actions)
        packages.push_back(action.package);
    EXPECT_EQ(packages, (std::vector<std::string>{"a", "b", "c", "d", "e"}));
}

TEST_F(QORPackageLogTest, RotationsNamedByDateAreReadOldestFirst) {
    write("dpkg.log", log({"install c:all <none> 1"}));
    write("dpkg.log-20240301", log({"install b:all <none> 1"}));
    writeCompressed("dpkg.log-20240201.gz", log({"install a:all <none> 1"}));
    std::vector<std::string> packages;
    for (const auto& action : read().actions)
        packages.push_back(action.package);
    EXPECT_EQ(packages, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(QORPackageLogTest, AnActionMayEndInTheNextFile) {
    write("dpkg.log.1", log({"install a:all <none> 1", "status half-installed a:all 1"}));
    write("dpkg.log", log({"status unpacked a:all 1"}));
    EXPECT_EQ(summaries(read()), (std::vector<std::string>{"install a all 1  0 "}));
}

TEST_F(QORPackageLogTest, ACompressedFileThatIsCutShortIsReadAsFarAsItGoesAndNamed) {
    std::string text;
    for (int i = 0; i < 20000; ++i)
        text += "2024-03-01 10:00:00 install p" + std::to_string(i * 7919) + ":all <none> 1\n";
    writeCompressed("dpkg.log.2.gz", text);
    std::filesystem::resize_file(path("dpkg.log.2.gz"), std::filesystem::file_size(path("dpkg.log.2.gz")) / 2);
    write("dpkg.log", log({"install last:all <none> 1"}));
    const QORPackageLog found = read();
    EXPECT_GT(found.actions.size(), 100U);
    EXPECT_EQ(found.actions.back().package, "last");
    ASSERT_EQ(found.unreadable.size(), 1U);
    EXPECT_NE(found.unreadable[0].find("dpkg.log.2.gz: "), std::string::npos) << found.unreadable[0];
}

TEST_F(QORPackageLogTest, WithoutALogThereAreNoActions) {
    EXPECT_TRUE(read().actions.empty());
    EXPECT_TRUE(read().unreadable.empty());
    EXPECT_TRUE(readPackageLog("/nonexistent").actions.empty());
}

TEST_F(QORPackageLogTest, TimesAreLocal) {
    const TimeZone zone(middleEurope);
    write("dpkg.log", "2024-01-15 12:00:00 install a:all <none> 1\n2024-07-15 12:00:00 install b:all <none> 1\n");
    const QORPackageLog found = read();
    ASSERT_EQ(found.actions.size(), 2U);
    EXPECT_EQ(found.actions[0].time, 1705316400);  // 11:00 UTC
    EXPECT_EQ(found.actions[1].time, 1721037600);  // 10:00 UTC
}

TEST_F(QORPackageLogTest, AnHourThatComesTwiceGoesOnForward) {
    const TimeZone zone(middleEurope);
    write("dpkg.log",
          "2024-10-27 02:10:00 install a:all <none> 1\n2024-10-27 02:50:00 install b:all <none> 1\n"
          "2024-10-27 02:10:00 install c:all <none> 1\n2024-10-27 03:10:00 install d:all <none> 1\n");
    const QORPackageLog found = read();
    ASSERT_EQ(found.actions.size(), 4U);
    constexpr std::int64_t ten = 1729987800;  // 00:10 UTC, the first 02:10
    EXPECT_EQ(found.actions[2].time, ten + 3600);
    EXPECT_EQ(found.actions[3].time, ten + 7200);
    EXPECT_LE(found.actions[0].time, found.actions[1].time);
    EXPECT_LE(found.actions[1].time, found.actions[2].time);
}

TEST_F(QORPackageLogTest, ClocksThatWereSetBackAreBelieved) {
    write("dpkg.log", "2024-03-02 10:00:00 install a:all <none> 1\n2024-03-01 10:00:00 install b:all <none> 1\n");
    const QORPackageLog found = read();
    ASSERT_EQ(found.actions.size(), 2U);
    EXPECT_EQ(found.actions[0].time - found.actions[1].time, 86400);
}

}  // namespace
}  // namespace QOR
