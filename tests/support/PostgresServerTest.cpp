// The server that tests of PostgreSQL run on is a private one, and nothing of it outlives them.
#include "support/PostgresServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace QOR::test {
namespace {

using ::testing::HasSubstr;

template <class Condition>
bool becomesTrue(Condition condition) {
    const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > patience) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

TEST(PostgresServer, EachTestHasAnEmptyDatabaseOfItsOwn) {
    const PostgresDatabase first;
    const PostgresDatabase second;
    first.connect().run("CREATE TABLE t (i int)");
    EXPECT_EQ(second.connect().cell("SELECT count(*) FROM pg_class WHERE relname = 't'"), "0");
}

TEST(PostgresServer, ListensOnASocketInItsFolderAndNowhereElse) {
    PostgresConnection connection(PostgresServer::shared().conninfo("postgres"));
    EXPECT_EQ(connection.cell("SHOW listen_addresses"), "");
    EXPECT_EQ(connection.cell("SHOW unix_socket_directories"), PostgresServer::shared().folder());
}

TEST(PostgresServer, OrdersAndFoldsByALanguageUnlessToldOtherwise) {
    PostgresConnection connection(PostgresServer::shared().conninfo("postgres"));
    EXPECT_EQ(connection.cell("SELECT 'a' < 'B'"), "t");
    EXPECT_EQ(connection.cell("SELECT 'a' < 'B' COLLATE \"C\""), "f");
    EXPECT_EQ(connection.cell("SELECT lower('\u00C4A')"), "\u00E4a");
}

TEST(PostgresServer, ComesBackAfterACrash) {
    const PostgresDatabase database;
    PostgresConnection before = database.connect();
    before.run("CREATE TABLE t (i int)");
    PostgresServer::shared().crash();
    EXPECT_THROW(before.run("SELECT 1"), std::runtime_error);
    EXPECT_THROW(database.connect(), std::runtime_error);
    PostgresServer::shared().start();
    EXPECT_EQ(database.connect().cell("SELECT 1"), "1");
}

TEST(PostgresServer, EndsWithATestThatIsKilled) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t test = ::fork();
    ASSERT_GE(test, 0);
    if (test == 0) {
        try {
            const PostgresServer server;
            const std::string& folder = server.folder();
            if (::write(ends[1], folder.data(), folder.size()) > 0) ::pause();
        } catch (const std::exception&) {
        }
        ::_exit(1);
    }
    ::close(ends[1]);
    char text[256];
    const ssize_t size = ::read(ends[0], text, sizeof text);
    ::close(ends[0]);
    ASSERT_GT(size, 0) << "no server was started";
    const std::string folder(text, static_cast<std::size_t>(size));
    pid_t server = 0;
    std::ifstream(folder + "/data/postmaster.pid") >> server;
    ASSERT_GT(server, 0);
    ::kill(test, SIGKILL);
    ::waitpid(test, nullptr, 0);
    EXPECT_TRUE(becomesTrue([&] { return ::kill(server, 0) != 0; }));
    EXPECT_TRUE(becomesTrue([&] { return !std::filesystem::exists(folder); }));
}

}  // namespace
}  // namespace QOR::test
