// Installs the project to a folder of its own, builds a plug-in against what is installed, and runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;
using test::AgentProcess;
using test::AgentSettings;
using test::HttpClient;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

std::string contentsOf(const fs::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void run(const std::vector<std::string>& command) {
    const auto [status, output] = test::runProgram(command);
    if (status != 0) throw std::runtime_error(command.front() + " " + command.at(1) + ": " + output);
}

std::vector<fs::path> filesBelow(const fs::path& folder) {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
    }
    return files;
}

std::vector<std::string> exportsOf(const std::string& library) {
    const auto [status, output] = test::runProgram({QOR_TEST_NM, "--dynamic", "--defined-only", library});
    if (status != 0) throw std::runtime_error(output);
    std::vector<std::string> symbols;
    std::istringstream lines(output);
    for (std::string address, type, name; lines >> address >> type >> name;)
        symbols.push_back(name);
    return symbols;
}

/// The installed project, once for all tests.
class Package : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_directory = std::make_unique<test::TemporaryDirectory>();
        run({QOR_TEST_CMAKE, "--install", QOR_TEST_BUILD_DIR, "--prefix", prefix().string()});
    }
    static void TearDownTestSuite() { s_directory.reset(); }

    static fs::path prefix() { return *s_directory / "prefix"; }
    static fs::path below(const std::string& name) { return *s_directory / name; }

    /// The one installed file of that name, wherever the system keeps its like.
    static fs::path installed(const std::string& name) {
        for (const fs::path& file : filesBelow(prefix())) {
            if (file.filename() == name) return file;
        }
        throw std::runtime_error(name + " is not installed");
    }

    static std::vector<std::string> configureCommand(const fs::path& source, const fs::path& build,
                                                     const fs::path& root) {
        std::vector<std::string> command{QOR_TEST_CMAKE,
                                         "-S",
                                         source.string(),
                                         "-B",
                                         build.string(),
                                         std::string("-DCMAKE_CXX_COMPILER=") + QOR_TEST_COMPILER,
                                         "-DCMAKE_BUILD_TYPE=Debug",
                                         "-DCMAKE_PREFIX_PATH=" + root.string()};
        if (*QOR_TEST_SANITIZE != '\0') command.push_back("-DCMAKE_CXX_FLAGS=-fsanitize=" QOR_TEST_SANITIZE);
        return command;
    }

    static inline std::unique_ptr<test::TemporaryDirectory> s_directory;
};

TEST_F(Package, HasItsPrograms) {
    for (const fs::path program : {"qor-agent", "qorctl"}) {
        if (!fs::exists(test::programDirectory() / program)) continue;
        const auto [status, output] = test::runProgram({(prefix() / "bin" / program).string(), "--help"});
        EXPECT_EQ(status, 0) << output;
    }
}

TEST_F(Package, HasTheClientsManualAndWhatShellsCompleteItWith) {
    if (!fs::exists(test::programDirectory() / "qorctl")) GTEST_SKIP() << "built without the client";
    const fs::path share = prefix() / "share";
    const std::string manual = contentsOf(share / "man/man1/qorctl.1");
    EXPECT_THAT(manual, AllOf(HasSubstr(".TH QORCTL 1"), HasSubstr("\n.SS identity add\n"), HasSubstr("QOR_TOKEN"),
                              HasSubstr("\n.B \\-o, \\-\\-output FORMAT\n")));
    for (const char* script : {"bash-completion/completions/qorctl", "fish/vendor_completions.d/qorctl.fish",
                               "zsh/vendor-completions/_qorctl"})
        EXPECT_THAT(contentsOf(share / script), HasSubstr("__complete")) << script;
}

TEST_F(Package, HasTheManualsOfTheAgentAndOfItsSettings) {
    const fs::path manuals = prefix() / "share/man";
    EXPECT_THAT(contentsOf(manuals / "man8/qor-agent.8"),
                AllOf(HasSubstr(".TH QOR-AGENT 8"), HasSubstr("\n.B \\-\\-threads N\n"), EndsWith(".BR qorctl (1)\n")));
    EXPECT_THAT(contentsOf(manuals / "man5/agent.toml.5"),
                AllOf(HasSubstr(".TH AGENT.TOML 5"), HasSubstr("\n.B threads\n"), EndsWith(".BR qorctl (1)\n")));
}

TEST_F(Package, KeepsNoPathOfTheBuild) {
    for (const char* name : {"qor-agent", "libQORPager.so"}) {
        const auto [status, output] = test::runProgram({QOR_TEST_READELF, "-d", installed(name).string()});
        EXPECT_EQ(status, 0);
        EXPECT_THAT(output, AllOf(HasSubstr("$ORIGIN/"), Not(HasSubstr(QOR_TEST_BUILD_DIR)))) << name;
    }
}

TEST_F(Package, ServiceStartsTheInstalledAgent) {
    EXPECT_THAT(
        contentsOf(installed("qor-agent.service")),
        AllOf(HasSubstr("ExecStart=\"" + (prefix() / "bin" / "qor-agent").string() + "\" "), Not(HasSubstr("@QOR"))));
}

TEST_F(Package, ServiceKeepsItsStateToItselfAndItsSocketForItsGroup) {
    const std::string unit = contentsOf(installed("qor-agent.service"));
    EXPECT_THAT(unit, AllOf(HasSubstr("\nUMask=0077\n"), HasSubstr("\nStateDirectoryMode=0700\n"),
                            HasSubstr(" --socket-group qor\n"), HasSubstr("\nExecReload=/bin/kill -HUP $MAINPID\n")));
    EXPECT_THAT(contentsOf(prefix() / "lib/sysusers.d/qor.conf"), HasSubstr("\nu qor - "));
}

TEST_F(Package, ServiceIsLeftNothingThatItDoesNotNeed) {
    if (test::runProgram({"sh", "-c", "command -v systemd-analyze"}).first != 0)
        GTEST_SKIP() << "systemd-analyze is not installed";
    const std::string unit = installed("qor-agent.service").string();
    // In tenths: below 2.0.
    const auto [exposed, points] =
        test::runProgram({"systemd-analyze", "security", "--offline=true", "--threshold=19", "--no-pager", unit});
    EXPECT_EQ(exposed, 0) << points;
}

TEST_F(Package, ServiceTellsTheManagerHowItIsAndTakesItsSocket) {
    EXPECT_THAT(contentsOf(installed("qor-agent.service")),
                AllOf(HasSubstr("\nType=notify\n"), HasSubstr("\nWatchdogSec=")));
    EXPECT_THAT(contentsOf(installed("qor-agent.socket")), HasSubstr("\nListenStream=/run/qor/agent.sock\n"));
}

TEST_F(Package, ServiceWaitsForADatabaseThatComesLaterThanTheAgent) {
    const std::string unit = contentsOf(installed("qor-agent.service"));
    EXPECT_THAT(unit, AllOf(HasSubstr("\nRestart=on-failure\nRestartSec=5\n"), HasSubstr("\nStartLimitIntervalSec=0\n"),
                            HasSubstr("network-online.target postgresql.service\n")));
}

TEST_F(Package, ThePagerExportsItsEntryPointsAlone) {
    EXPECT_THAT(exportsOf(installed("libQORPager.so").string()),
                testing::UnorderedElementsAre("initQORPlugIn", "finiQORPlugIn"));
}

TEST_F(Package, EveryHeaderCompilesByItself) {
    std::size_t headers = 0;
    std::ofstream source(below("headers.cpp"));
    for (const fs::path& file : filesBelow(prefix() / "include" / "qor")) {
        source << "#include <" << fs::relative(file, prefix() / "include" / "qor").string() << ">\n";
        ++headers;
    }
    source.close();
    EXPECT_GT(headers, 20U);
    const auto [status, output] =
        test::runProgram({QOR_TEST_COMPILER, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-I",
                          (prefix() / "include" / "qor").string(), below("headers.cpp").string()});
    EXPECT_EQ(status, 0) << output;
}

/// The examples as their readers have them, built against the package where it was not installed to: nothing in it may
/// depend on the place.
class Examples : public Package {
protected:
    static void SetUpTestSuite() {
        Package::SetUpTestSuite();
        fs::copy(prefix(), moved(), fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        for (const char* const name : {"operator", "collector", "log-source"}) {
            const fs::path build = below(std::string("build-") + name);
            run(configureCommand(moved() / "share/doc/libqor-dev/examples" / name, build, moved()));
            run({QOR_TEST_CMAKE, "--build", build.string()});
            run({QOR_TEST_CMAKE, "--install", build.string()});
        }
    }
    static fs::path moved() { return below("elsewhere"); }

    /// An agent of this package that collects below root().
    static AgentSettings settings() {
        AgentSettings settings;
        settings.program = moved() / "bin" / "qor-agent";
        settings.more = {"--collect-root", root().string()};
        return settings;
    }
    static fs::path root() { return below("root"); }
    static void write(const std::string& file, const std::string& text) {
        fs::create_directories((root() / file).parent_path());
        std::ofstream(root() / file) << text;
    }
    static std::string ask(const AgentProcess& agent, std::vector<std::string> words) {
        words.insert(words.begin(), (moved() / "bin" / "qorctl").string());
        words.insert(words.end(), {"--socket", agent.socketPath()});
        return test::runProgram(words).second;
    }
    void SetUp() override {
        if (!fs::exists(test::programDirectory() / "qorctl")) GTEST_SKIP() << "built without the client";
        fs::remove_all(root());
        write("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
    }
};

TEST_F(Examples, AreLoadedBesideTheShippedPlugIn) {
    const AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    EXPECT_THAT(
        client.get("/v1/health").body,
        HasSubstr(R"("plugins":["libAlternatives.so","libBoots.so","libCensus.so","libQORPager.so"],"refused":[])"));
    EXPECT_EQ(client.message(
                  R"({"operator":"pager2","request":"select","body":[1740,[[1009,"vEnvironment"],[1741,"eid"]]]})"),
              R"({"response":[[1744,[[1026,"eid"]]]]})");
}

TEST_F(Examples, OfferTheirEntryPointsAlone) {
    for (const char* name : {"libCensus.so", "libBoots.so", "libAlternatives.so"}) {
        const std::string file =
            (moved() / fs::relative(installed("libQORPager.so"), prefix()).parent_path() / name).string();
        EXPECT_THAT(exportsOf(file), testing::UnorderedElementsAre("initQORPlugIn", "finiQORPlugIn")) << name;
    }
}

TEST_F(Examples, KeepToAllThatTheirAuthorsCanHaveChecked) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer of threads has one of its own, which the check takes for the plug-in's";
#endif
    const fs::path examples = moved() / "share/doc/libqor-dev/examples";
    const fs::path plugIns = moved() / fs::relative(installed("libQORPager.so"), prefix()).parent_path();
    const auto check = [&](const char* name, std::vector<std::string> more) {
        more.insert(more.begin(), {(moved() / "bin/qorctl").string(), "plugin", "check", (plugIns / name).string()});
        const auto [status, output] = test::runProgram(more);
        EXPECT_EQ(status, 0) << output;
        EXPECT_THAT(output, Not(HasSubstr("advice"))) << output;
        return output;
    };
    EXPECT_THAT(check("libCensus.so", {}), HasSubstr("operator census: count"));
    EXPECT_THAT(check("libBoots.so", {"--root", (examples / "collector/tree").string()}), HasSubstr("records: 1"));
    EXPECT_THAT(check("libAlternatives.so", {"--root", (examples / "log-source/tree").string()}),
                HasSubstr("records: 4"));
}

TEST_F(Examples, AnOperatorCountsTheEnvironmentsThatItsClientMaySee) {
    const AgentProcess agent(settings());
    HttpClient client(agent.socketPath());
    const auto environment = [](char digit, const std::string& type) {
        const std::string eid = std::string(8, digit) + "-0000-4000-8000-000000000000";
        return R"({"kind":"environment","eid":")" + eid + R"(","config":{"type":")" + type + "\"}}\n";
    };
    std::string records = environment('1', "vm") + environment('2', "vm") + environment('3', "host");
    EXPECT_EQ(client.post("/v1/records", records).status, 200);
    EXPECT_EQ(
        client.message(R"({"operator":"census","request":"count","body":[1741,"type"]})"),
        R"({"response":[[1744,[[1026,"type"],[1026,"count"],)"
        R"([1739,[[1082,[[1018,"host"]]],[1082,[[1018,"1"]]]]],[1739,[[1082,[[1018,"vm"]]],[1082,[[1018,"2"]]]]]]]]})");
    EXPECT_EQ(
        client.message(
            R"({"operator":"census","request":"count","body":[1741,"type"],"client":{"fullAccess":false,"sids":[]}})"),
        R"({"response":[[1744,[[1026,"type"],[1026,"count"]]]]})");
    EXPECT_EQ(client.message(R"({"operator":"census","request":"count","body":[1741,"colour"]})"),
              R"({"response":[],"error":{"code":400,"message":"environments have no member \"colour\""}})");
}

TEST_F(Examples, ACollectorBringsEachBootOnce) {
    const AgentProcess agent(settings());
    EXPECT_THAT(ask(agent, {"collect"}), HasSubstr("operation: 0 added"));
    for (const char* const boot : {"11111111-0000-4000-8000-000000000000", "22222222-0000-4000-8000-000000000000"}) {
        write("proc/sys/kernel/random/boot_id", std::string(boot) + "\n");
        write("proc/stat", "cpu 1 2 3\nbtime 1714521600\nprocesses 9\n");
        EXPECT_THAT(ask(agent, {"collect"}), HasSubstr("operation: 1 added"));
        EXPECT_THAT(ask(agent, {"collect"}), HasSubstr("operation: 0 added"));
    }
    EXPECT_EQ(ask(agent,
                  {"select", "vOpLog", "-f", "op,time,id", "-o", "tsv", "--no-header", "--sort", "id", "--limit", "1"}),
              "boot\t2024-05-01T00:00:00+0000\t11111111-0000-4000-8000-000000000000\n");
}

TEST_F(Examples, ALogIsReadOnFromWhereItWasAndThroughItsRotation) {
    const AgentProcess agent(settings());
    const std::string log = "var/log/alternatives.log";
    const auto line = [](const std::string& text) { return "update-alternatives 2024-05-01 12:00:00: " + text + "\n"; };
    write(log,
          line("one \xff") + "nonsense\nupdate-alternatives 2024-05-01\n" + line("two") + "update-alternatives 2024-");
    EXPECT_THAT(ask(agent, {"collect"}),
                AllOf(HasSubstr("event: 2 added"), HasSubstr("2 lines of what was read make no sense")));
    std::ofstream(root() / log, std::ios::app) << "05-01 12:00:01: three\n";
    fs::rename(root() / log, root() / (log + ".1"));
    write(log, line("four"));
    EXPECT_THAT(ask(agent, {"collect"}), HasSubstr("event: 2 added"));
    EXPECT_THAT(ask(agent, {"collect"}), HasSubstr("event: 0 added"));
    EXPECT_EQ(ask(agent, {"select", "vEventLog", "-f", "count(id)", "--where", "source = 'alternatives'", "-o", "tsv",
                          "--no-header"}),
              "4\n");
}

}  // namespace
}  // namespace QOR
