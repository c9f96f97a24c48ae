#include "host/QORPlugInLoader.h"

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "QORFunctionality/QORCollector.h"
#include "QORFunctionality/QOROpFactory.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

using testing::AllOf;
using testing::HasSubstr;

const std::filesystem::path plugIns = QOR_TEST_PLUGIN_DIR;

std::string reasonOf(const std::filesystem::path& file) {
    QORPlugInLoader loader;
    try {
        loader.load(file);
    } catch (const QORException& exception) {
        EXPECT_EQ(exception.code(), errFailure);
        EXPECT_TRUE(loader.plugIns().empty());
        return exception.message();
    }
    return "loaded";
}

bool hasOperator(const std::string& name) {
    return QOROpFactoryRegistry::instance().find(name) != nullptr;
}

bool isMapped(const std::filesystem::path& file) {
    void* const handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) ::dlclose(handle);
    return handle != nullptr;
}

TEST(PlugInLoader, OperatorsAreKnownWhileTheirPlugInIsLoaded) {
    const auto file = plugIns / "probe" / "libQORProbe.so";
    EXPECT_FALSE(hasOperator("probe"));
    {
        QORPlugInLoader loader;
        loader.load(file);
        EXPECT_TRUE(hasOperator("probe"));
        ASSERT_EQ(loader.plugIns().size(), 1U);
        EXPECT_EQ(loader.plugIns().front().file, file);
    }
    EXPECT_FALSE(hasOperator("probe"));
    EXPECT_FALSE(isMapped(file));
}

TEST(PlugInLoader, LoadsAgainAfterUnloading) {
    QORPlugInLoader loader;
    for (int round = 0; round < 3; ++round) {
        loader.load(plugIns / "probe" / "libQORProbe.so");
        EXPECT_TRUE(hasOperator("probe"));
        loader.unloadAll();
        EXPECT_FALSE(hasOperator("probe"));
    }
}

TEST(PlugInLoader, ALibraryIsLoadedOnceWhateverItIsCalled) {
    const test::TemporaryDirectory directory;
    std::filesystem::create_symlink(plugIns / "probe" / "libQORProbe.so", directory / "libA.so");
    std::filesystem::create_symlink(plugIns / "probe" / "libQORProbe.so", directory / "libB.so");
    QORPlugInLoader loader;
    EXPECT_TRUE(loader.loadDirectory(directory.path()).empty());
    EXPECT_EQ(loader.plugIns().size(), 1U);
    EXPECT_EQ(QOROpFactoryRegistry::instance().names(), std::vector<std::string>{"probe"});
}

TEST(PlugInLoader, AnEntryPointThatReturnsNonZeroRefuses) {
    const auto file = plugIns / "mixed" / "libQORRefusing.so";
    EXPECT_THAT(reasonOf(file), AllOf(HasSubstr(file.string()), HasSubstr("initQORPlugIn returned 7")));
    EXPECT_FALSE(isMapped(file));
}

/// How a collector of a plug-in is called while it lives.
class CollectorName {
public:
    explicit CollectorName(const std::string& name) { ::setenv(variable, name.c_str(), 1); }
    ~CollectorName() { ::unsetenv(variable); }
    CollectorName(const CollectorName&) = delete;
    CollectorName& operator=(const CollectorName&) = delete;

private:
    static constexpr const char* variable = "QOR_TEST_COLLECTOR_NAME";
};

TEST(PlugInLoader, ACollectorThatCannotBeCalledByItsNameRefuses) {
    const auto file = plugIns / "named" / "libQORNamed.so";
    QORPlugInLoader others;
    others.load(plugIns / "mixed" / "libQORSound.so");
    const auto collectors = QORCollectorRegistry::instance().all();
    for (const std::string& name : {std::string(), std::string("all"), std::string("a=b"), std::string("a b"),
                                    std::string("caf\xc3\xa9"), std::string(65, 'a')}) {
        const CollectorName called(name);
        EXPECT_THAT(reasonOf(file), AllOf(HasSubstr(file.string()), HasSubstr("cannot be called " + quoteText(name))));
    }
    {
        const CollectorName called("echo");
        EXPECT_THAT(reasonOf(file), HasSubstr(": there is a collector \"echo\" already"));
    }
    EXPECT_FALSE(isMapped(file));
    EXPECT_EQ(QORCollectorRegistry::instance().all(), collectors);
    EXPECT_TRUE(QORCollectorRegistry::instance().refusals().empty());
    const CollectorName called("Echo-2");
    EXPECT_EQ(reasonOf(file), "loaded");
}

TEST(PlugInLoader, ALibraryWithoutEntryPointIsRefusedByName) {
    const auto file = plugIns / "mixed" / "libQORNoEntry.so";
    EXPECT_THAT(reasonOf(file), AllOf(HasSubstr(file.string()), HasSubstr("initQORPlugIn")));
}

TEST(PlugInLoader, AFileThatIsNoLibraryIsRefusedWithTheLinkersText) {
    const test::TemporaryDirectory directory;
    std::ofstream(directory / "libText.so") << std::string(4096, 'x');
    EXPECT_THAT(reasonOf(directory / "libText.so"), AllOf(HasSubstr("libText.so"), HasSubstr("invalid ELF header")));
}

TEST(PlugInLoader, AMissingFileIsRefused) {
    EXPECT_THAT(reasonOf("/nonexistent/libGone.so"), HasSubstr("/nonexistent/libGone.so"));
}

TEST(PlugInLoader, ARefusedPlugInKeepsNoOtherFromBeingLoaded) {
    QORPlugInLoader loader;
    const auto refused = loader.loadDirectory(plugIns / "mixed");
    ASSERT_EQ(refused.size(), 2U);
    EXPECT_EQ(refused[0].file.filename(), "libQORNoEntry.so");
    EXPECT_EQ(refused[1].file.filename(), "libQORRefusing.so");
    ASSERT_EQ(loader.plugIns().size(), 1U);
    EXPECT_EQ(loader.plugIns().front().file.filename(), "libQORSound.so");
    EXPECT_TRUE(hasOperator("sound"));
}

TEST(PlugInLoader, OnlyLibrariesWithPlugInNamesAreLoaded) {
    const test::TemporaryDirectory directory;
    for (const char* name : {"QORProbe.so", "libQORProbe.so.1", "libQORProbe.txt", "lib.so"}) {
        std::filesystem::copy_file(plugIns / "probe" / "libQORProbe.so", directory / name);
    }
    QORPlugInLoader loader;
    EXPECT_TRUE(loader.loadDirectory(directory.path()).empty());
    EXPECT_TRUE(loader.plugIns().empty());
}

TEST(PlugInLoader, AFolderIsLoadedInTheOrderOfNames) {
    const test::TemporaryDirectory directory;
    std::filesystem::copy_file(plugIns / "probe" / "libQORProbe.so", directory / "libZ.so");
    std::filesystem::copy_file(plugIns / "mixed" / "libQORSound.so", directory / "libA.so");
    QORPlugInLoader loader;
    loader.loadDirectory(directory.path());
    EXPECT_EQ(QOROpFactoryRegistry::instance().names(), (std::vector<std::string>{"sound", "probe"}));
}

TEST(PlugInLoader, AFolderThatCannotBeReadIsAnError) {
    QORPlugInLoader loader;
    try {
        loader.loadDirectory("/nonexistent/plugins");
        FAIL() << "was read";
    } catch (const QORException& exception) {
        EXPECT_THAT(exception.message(), HasSubstr("/nonexistent/plugins"));
    }
}

}  // namespace
}  // namespace QOR
