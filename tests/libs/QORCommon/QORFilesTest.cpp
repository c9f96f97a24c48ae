#include "QORCommon/QORFiles.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "QORCommon/QORException.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

constexpr uid_t stranger = 65534;
constexpr int appending = O_WRONLY | O_CREAT | O_APPEND;

/// Opens for writing, and writes "new". \returns why not, else nothing
std::string refusal(const fs::path& path, int flags = appending) {
    try {
        const QORFileDescriptor file = openOwnFile(path.string(), flags);
        EXPECT_EQ(::write(file.get(), "new", 3), 3);
        return {};
    } catch (const QORException& exception) {
        return exception.message();
    }
}

std::string contentsOf(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

class OwnFiles : public testing::Test {
protected:
    test::TemporaryDirectory directory;
};

TEST_F(OwnFiles, AFileIsMadeForItsUserAlone) {
    const mode_t before = ::umask(0);
    EXPECT_EQ(refusal(directory / "file"), "");
    ::umask(before);
    struct stat made {};
    ASSERT_EQ(::stat((directory / "file").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0600U);
    EXPECT_EQ(refusal(directory / "file"), "");
    EXPECT_EQ(contentsOf(directory / "file"), "newnew");
    EXPECT_EQ(refusal(directory / "file", O_WRONLY | O_TRUNC), "");
    EXPECT_EQ(contentsOf(directory / "file"), "new");
}

TEST_F(OwnFiles, OnesOwnLinksAreFollowedWhereverTheyLead) {
    fs::create_directories(directory / "real" / "inner");
    fs::create_directory_symlink("real", directory / "relative");
    fs::create_directory_symlink(directory / "relative" / "inner", directory / "absolute");
    fs::create_symlink("../../target", directory / "real" / "inner" / "link");
    EXPECT_EQ(refusal(directory / "absolute" / "link"), "");
    EXPECT_EQ(contentsOf(directory / "target"), "new");
    EXPECT_EQ(refusal(directory / "absolute" / "." / ".." / "up"), "");
    EXPECT_EQ(contentsOf(directory / "real" / "up"), "new");
}

TEST_F(OwnFiles, RelativePathsAreRelativeToTheWorkingFolder) {
    const fs::path before = fs::current_path();
    fs::current_path(directory.path());
    EXPECT_EQ(refusal("here"), "");
    EXPECT_TRUE(checkOwnFile("./here"));
    EXPECT_FALSE(checkOwnFile("there"));
    fs::current_path(before);
    EXPECT_EQ(contentsOf(directory / "here"), "new");
}

TEST_F(OwnFiles, WhatCannotBeOpenedSaysSo) {
    EXPECT_THAT(refusal(directory / "none" / "file"), AllOf(HasSubstr("none/file"), HasSubstr("No such file")));
    fs::create_symlink("loop", directory / "loop");
    EXPECT_THAT(refusal(directory / "loop"), HasSubstr("Too many levels of symbolic links"));
    EXPECT_THAT(refusal(directory.path()), HasSubstr("Is a directory"));
    std::ofstream(directory / "file") << "x";
    EXPECT_THAT(refusal(directory / "file" / "below"), HasSubstr("Not a directory"));
}

TEST_F(OwnFiles, DevicesAndOpenDescriptorsAreTaken) {
    EXPECT_EQ(refusal("/dev/null", O_WRONLY | O_APPEND), "");
    const QORFileDescriptor file = openOwnFile((directory / "file").string(), appending);
    EXPECT_EQ(refusal("/proc/self/fd/" + std::to_string(file.get())), "");
    EXPECT_EQ(contentsOf(directory / "file"), "new");
}

/// A folder like /tmp, in which another user has been first. Only root can play that other user.
class FilesAmongStrangers : public OwnFiles {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
        fs::permissions(directory.path(), fs::perms(01777));
        std::ofstream(directory / "secret") << "secret";
        fs::create_directory(directory / "private");
    }
    void giveAway(const fs::path& path) { ASSERT_EQ(::lchown(path.c_str(), stranger, stranger), 0); }
};

TEST_F(FilesAmongStrangers, AnothersLinkIsNotFollowed) {
    fs::create_symlink(directory / "secret", directory / "log");
    giveAway(directory / "log");
    EXPECT_THAT(refusal(directory / "log"), AllOf(HasSubstr("symbolic link \"log\""), HasSubstr("another user")));
    EXPECT_THROW(checkOwnFile((directory / "log").string()), QORException);
    EXPECT_EQ(contentsOf(directory / "secret"), "secret");
}

TEST_F(FilesAmongStrangers, AnothersLinkToAMissingFileMakesNone) {
    fs::create_symlink(directory / "private" / "made", directory / "log");
    giveAway(directory / "log");
    EXPECT_NE(refusal(directory / "log"), "");
    EXPECT_FALSE(fs::exists(directory / "private" / "made"));
}

TEST_F(FilesAmongStrangers, AnothersLinkAmongTheFoldersIsNotFollowed) {
    fs::create_directory_symlink(directory / "private", directory / "folder");
    giveAway(directory / "folder");
    EXPECT_THAT(refusal(directory / "folder" / "log"), HasSubstr("symbolic link \"folder\""));
    EXPECT_FALSE(fs::exists(directory / "private" / "log"));
}

TEST_F(FilesAmongStrangers, AnothersLinkBehindOnesOwnIsNotFollowed) {
    fs::create_symlink("second", directory / "first");
    fs::create_symlink("secret", directory / "second");
    giveAway(directory / "second");
    EXPECT_THAT(refusal(directory / "first"), HasSubstr("symbolic link \"second\""));
}

TEST_F(FilesAmongStrangers, AnothersFileIsNotWrittenTo) {
    std::ofstream(directory / "log") << "";
    fs::permissions(directory / "log", fs::perms(0666));
    giveAway(directory / "log");
    EXPECT_THAT(refusal(directory / "log", O_WRONLY | O_CREAT | O_TRUNC), HasSubstr("belongs to another user"));
    EXPECT_EQ(contentsOf(directory / "log"), "");
}

TEST_F(FilesAmongStrangers, AnothersPipeIsNotWaitedFor) {
    ASSERT_EQ(::mkfifo((directory / "log").c_str(), 0666), 0);
    giveAway(directory / "log");
    EXPECT_THAT(refusal(directory / "log"), HasSubstr("belongs to another user"));
}

TEST_F(FilesAmongStrangers, AFileWithASecondNameIsNotWrittenTo) {
    fs::create_hard_link(directory / "secret", directory / "log");
    EXPECT_THAT(refusal(directory / "log", O_WRONLY | O_TRUNC), HasSubstr("other names"));
    EXPECT_EQ(contentsOf(directory / "secret"), "secret");
}

TEST_F(FilesAmongStrangers, AFolderOfAnotherCountsAsOneThatOthersWriteTo) {
    fs::create_directory(directory / "home");
    std::ofstream(directory / "home" / "log") << "";
    giveAway(directory / "home" / "log");
    giveAway(directory / "home");
    EXPECT_THAT(refusal(directory / "home" / "log"), HasSubstr("belongs to another user"));
    EXPECT_EQ(refusal(directory / "home" / "new"), "");
}

TEST_F(FilesAmongStrangers, InAFolderOfOnesOwnAnothersFileIsOnesOwnBusiness) {
    std::ofstream(directory / "private" / "log") << "";
    giveAway(directory / "private" / "log");
    EXPECT_EQ(refusal(directory / "private" / "log"), "");
}

}  // namespace
}  // namespace QOR
