// Who may read what the agent keeps, and who may use its socket.
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/AgentProcess.h"
#include "support/ChildProcess.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;
using test::AgentProcess;
using test::HttpClient;
using testing::HasSubstr;

constexpr uid_t stranger = 65534;

unsigned modeOf(const fs::path& path) {
    return static_cast<unsigned>(fs::status(path).permissions());
}

/// Stands in for a shell with a wide umask, under which children are started.
class WideUmask {
public:
    WideUmask() : m_before(::umask(0)) {}
    ~WideUmask() { ::umask(m_before); }

private:
    mode_t m_before;
};

TEST(AgentFiles, WhatItMakesIsForItsUserAlone) {
    const WideUmask wide;
    AgentProcess agent;
    HttpClient(agent.socketPath()).post("/v1/records", R"({"kind":"event","time":1,"source":"s","category":"c"})");
    for (const char* name : {"agent.db", "agent.db-wal", "agent.db-shm", "agent.log", "agent.sock.lock"})
        EXPECT_EQ(modeOf(agent.directory() / name), 0600U) << name;
    EXPECT_EQ(modeOf(agent.directory() / "agent.sock"), 0660U);
}

TEST(AgentFiles, WiderFilesAreNarrowedAtTheStartWithALine) {
    AgentProcess agent;
    agent.stop();
    fs::permissions(agent.databasePath(), fs::perms(0644));
    fs::permissions(agent.directory() / "agent.log", fs::perms(0640));
    agent.start();
    EXPECT_EQ(modeOf(agent.databasePath()), 0600U);
    EXPECT_EQ(modeOf(agent.directory() / "agent.log"), 0600U);
    EXPECT_THAT(agent.log(), HasSubstr("agent.db had mode 0644, so that others could read it; it is 0600 now"));
    EXPECT_THAT(agent.log(), HasSubstr("agent.log had mode 0640, so that others could read it; it is 0600 now"));
}

TEST(AgentFiles, AFolderThatWasNamedStaysAsItIs) {
    AgentProcess agent;
    agent.stop();
    fs::permissions(agent.directory(), fs::perms(0755));
    agent.start();
    EXPECT_EQ(modeOf(agent.directory()), 0755U);
}

/// The folder that the agent makes by itself is the one that another user has in his home.
TEST(AgentFiles, ItsOwnStateFolderIsForItsUserAloneAndIsNarrowed) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can start it as another user";
    for (fs::path folder = test::programDirectory(); folder != folder.root_path(); folder = folder.parent_path())
        if ((modeOf(folder) & 0001U) == 0) GTEST_SKIP() << "another user cannot reach the agent in " << folder;
    const test::TemporaryDirectory home;
    fs::permissions(home.path(), fs::perms(0777));
    const auto runAgent = [&] {
        test::ChildProcess agent({"/usr/bin/setpriv", "--reuid", std::to_string(stranger), "--regid",
                                  std::to_string(stranger), "--clear-groups", "/usr/bin/env",
                                  "HOME=" + home.path().string(), "XDG_STATE_HOME=" + (home / "state").string(),
                                  "XDG_RUNTIME_DIR=", (test::programDirectory() / "qor-agent").string()});
        EXPECT_TRUE(agent.waitForLine("qor-agent listening on")) << agent.output();
        agent.signal(SIGTERM);
        EXPECT_EQ(agent.wait(), 0) << agent.output();
        return agent.output();
    };
    const WideUmask wide;
    runAgent();
    const fs::path state = home / "state/qor";
    EXPECT_EQ(modeOf(state), 0700U);
    EXPECT_EQ(modeOf(state / "agent.db"), 0600U);
    fs::permissions(state, fs::perms(0755));
    EXPECT_THAT(runAgent(), HasSubstr("state/qor had mode 0755, so that others could enter it; it is 0700 now"));
    EXPECT_EQ(modeOf(state), 0700U);
}

TEST(AgentFiles, ALogIsNotWrittenThroughAnothersLink) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    const test::TemporaryDirectory shared;
    fs::permissions(shared.path(), fs::perms(01777));
    std::ofstream(shared / "precious") << "precious";
    fs::create_symlink(shared / "precious", shared / "log");
    ASSERT_EQ(::lchown((shared / "log").c_str(), stranger, stranger), 0);
    const auto [status, output] = test::runProgram(
        {(test::programDirectory() / "qor-agent").string(), "--socket", (shared / "s").string(), "--database",
         "Driver=SQLite3;Database=" + (shared / "db").string(), "--log-file", (shared / "log").string()});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(output, HasSubstr("belongs to another user"));
    EXPECT_EQ(fs::file_size(shared / "precious"), 8U);
    EXPECT_FALSE(fs::exists(shared / "db"));
}

/// What the health says to a process of another user with this group, or why it cannot ask.
std::string asStranger(const AgentProcess& agent, gid_t group) {
    int ends[2];
    if (::pipe(ends) != 0) throw std::runtime_error("cannot make a pipe");
    const pid_t child = ::fork();
    if (child == 0) {
        std::string answer;
        try {
            if (::setgroups(1, &group) != 0 || ::setresgid(stranger, stranger, stranger) != 0 ||
                ::setresuid(stranger, stranger, stranger) != 0) {
                throw std::runtime_error("cannot change the user");
            }
            answer = std::to_string(HttpClient(agent.socketPath()).get("/v1/health").status);
        } catch (const std::exception& exception) {
            answer = exception.what();
        }
        ::_exit(::write(ends[1], answer.data(), answer.size()) < 0 ? 1 : 0);
    }
    ::close(ends[1]);
    char bytes[1024];
    const ssize_t size = ::read(ends[0], bytes, sizeof bytes);
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return {bytes, size > 0 ? static_cast<std::size_t>(size) : 0};
}

TEST(AgentFiles, MembersOfTheSocketsGroupConnectAndOthersDoNot) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    const gid_t members = 54321;
    AgentProcess agent({.more = {"--socket-group", std::to_string(members)}});
    fs::permissions(agent.directory(), fs::perms(0755));
    EXPECT_EQ(asStranger(agent, members), "200");
    EXPECT_THAT(asStranger(agent, members + 1), HasSubstr("Permission denied"));
}

TEST(AgentFiles, AGroupThatThereIsNotEndsTheStart) {
    const test::TemporaryDirectory folder;
    const auto [status, output] = test::runProgram(
        {(test::programDirectory() / "qor-agent").string(), "--socket", (folder / "s").string(), "--socket-group",
         "no-such-group", "--database", "Driver=SQLite3;Database=" + (folder / "db").string()});
    EXPECT_EQ(status, 1);
    EXPECT_THAT(output, HasSubstr("there is no group \"no-such-group\""));
}

}  // namespace
}  // namespace QOR
