#include "agent/http/LocalListener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "QORCommon/QORException.h"
#include "support/ChildProcess.h"
#include "support/HttpClient.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

using testing::AllOf;
using testing::HasSubstr;

mode_t modeOf(const std::filesystem::path& path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 ? found.st_mode & 07777 : 0;
}

std::string refusal(const std::filesystem::path& path) {
    try {
        const LocalListener listener(path);
    } catch (const QORException& exception) {
        return exception.message();
    }
    return "listens";
}

bool accepts(const std::filesystem::path& path) {
    try {
        const test::HttpClient client(path.string());
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Leaves a socket as a process does that was killed.
void leaveStaleSocket(const std::filesystem::path& path) {
    LocalListener listener(path);
    std::filesystem::create_hard_link(path, path.string() + ".kept");
    listener.removeNames();
    std::filesystem::rename(path.string() + ".kept", path);
}

class LocalListenerTest : public testing::Test {
protected:
    test::TemporaryDirectory directory;
    std::filesystem::path path = directory / "agent.sock";
};

TEST_F(LocalListenerTest, ListensWithMode0660WhateverTheUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U, 0777U}) {
        const mode_t before = ::umask(mask);
        const LocalListener listener(path);
        ::umask(before);
        EXPECT_EQ(modeOf(path), 0660U) << mask;
        EXPECT_TRUE(accepts(path));
    }
}

TEST_F(LocalListenerTest, NamesGoWithTheObject) {
    { const LocalListener listener(path); }
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(LocalListenerTest, ALiveSocketIsNotReplaced) {
    const LocalListener listener(path);
    EXPECT_THAT(refusal(path), AllOf(HasSubstr(path.string()), HasSubstr("another agent is using it")));
    EXPECT_TRUE(accepts(path));
}

TEST_F(LocalListenerTest, ALiveSocketWithoutLockIsNotReplaced) {
    const LocalListener listener(path);
    std::filesystem::remove(path.string() + ".lock");
    EXPECT_THAT(refusal(path), HasSubstr("another program is using it"));
    EXPECT_TRUE(accepts(path));
}

TEST_F(LocalListenerTest, AStaleSocketIsReplaced) {
    leaveStaleSocket(path);
    ASSERT_TRUE(std::filesystem::is_socket(path));
    ASSERT_FALSE(accepts(path));
    const LocalListener listener(path);
    EXPECT_TRUE(accepts(path));
}

TEST_F(LocalListenerTest, ALockFileLeftBehindIsNoObstacle) {
    std::ofstream(path.string() + ".lock") << "";
    const LocalListener listener(path);
    EXPECT_TRUE(accepts(path));
}

TEST_F(LocalListenerTest, WhatIsNoSocketIsLeftAlone) {
    std::ofstream(path) << "precious";
    EXPECT_THAT(refusal(path), HasSubstr("it exists and is no socket"));
    EXPECT_EQ(std::filesystem::file_size(path), 8U);
}

TEST_F(LocalListenerTest, ASymbolicLinkIsNotFollowed) {
    std::filesystem::create_symlink(directory / "elsewhere", path);
    EXPECT_THAT(refusal(path), HasSubstr("it exists and is no socket"));
}

TEST_F(LocalListenerTest, MissingFoldersAreMade) {
    const auto deep = directory / "run" / "qor" / "agent.sock";
    const LocalListener listener(deep);
    EXPECT_TRUE(accepts(deep));
}

TEST_F(LocalListenerTest, MissingFoldersCanBePassedWhateverTheUmask) {
    const mode_t before = ::umask(0077);
    const LocalListener listener(directory / "run" / "qor" / "agent.sock");
    ::umask(before);
    EXPECT_EQ(modeOf(directory / "run"), 0755U);
    EXPECT_EQ(modeOf(directory / "run" / "qor"), 0755U);
}

TEST_F(LocalListenerTest, AGroupThatThereIsNotIsAnError) {
    for (const char* group : {"no-such-group", "-1", "4294967295", "12x"}) {
        try {
            const LocalListener listener(path, group);
            ADD_FAILURE() << group;
        } catch (const QORException& exception) {
            EXPECT_THAT(exception.message(), HasSubstr("there is no group \"" + std::string(group) + "\""));
        }
        EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
    }
}

TEST_F(LocalListenerTest, TheSocketBelongsToTheGroupThatWasNamed) {
    const std::string group = std::to_string(::geteuid() == 0 ? 65534 : ::getegid());
    const LocalListener listener(path, group);
    struct stat found {};
    ASSERT_EQ(::lstat(path.c_str(), &found), 0);
    EXPECT_EQ(std::to_string(found.st_gid), group);
    EXPECT_EQ(modeOf(path), 0660U);
    EXPECT_TRUE(accepts(path));
}

TEST_F(LocalListenerTest, AnothersLinksAndLockFilesAreNotTaken) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    constexpr uid_t stranger = 65534;
    std::filesystem::permissions(directory.path(), std::filesystem::perms(01777));
    const std::string lock = path.string() + ".lock";
    std::filesystem::create_symlink(directory / "elsewhere", lock);
    ASSERT_EQ(::lchown(lock.c_str(), stranger, stranger), 0);
    EXPECT_THAT(refusal(path), AllOf(HasSubstr("cannot listen at"), HasSubstr("belongs to another user")));
    std::filesystem::remove(lock);
    std::ofstream(lock) << "";
    ASSERT_EQ(::lchown(lock.c_str(), stranger, stranger), 0);
    EXPECT_THAT(refusal(path), HasSubstr("belongs to another user"));
    std::filesystem::remove(lock);
    std::filesystem::create_directory(directory / "real");
    std::filesystem::create_directory_symlink("real", directory / "folder");
    ASSERT_EQ(::lchown((directory / "folder").c_str(), stranger, stranger), 0);
    EXPECT_THAT(refusal(directory / "folder" / "agent.sock"), HasSubstr("belongs to another user"));
    EXPECT_TRUE(std::filesystem::is_empty(directory / "real"));
}

TEST_F(LocalListenerTest, AFolderThatCannotBeMadeIsAnError) {
    std::ofstream(directory / "file") << "";
    EXPECT_THAT(refusal(directory / "file" / "agent.sock"), HasSubstr("cannot make the folder"));
}

TEST_F(LocalListenerTest, APathTooLongForASocketIsAnError) {
    EXPECT_THAT(refusal(directory / std::string(120, 'x')), HasSubstr("longer than 107 characters"));
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(LocalListenerTest, AnothersSocketIsNotRemovedAtTheEnd) {
    {
        LocalListener listener(path);
        std::filesystem::remove(path);
        std::ofstream(path) << "somebody else's";
    }
    EXPECT_TRUE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace QOR
