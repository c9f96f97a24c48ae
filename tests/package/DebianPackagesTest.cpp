// The Debian packages as an administrator meets them: made, checked, and installed, used, upgraded and purged in a
// small system of their own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

using Command = std::vector<std::string>;

std::string outputOf(const Command& command) {
    auto [status, output] = test::runProgram(command);
    if (status != 0) throw std::runtime_error(command.front() + " ends with " + std::to_string(status) + ": " + output);
    return output;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string wholeFile(const fs::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// Below the folder, relative to it; none of what is made while a system runs, or whenever a user is added.
std::set<std::string> entriesBelow(const fs::path& folder) {
    const std::vector<std::string> passing{"/dev",          "/proc",        "/tmp",        "/run",
                                           "/var/lib/dpkg", "/etc/passwd-", "/etc/group-", "/etc/shadow-",
                                           "/etc/gshadow-", "/etc/.pwd"};
    std::set<std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        std::string path = "/" + entry.path().lexically_relative(folder).string();
        if (std::none_of(passing.begin(), passing.end(), [&](const auto& one) { return path.rfind(one, 0) == 0; }))
            entries.insert(std::move(path));
    }
    return entries;
}

class DebianPackages : public testing::Test {
protected:
    static void SetUpTestSuite() {
        if (s_directory) return;  // they are the same for all suites
        s_directory = std::make_unique<test::TemporaryDirectory>();
        makePackages();
    }

    static fs::path below(const std::string& name) { return *s_directory / name; }
    static fs::path packages() { return below("made"); }
    static std::string package(const std::string& name) {
        for (const auto& entry : fs::directory_iterator(packages())) {
            if (entry.path().filename().string().rfind(name + "_", 0) == 0) return entry.path().string();
        }
        throw std::runtime_error("there is no package " + name);
    }
    static std::vector<std::string> installedOnes() {
        return {package("libqor1"), package("qor-agent"), package("qorctl")};
    }

    static inline std::unique_ptr<test::TemporaryDirectory> s_directory;

private:
    static void makePackages() {
        outputOf({QOR_TEST_CPACK, "--config", QOR_TEST_BUILD_DIR "/CPackConfig.cmake", "-B", below("cpack").string(),
                  "-D", "CPACK_OUTPUT_FILE_PREFIX=" + packages().string()});
    }
};

/// A small system in which nothing of the project is.
class CleanRoot : public DebianPackages {
protected:
    static void SetUpTestSuite() {
        DebianPackages::SetUpTestSuite();
        if (fs::exists(below("root"))) return;
        s_isPossible = ::geteuid() == 0 && canMount();
        if (s_isPossible) makeRoot();
    }
    void SetUp() override {
        if (!s_isPossible) GTEST_SKIP() << "only root, who may mount, can have a root of its own";
        outputOf({"cp", "-a", below("root").string(), root().string()});
    }
    void TearDown() override { fs::remove_all(root()); }

    static fs::path root() { return below("system"); }
    static Command inside(const Command& command) {
        Command all{"sh", QOR_TEST_DATA_DIR "/in_root.sh", root().string()};
        all.insert(all.end(), command.begin(), command.end());
        return all;
    }
    static std::string run(const Command& command) { return outputOf(inside(command)); }
    static std::string install(const std::vector<std::string>& files) {
        Command command{"dpkg", "-i"};
        for (const std::string& file : files) {
            fs::copy_file(file, root() / "tmp" / fs::path(file).filename(), fs::copy_options::overwrite_existing);
            command.push_back("/tmp/" + fs::path(file).filename().string());
        }
        return run(command);
    }
    static std::unique_ptr<test::ChildProcess> startAgent(Command command = {}) {
        command.insert(command.end(), {"qor-agent", "--socket-group", "qor"});
        auto agent = std::make_unique<test::ChildProcess>(inside(command));
        if (!agent->waitForLine("qor-agent listening on ")) throw std::runtime_error(agent->output());
        return agent;
    }
    static int stop(test::ChildProcess& agent) {
        agent.signal(SIGTERM);
        return agent.wait();
    }

    /// What in_root.sh does, with nothing in the folder to run.
    static bool canMount() {
        const fs::path folder = below("mounts");
        for (const char* const name : {"dev", "proc"})
            fs::create_directories(folder / name);
        const std::string mount = "mount --rbind /dev \"$0/dev\" && mount -t proc proc \"$0/proc\"";
        return test::runProgram({"unshare", "--mount", "sh", "-c", mount, folder.string()}).first == 0;
    }
    static void makeRoot() {
        Command command{"python3", QOR_TEST_DATA_DIR "/clean_root.py", below("root").string()};
        for (const std::string& file : installedOnes())
            command.push_back(file);
        outputOf(command);
        outputOf({"sh", QOR_TEST_DATA_DIR "/in_root.sh", below("root").string(), "dpkg", "--configure", "-a"});
    }

    static inline bool s_isPossible = false;

    /// The same as a version before this one would bring it.
    static std::string asEarlierVersion(const std::string& file) {
        const fs::path folder = below("earlier");
        fs::remove_all(folder);
        outputOf({"dpkg-deb", "-R", file, folder.string()});
        outputOf({"sed", "-i", "s/" QOR_TEST_VERSION "/0.9.0/", (folder / "DEBIAN/control").string()});
        std::string made = below("earlier_" + fs::path(file).filename().string()).string();
        outputOf({"dpkg-deb", "-Znone", "-b", folder.string(), made});
        return made;
    }
};

TEST_F(DebianPackages, HaveNoErrorThatLintianKnows) {
    if (test::runProgram({"sh", "-c", "command -v lintian"}).first != 0) GTEST_SKIP() << "lintian is not installed";
    Command command{"lintian", "--allow-root", "--fail-on", "error", "--tag-display-limit", "0"};
    for (const auto& entry : fs::directory_iterator(packages()))
        command.push_back(entry.path().string());
    ASSERT_EQ(command.size(), 6U + 5U);
    const auto [status, output] = test::runProgram(command);
    EXPECT_EQ(status, 0) << output;
}

TEST_F(DebianPackages, HoldTogetherWhatIsInstalledWithoutThem) {
    outputOf({QOR_TEST_CMAKE, "--install", QOR_TEST_BUILD_DIR, "--prefix", below("prefix").string()});
    std::set<std::string> packed;
    for (const auto& entry : fs::directory_iterator(packages())) {
        for (std::string path :
             linesOf(outputOf({"sh", "-c", "dpkg-deb --fsys-tarfile \"$0\" | tar -t", entry.path()}))) {
            if (path.rfind("./usr/", 0) != 0 || path.back() == '/') continue;
            if (path.rfind("./usr/share/man/", 0) == 0) path.resize(path.size() - 3);  // .gz
            packed.insert(path.substr(6));
        }
    }
    for (const auto& entry : fs::recursive_directory_iterator(below("prefix"))) {
        const std::string path = entry.path().lexically_relative(below("prefix")).string();
        EXPECT_TRUE(entry.is_directory() || packed.count(path) == 1) << path;
    }
}

TEST_F(DebianPackages, KeepTheSymbolsOfEachProgramUnderItsIdentifier) {
    const fs::path folder = below("symbols");
    for (const char* const name : {"qor-agent", "qorpager-dbgsym"})
        outputOf({"dpkg-deb", "-x", package(name), folder.string()});
    const std::string program = (folder / "usr/bin/qor-agent").string();
    EXPECT_THAT(outputOf({QOR_TEST_READELF, "-S", program}), Not(HasSubstr(".debug_")));
    const std::string notes = outputOf({QOR_TEST_READELF, "-n", program});
    const std::string id = notes.substr(notes.find("Build ID: ") + 10, 40);
    const fs::path symbols = folder / "usr/lib/debug/.build-id" / id.substr(0, 2) / (id.substr(2) + ".debug");
    EXPECT_THAT(outputOf({QOR_TEST_READELF, "-S", symbols.string()}), HasSubstr(".debug_line"));
}

TEST_F(DebianPackages, ThoseForDevelopersAreEnoughToBuildAPlugIn) {
    const fs::path folder = below("development");
    for (const char* const name : {"libqor1", "libqor-dev"})
        outputOf({"dpkg-deb", "-x", package(name), folder.string()});
    const std::string build = below("example").string();
    outputOf({QOR_TEST_CMAKE, "-S", (folder / "usr/share/doc/libqor-dev/examples/collector").string(), "-B", build,
              std::string("-DCMAKE_CXX_COMPILER=") + QOR_TEST_COMPILER,
              "-DCMAKE_PREFIX_PATH=" + (folder / "usr").string()});
    outputOf({QOR_TEST_CMAKE, "--build", build});
    EXPECT_TRUE(fs::exists(below("example") / "libBoots.so"));
    // What the headers include, and what plug-ins are checked with.
    EXPECT_THAT(outputOf({"dpkg-deb", "-f", package("libqor-dev"), "Depends", "Recommends"}),
                AllOf(HasSubstr("libqor1 (= "), HasSubstr("libboost-dev"), HasSubstr("qorctl")));
}

TEST_F(CleanRoot, AnAgentAndItsClientRunWithNothingElseInstalled) {
    install(installedOnes());
    EXPECT_THAT(run({"id", "qor"}), HasSubstr("(qor)"));
    EXPECT_EQ(run({"stat", "-c", "%a %U", "/var/lib/qor", "/var/log/qor"}), "700 root\n700 root\n");
    EXPECT_THAT(run({"qor-agent", "--check-config"}), HasSubstr("/usr/share/qor/vocabulary.xml: no mistakes"));
    const auto agent = startAgent();
    EXPECT_EQ(run({"stat", "-c", "%a %G", "/run/qor/agent.sock"}), "660 qor\n");
    EXPECT_THAT(run({"qorctl", "collect"}), HasSubstr("environment: 1 added"));
    // What dpkg has done to this system, these packages last.
    EXPECT_EQ(run({"qorctl", "select", "vOpLog", "-f", "package,version", "--where",
                   "package = 'qor-agent' and op = 'install'", "-o", "tsv", "--no-header"}),
              "qor-agent\t" QOR_TEST_VERSION "\n");
    const std::string status = run({"qorctl", "status", "-o", "csv"});
    const std::size_t at = status.find("schema version,") + 15;
    EXPECT_THAT(wholeFile(root() / "usr/share/doc/qor-agent/CHANGELOG.md"),
                AllOf(HasSubstr("\n## " QOR_TEST_VERSION "\n"),
                      HasSubstr("schema is " + status.substr(at, status.find('\r', at) - at) + ".")));
    EXPECT_EQ(stop(*agent), 0) << agent->output();
    for (const char* const file : {"usr/share/man/man8/qor-agent.8.gz", "usr/share/man/man1/qorctl.1.gz",
                                   "usr/share/bash-completion/completions/qorctl", "etc/logrotate.d/qor-agent",
                                   "usr/lib/systemd/system/qor-agent.service"})
        EXPECT_TRUE(fs::exists(root() / file)) << file;
    EXPECT_THAT(wholeFile(root() / "usr/lib/systemd/system/qor-agent.service"),
                HasSubstr("\nExecStart=\"/usr/bin/qor-agent\" "));
}

TEST_F(CleanRoot, AnAgentOfTheUserThatIsMadeForItKeepsItsThingsWhereRootsAre) {
    install(installedOnes());
    std::ofstream(root() / "etc/qor/conf.d/10-own.toml") << "deadline = 5\n";
    const std::string unit = wholeFile(root() / "usr/lib/systemd/system/qor-agent.service");
    Command asUser{"setpriv", "--reuid=qor", "--regid=qor", "--init-groups", "env"};
    const std::size_t at = unit.find("\nEnvironment=") + 13;
    std::istringstream variables(unit.substr(at, unit.find('\n', at) - at));
    for (std::string variable; variables >> variable;)
        asUser.push_back(variable);
    // As the service manager does before it starts a unit of this user.
    run({"install", "-d", "-o", "qor", "-m", "755", "/run/qor"});
    run({"chown", "qor:", "/var/lib/qor"});
    const auto agent = startAgent(asUser);
    EXPECT_THAT(agent->output(), HasSubstr("qor-agent listening on /run/qor/agent.sock\n"));
    EXPECT_EQ(run({"stat", "-c", "%U", "/var/lib/qor/agent.db"}), "qor\n");
    EXPECT_THAT(run({"qorctl", "status"}), HasSubstr("/var/lib/qor/agent.db"));
    EXPECT_EQ(stop(*agent), 0) << agent->output();
    asUser.insert(asUser.end(), {"qor-agent", "--print-settings"});
    EXPECT_THAT(run(asUser), HasSubstr("\ndeadline = 5 "));
}

TEST_F(CleanRoot, AnUpgradeKeepsDataAndSettings) {
    std::vector<std::string> earlier;
    for (const std::string& file : installedOnes())
        earlier.push_back(asEarlierVersion(file));
    install(earlier);
    EXPECT_THAT(run({"dpkg-query", "-W", "qor-agent"}), EndsWith("\t0.9.0\n"));
    const std::string database = (root() / "var/lib/qor/agent.db").string();
    outputOf({"sqlite3", database, ".read " QOR_PROJECT_DIR "/tests/libs/QORDBSchema/data/sqlite18.sql"});
    const std::string operations = outputOf({"sqlite3", database, "SELECT COUNT(*) FROM qor_operation"});
    std::ofstream(root() / "etc/qor/agent.toml", std::ios::app) << "threads = 3\n";
    std::ofstream(root() / "etc/qor/conf.d/10-own.toml") << "deadline = 5\n";

    install(installedOnes());
    EXPECT_THAT(run({"dpkg-query", "-W", "qor-agent"}), EndsWith("\t" QOR_TEST_VERSION "\n"));
    EXPECT_THAT(run({"qor-agent", "--print-settings"}),
                AllOf(HasSubstr("\nthreads = 3 "), HasSubstr("\ndeadline = 5 ")));
    const auto agent = startAgent();
    EXPECT_EQ(run({"qorctl", "select", "vOpLog", "-f", "count(id)", "-o", "tsv", "--no-header"}), operations);
    EXPECT_EQ(stop(*agent), 0) << agent->output();
}

TEST_F(CleanRoot, RemovingKeepsTheDataAndPurgingLeavesNothing) {
    const std::set<std::string> before = entriesBelow(root());
    install(installedOnes());
    const auto agent = startAgent();
    EXPECT_EQ(stop(*agent), 0) << agent->output();
    run({"dpkg", "-r", "qor-agent"});
    EXPECT_TRUE(fs::exists(root() / "var/lib/qor/agent.db"));
    EXPECT_TRUE(fs::exists(root() / "etc/qor/agent.toml"));
    install({package("qor-agent")});
    for (const char* const unit : {"qor-agent.service", "qor-agent.socket"})
        EXPECT_FALSE(fs::is_symlink(root() / "etc/systemd/system" / unit)) << unit << " stays masked";
    run({"dpkg", "-P", "qor-agent", "qorctl", "libqor1"});
    EXPECT_EQ(entriesBelow(root()), before);
}

/// A system in which the page about installing is gone through, line by line.
class InstallingPage : public CleanRoot {
protected:
    void SetUp() override {
        CleanRoot::SetUp();
        if (IsSkipped()) return;
        // Whoever reads the page is root here, and apt is what brings packages to where they are needed.
        makeProgram("sudo", "exec \"$@\"");
        makeProgram("apt",
                    "case $1 in install) word=-i ;; remove) word=-r ;; purge) word=-P ;; *) exit 2 ;; esac\n"
                    "shift; exec dpkg $word \"$@\"");
        fs::create_directories(folder() / "build/release/packages");
        for (const std::string& file : installedOnes()) {
            fs::copy_file(file, folder() / fs::path(file).filename());
            fs::copy_file(asEarlierVersion(file), folder() / "build/release/packages" / fs::path(file).filename());
        }
    }

    /// What the page has done for an installed system below a heading.
    static std::vector<std::string> commandsBelow(const std::string& heading) {
        std::vector<std::string> commands;
        bool isThere = false;
        bool isCommand = false;
        for (const std::string& line : linesOf(wholeFile(QOR_PROJECT_DIR "/docs/install.md"))) {
            if (line.starts_with("## ")) isThere = line == "## " + heading;
            if (line.starts_with("```")) isCommand = isThere && line == "```sh installed";
            if (isCommand && !line.starts_with("```")) commands.push_back(line);
        }
        if (commands.empty()) throw std::runtime_error("nothing is done below " + heading);
        return commands;
    }
    std::string follow(const std::string& command) {
        const bool bringsPackages = command.starts_with("sudo apt ");
        if (bringsPackages && m_agent) stopAgent();  // as the service manager does
        std::string output = run({"env", "USER=root", "bash", "-euc", "cd /tmp/reader; " + command});
        if (bringsPackages && fs::exists(root() / "usr/bin/qor-agent")) m_agent = startAgent();
        return output;
    }
    std::string followAll(const std::string& heading) {
        std::string output;
        for (const std::string& command : commandsBelow(heading))
            output += follow(command);
        return output;
    }
    static bool isThere(const std::string& path) { return fs::exists(root() / path); }

private:
    static fs::path folder() { return root() / "tmp/reader"; }
    static void makeProgram(const std::string& name, const std::string& text) {
        const fs::path file = root() / "usr/bin" / name;
        std::ofstream(file) << "#!/bin/sh\n" << text << '\n';
        fs::permissions(file, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    }
    void stopAgent() {
        EXPECT_EQ(stop(*m_agent), 0) << m_agent->output();
        m_agent.reset();
    }

    std::unique_ptr<test::ChildProcess> m_agent;
};

TEST_F(InstallingPage, LeadsToFirstRowsToTheNextVersionAndToNothing) {
    const std::string first = followAll("First rows");
    EXPECT_THAT(first, HasSubstr("environment: 1 added"));
    EXPECT_THAT(first, HasSubstr("qor-agent"));
    EXPECT_THAT(run({"dpkg-query", "-W", "qor-agent"}), EndsWith("\t0.9.0\n"));
    std::ofstream(root() / "etc/qor/conf.d/10-own.toml") << "deadline = 5\n";
    const Command rows{"qorctl", "log", "-f", "count(id)", "-o", "tsv", "--no-header"};
    const std::string before = run(rows);

    followAll("Upgrade");
    EXPECT_THAT(run({"dpkg-query", "-W", "qor-agent"}), EndsWith("\t" QOR_TEST_VERSION "\n"));
    EXPECT_EQ(run(rows), before);

    const std::vector<std::string> removal = commandsBelow("Removal");
    ASSERT_EQ(removal.size(), 4U);
    follow(removal[0]);
    for (const char* const gone : {"usr/bin/qor-agent", "usr/bin/qorctl", "usr/lib/systemd/system/qor-agent.service",
                                   "usr/share/man/man8/qor-agent.8.gz", "usr/share/bash-completion/completions/qorctl"})
        EXPECT_FALSE(isThere(gone)) << gone;
    const std::vector<std::string> kept{"var/lib/qor/agent.db", "var/log/qor", "etc/qor/agent.toml",
                                        "etc/logrotate.d/qor-agent"};
    for (const std::string& stays : kept)
        EXPECT_TRUE(isThere(stays)) << stays;
    follow(removal[1]);
    for (const std::string& gone : kept)
        EXPECT_FALSE(isThere(gone)) << gone;
    EXPECT_TRUE(isThere("etc/qor/conf.d/10-own.toml"));
    EXPECT_THAT(run({"getent", "group", "qor"}), HasSubstr("root"));
    follow(removal[2]);
    follow(removal[3]);
    EXPECT_THAT(wholeFile(root() / "etc/passwd") + wholeFile(root() / "etc/group"), Not(HasSubstr("qor")));
}

}  // namespace
}  // namespace QOR
