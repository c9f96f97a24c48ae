#include "QORCommon/QORLogger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "QORCommon/QORException.h"
#include "support/TemporaryDirectory.h"

namespace {

using QOR::logMessage;
using QOR::QORLogRecord;

/// Collects what is logged and puts the default back at the end.
class Logger : public testing::Test {
protected:
    struct Line {
        int level;
        std::string module;
        std::string path;
        std::string function;
        std::string text;
    };

    void SetUp() override {
        QOR::setLogSink([this](const QORLogRecord& record) {
            lines.push_back({record.level, std::string(record.module), std::string(record.sourcePath),
                             std::string(record.function), std::string(record.text)});
        });
    }
    void TearDown() override {
        QOR::setLogSink({});
        QOR::setLogLevel(1);
    }

    std::vector<Line> lines;
};

TEST_F(Logger, FormatsLikePrintf) {
    logMessage(1, "QORPager", "qor/some/Unit", "doIt", "view '%s' has %d columns, %5.2f%%", "v", 3, 1.5);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_EQ(lines[0].module, "QORPager");
    EXPECT_EQ(lines[0].path, "qor/some/Unit");
    EXPECT_EQ(lines[0].function, "doIt");
    EXPECT_EQ(lines[0].text, "view 'v' has 3 columns,  1.50%");
}

TEST_F(Logger, DropsLinesAboveTheLevel) {
    EXPECT_EQ(QOR::logLevel(), 1);
    logMessage(2, "m", "p", "f", "dropped");
    EXPECT_TRUE(lines.empty());
    QOR::setLogLevel(4);
    logMessage(4, "m", "p", "f", "kept");
    logMessage(5, "m", "p", "f", "dropped");
    QOR::setLogLevel(0);
    logMessage(1, "m", "p", "f", "dropped");
    logMessage(0, "m", "p", "f", "kept too");
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "kept");
    EXPECT_EQ(lines[1].text, "kept too");
}

TEST_F(Logger, AMessageIsOneLine) {
    logMessage(1, "m", "p", "f", "%s", "a\nb\x1B[31m\x01");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].text, "a\\nb\\x1b[31m\\x01");
}

TEST_F(Logger, LongTextsAreWhole) {
    for (const std::size_t size : {1022U, 1023U, 1024U, 1025U, 100000U}) {
        lines.clear();
        const std::string text(size, 'x');
        logMessage(1, "m", "p", "f", "%s", text.c_str());
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].text, text);
    }
}

TEST_F(Logger, NullTextsAreEmpty) {
    logMessage(1, nullptr, nullptr, nullptr, "x");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].module + lines[0].path + lines[0].function, "");
}

TEST_F(Logger, ThreadsDoNotMixLines) {
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 500; ++n)
                logMessage(1, "m", "p", "f", "%d", i);
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(lines.size(), 2000U);
}

TEST_F(Logger, ASinkThatLogsDoesNotWaitForItself) {
    int calls = 0;
    QOR::setLogSink([&calls](const QORLogRecord&) {
        ++calls;
        logMessage(1, "m", "p", "f", "from within");
    });
    logMessage(1, "m", "p", "f", "outer");
    EXPECT_EQ(calls, 1);
}

TEST_F(Logger, ASinkThatThrowsFailsNobody) {
    QOR::setLogSink([](const QORLogRecord&) { throw std::runtime_error("full"); });
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(logMessage(1, "m", "p", "f", "x"));
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Logger, TheDefaultIsStandardError) {
    QOR::setLogSink({});
    testing::internal::CaptureStderr();
    logMessage(1, "QORPager", "qor/some/Unit", "doIt", "hello %s", "there");
    const std::string line = testing::internal::GetCapturedStderr();
    EXPECT_NE(line.find(" 1 QORPager qor/some/Unit doIt: hello there\n"), std::string::npos) << line;
}

TEST_F(Logger, AFileIsAppendedTo) {
    const auto path = std::filesystem::path(testing::TempDir()) / ("qor-logger-" + std::to_string(getpid()) + ".log");
    std::ofstream(path) << "before\n";
    QOR::setLogSink({});
    QOR::setLogFile(path.string());
    logMessage(1, "m", "p", "f", "behind");
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text.rfind("before\n", 0), 0U);
    EXPECT_NE(text.find(" 1 m p f: behind\n"), std::string::npos);
    std::filesystem::remove(path);
    QOR::setLogFile("");
    testing::internal::CaptureStderr();
    logMessage(1, "m", "p", "f", "to standard error");
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST_F(Logger, ANewFileIsForItsUserAloneAndCanBeOpenedAnew) {
    const QOR::test::TemporaryDirectory directory;
    const auto path = directory / "log";
    const auto textOf = [](const std::filesystem::path& file) {
        std::ifstream stream(file);
        return std::string((std::istreambuf_iterator<char>(stream)), std::istreambuf_iterator<char>());
    };
    const mode_t before = ::umask(0);
    QOR::setLogSink({});
    QOR::setLogFile(path.string());
    ::umask(before);
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(path).permissions()), 0600U);
    logMessage(1, "m", "p", "f", "first");
    std::filesystem::rename(path, directory / "log.1");
    logMessage(1, "m", "p", "f", "second");
    QOR::setLogFile(path.string());
    logMessage(1, "m", "p", "f", "third");
    QOR::setLogFile("");
    EXPECT_NE(textOf(directory / "log.1").find("first"), std::string::npos);
    EXPECT_NE(textOf(directory / "log.1").find("second"), std::string::npos);
    EXPECT_EQ(textOf(path).find("second"), std::string::npos);
    EXPECT_NE(textOf(path).find("third"), std::string::npos);
}

TEST_F(Logger, AFileThatCannotBeOpenedIsAnError) {
    EXPECT_THROW(QOR::setLogFile("/proc/no/such/place.log"), QOR::QORException);
}

}  // namespace
