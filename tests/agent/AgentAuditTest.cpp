// Lines of the audit, their losses, and numbers in Prometheus's form.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "QORCommon/QORException.h"
#include "agent/api/AgentAudit.h"
#include "agent/api/AgentMetrics.h"
#include "agent/api/AgentTrace.h"
#include "agent/api/PrometheusText.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

std::vector<std::string> linesOf(const std::filesystem::path& file) {
    std::ifstream input(file);
    std::vector<std::string> lines;
    for (std::string line; std::getline(input, line);)
        lines.push_back(line);
    return lines;
}

void awaitWritten(const AgentAudit& audit, std::uint64_t number) {
    while (audit.counts().written < number)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

class AuditFile : public testing::Test {
protected:
    std::string file() const { return (directory / "audit.log").string(); }
    test::TemporaryDirectory directory;
};

TEST_F(AuditFile, LinesAreAppendedInTheirOrderAndForItsUserAlone) {
    {
        AgentAudit audit({.target = file()});
        for (int number = 0; number < 1000; ++number)
            audit.add(std::to_string(number));
    }
    {
        AgentAudit audit({.target = file()});
        audit.add("more");
    }
    const auto lines = linesOf(file());
    ASSERT_EQ(lines.size(), 1001U);
    for (std::size_t number = 0; number < 1000; ++number)
        EXPECT_EQ(lines[number], std::to_string(number));
    EXPECT_EQ(lines.back(), "more");
    EXPECT_EQ(std::filesystem::status(file()).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(AuditFile, AFileThatWasMovedAwayIsFollowedByANewOne) {
    AgentAudit audit({.target = file()});
    audit.add("first");
    awaitWritten(audit, 1);
    std::filesystem::rename(file(), file() + ".1");
    audit.add("second");
    awaitWritten(audit, 2);
    audit.reopen();
    while (!std::filesystem::exists(file()))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    audit.add("third");
    awaitWritten(audit, 3);
    EXPECT_THAT(linesOf(file() + ".1"), ElementsAre("first", "second"));
    EXPECT_THAT(linesOf(file()), ElementsAre("third"));
}

TEST_F(AuditFile, WhereNoFileCanBeOpenedIsSaid) {
    EXPECT_THROW(AgentAudit({.target = (directory / "no" / "audit.log").string()}), QORException);
    EXPECT_THROW(AgentAudit({.target = "journal", .journal = (directory / "no.sock").string()}), QORException);
}

/// Nobody reads the other end at first.
TEST_F(AuditFile, WhoAddsLinesNeverWaitsAndLossesAreCountedAndTold) {
    ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
    const int reader = ::open(file().c_str(), O_RDONLY | O_NONBLOCK);
    ASSERT_GE(reader, 0);
    const std::string line(1000, 'x');
    std::thread reading;
    std::string all;
    std::uint64_t added = 0;
    std::uint64_t lost = 0;
    {
        AgentAudit audit({.target = file(), .mostLines = 100});
        for (; audit.counts().lost < 50; ++added)
            audit.add(line);
        lost = audit.counts().lost;
        ASSERT_EQ(::fcntl(reader, F_SETFL, 0), 0);
        reading = std::thread([&] {
            std::vector<char> bytes(1 << 20);
            for (ssize_t size = 0; (size = ::read(reader, bytes.data(), bytes.size())) > 0;)
                all.append(bytes.data(), static_cast<std::size_t>(size));
        });
        while (audit.counts().waiting > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        audit.add("after");
    }
    reading.join();
    ::close(reader);
    EXPECT_THAT(all, EndsWith("\nafter\n"));
    // Losses before and after its thread took the first lines are told of in two lines.
    std::uint64_t told = 0;
    std::uint64_t kept = 0;
    std::istringstream lines(all);
    for (std::string each; std::getline(lines, each);) {
        kept += each == line ? 1 : 0;
        if (const auto at = each.find("\"lost\":"); at != std::string::npos) told += std::stoull(each.substr(at + 7));
    }
    EXPECT_EQ(kept, added - lost);
    EXPECT_EQ(told, lost);
}

TEST_F(AuditFile, ADiskThatIsFullForAWhileLeavesWholeLinesAndTheNumberOfThoseMissing) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    {
        AgentAudit audit({.target = file()});
        audit.add("before");
        awaitWritten(audit, 1);
        const rlimit small{10, before.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
        audit.add("does not fit");
        while (audit.counts().lost < 1)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
        audit.add("after");
    }
    const auto lines = linesOf(file());
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "before");
    EXPECT_EQ(lines[1], "doe") << "what the disk took";
    EXPECT_THAT(lines[2], HasSubstr("\"lost\":1}"));
    EXPECT_EQ(lines[3], "after");
}

TEST_F(AuditFile, TheJournalGetsEntriesOfItsForm) {
    const std::string path = (directory / "journal.sock").string();
    const int journal = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(journal, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    AgentAudit audit({.target = "journal", .journal = path});
    audit.add("{}");
    char bytes[1000];
    const ssize_t size = ::recv(journal, bytes, sizeof bytes, 0);
    ASSERT_GT(size, 0);
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(size)),
              "SYSLOG_IDENTIFIER=qor-agent-audit\nPRIORITY=6\nMESSAGE={}\n");
    ::close(journal);
}

TEST(AuditLine, IsOneLineOfJsonWhateverClientsCallThings) {
    AgentTrace trace;
    trace.method = knownMethod("GET");
    trace.route = "/v1/views/{view}/rows";
    trace.who = "reader";
    trace.notes.view = "a\n\"b\\\xff" + std::string(1, '\0');
    trace.notes.condition = std::string(10'000, 'c');
    trace.notes.fields = {"one", "two"};
    trace.notes.rows = 20;
    HttpPeer peer;
    peer.overTcp = true;
    peer.address = "192.0.2.7";
    const std::string line =
        auditLine({HttpEnd::How::Answered, 200, 1234, std::chrono::microseconds(1500)}, peer, &trace, true);
    EXPECT_THAT(line, Not(HasSubstr("\n")));
    EXPECT_LT(line.size(), 6000U);
    EXPECT_THAT(line, HasSubstr(R"("view":"a\n\"b\\?\u0000")"));
    EXPECT_THAT(line, HasSubstr(R"("who":"reader","from":"192.0.2.7","method":"GET","route":"/v1/views/{view}/rows")"));
    EXPECT_THAT(line, HasSubstr(R"("rows":20,"status":200,"bytes":1234,"ms":1.5,"outcome":"answered"})"));
}

TEST(AuditLine, SaysHowItEnded) {
    const auto outcome = [](HttpEnd::How how, unsigned status, int error) {
        AgentTrace trace;
        trace.notes.error = error;
        const std::string line = auditLine({how, status, 0, {}}, {}, &trace, true);
        const std::size_t at = line.find(R"("outcome":")") + 11;
        return line.substr(at, line.size() - at - 2);
    };
    EXPECT_EQ(outcome(HttpEnd::How::Answered, 200, 0), "answered");
    EXPECT_EQ(outcome(HttpEnd::How::Answered, 200, 400), "error");
    EXPECT_EQ(outcome(HttpEnd::How::Answered, 404, 0), "refused");
    EXPECT_EQ(outcome(HttpEnd::How::Answered, 503, 0), "failed");
    EXPECT_EQ(outcome(HttpEnd::How::BrokenOff, 200, 0), "broken off");
    EXPECT_EQ(outcome(HttpEnd::How::Gone, 0, 0), "client gone");
    EXPECT_THAT(auditLine({HttpEnd::How::Answered, 400, 0, {}}, {}, nullptr, true), HasSubstr(R"("status":400)"));
}

TEST(AuditLine, WhatWasNotedForAnAuditWithLiteralsIsNotShownByOneWithout) {
    AgentTrace trace;
    trace.notes.condition = "title = 'secret'";
    trace.notes.conditions = QORRequestNotes::Conditions::Whole;
    EXPECT_THAT(auditLine({HttpEnd::How::Answered, 200, 0, {}}, {}, &trace, true), HasSubstr("secret"));
    EXPECT_THAT(auditLine({HttpEnd::How::Answered, 200, 0, {}}, {}, &trace, false), Not(HasSubstr("condition")));
    trace.notes.condition = "title = ?";
    trace.notes.conditions = QORRequestNotes::Conditions::Masked;
    EXPECT_THAT(auditLine({HttpEnd::How::Answered, 200, 0, {}}, {}, &trace, false), HasSubstr("title = ?"));
}

TEST(PrometheusForm, LabelsAreEscapedAndNumbersSpelledShort) {
    PrometheusText text;
    text.family("a_total", PrometheusText::Type::Counter, "what \"it\\ is\nabout");
    text.sample(std::uint64_t{18446744073709551615U}, {{"x", "a\"b\\c\nd"}, {"y", ""}});
    text.sample(0.1);
    text.sample("_sum", 1e300, {});
    EXPECT_EQ(text.text(),
              "# HELP a_total what \"it\\\\ is\\nabout\n# TYPE a_total counter\n"
              "a_total{x=\"a\\\"b\\\\c\\nd\",y=\"\"} 18446744073709551615\na_total 0.1\na_total_sum 1e+300\n");
}

TEST(Numbers, OfWhateverClientsAskThereAreNoFurtherSeries) {
    AgentMetrics metrics;
    AgentTrace trace;
    trace.route = "/v1/views";
    trace.notes.rows = 3;
    for (int request = 0; request < 5; ++request)
        metrics.count({HttpEnd::How::Answered, 200, 10, std::chrono::milliseconds(2)}, &trace);
    metrics.count({HttpEnd::How::Answered, 400, 7, {}}, nullptr);
    PrometheusText text;
    metrics.write(text);
    EXPECT_THAT(text.text(), HasSubstr("qor_http_requests_total{route=\"/v1/views\",status=\"200\"} 5\n"));
    EXPECT_THAT(text.text(), HasSubstr("qor_http_requests_total{route=\"none\",status=\"400\"} 1\n"));
    EXPECT_THAT(text.text(), HasSubstr("qor_http_request_seconds_bucket{route=\"/v1/views\",le=\"0.001\"} 0\n"));
    EXPECT_THAT(text.text(), HasSubstr("qor_http_request_seconds_bucket{route=\"/v1/views\",le=\"0.0025\"} 5\n"));
    EXPECT_THAT(text.text(), HasSubstr("qor_http_request_seconds_bucket{route=\"/v1/views\",le=\"+Inf\"} 5\n"));
    EXPECT_THAT(text.text(), HasSubstr("qor_http_request_seconds_count{route=\"/v1/views\"} 5\n"));
    EXPECT_THAT(text.text(), HasSubstr("qor_rows_total{route=\"/v1/views\"} 15\n"));
    EXPECT_THAT(text.text(), HasSubstr("qor_http_response_bytes_total{route=\"/v1/views\"} 50\n"));
}

TEST(FiltersWithoutLiterals, KeepNamesAndSigns) {
    EXPECT_EQ(withoutLiterals("pager.op_log.status != 0 and pager.env.config.hostname like 'web''s%'"),
              "pager.op_log.status != ? and pager.env.config.hostname like ?");
    EXPECT_EQ(withoutLiterals("a1 in (unit \"x\", recursive) or b=12ab"), "a1 in (unit ?, recursive) or b=?ab");
    EXPECT_EQ(withoutLiterals("a = 'secret"), "a = ?");
    EXPECT_EQ(withoutLiterals("a = \"it''s\" 's'"), "a = ? ?");
    EXPECT_EQ(withoutLiterals("\xc3\xa4 # 5"), "? ? ?");
    EXPECT_EQ(withoutLiterals(""), "");
}

}  // namespace
}  // namespace QOR
