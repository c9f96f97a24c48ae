// qorctl plugin check: what it finds in plug-ins with faults, and nothing in one without.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ctl/CtlProcess.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string faultyDir = QOR_TEST_FAULTY_DIR;
const std::string faulty = faultyDir + "/libQORFaulty.so";
const std::string tree = QOR_TEST_DATA_DIR "/tree";
/// Enough for a process to start and to make its database, on a busy machine too.
#ifdef QOR_SANITIZED
constexpr const char* patience = "20s";
#else
constexpr const char* patience = "6s";
#endif

/// Names the fault that the plug-in has while it lives.
class WithFault {
public:
    explicit WithFault(const std::string& fault) { ::setenv("QOR_TEST_FAULT", fault.c_str(), 1); }
    ~WithFault() { ::unsetenv("QOR_TEST_FAULT"); }
    WithFault(const WithFault&) = delete;
    WithFault& operator=(const WithFault&) = delete;
};

CtlResult check(const std::string& file, Words more = {}) {
    more.insert(more.begin(), {"plugin", "check", file, "-o", "tsv"});
    return runCtl(std::move(more));
}

/// Of a plug-in that is to be used below the tree.
CtlResult checkFaulty(const std::string& fault, Words more = {}) {
    const WithFault scope(fault);
    more.insert(more.end(), {"--root", tree});
    return check(faulty, std::move(more));
}

std::string lineOf(const std::string& what, const std::string& rows) {
    std::istringstream lines(rows);
    for (std::string line; std::getline(lines, line);)
        if (line.find("\t" + what + "\t") != std::string::npos) return line;
    return "nothing about " + what + " in:\n" + rows;
}

TEST(PlugInCheck, FindsNothingInAPlugInThatKeepsToAll) {
    const CtlResult result = checkFaulty("none");
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out, AllOf(Not(HasSubstr("FAULT")), Not(HasSubstr("advice"))));
    EXPECT_THAT(lineOf("brings", result.out), HasSubstr("operators: faulty; collectors: lines"));
    EXPECT_THAT(lineOf("operator faulty: requests", result.out), HasSubstr("ask, tell"));
    EXPECT_THAT(lineOf("collector lines: source", result.out), HasSubstr("records: 2"));
    EXPECT_THAT(lineOf("beside others", result.out), HasSubstr("with 1 more"));
}

TEST(PlugInCheck, FindsNothingInTheShippedPlugIn) {
    const CtlResult result = check((programDirectory().parent_path() / "lib/qor/plugins/libQORPager.so").string());
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_THAT(result.out, AllOf(Not(HasSubstr("FAULT")), Not(HasSubstr("advice"))));
    EXPECT_THAT(lineOf("operator pager2: priming", result.out), StartsWith("ok"));
}

struct Expected {
    const char* fault;
    const char* check;
    const char* found;
    const char* todo;
};

void PrintTo(const Expected& expected, std::ostream* out) {
    *out << expected.fault;
}

class PlugInFault : public testing::TestWithParam<Expected> {};

constexpr Expected faults[] = {
    {"throws in init", "loading", "initQORPlugIn threw: no, thanks", "left out by an agent"},
    {"refuses", "loading", "initQORPlugIn returned 7", "left out by an agent"},
    {"crashes in init", "loading", "crashes (Segmentation fault)", "debugger"},
    {"hangs in init", "loading", "hangs", "debugger"},
    {"a collector's name", "loading", "dpkg", "left out by an agent"},
    {"brings nothing", "brings", "neither an operator nor a collector", "of static storage"},
    {"a name with blanks", "brings", "an operator is called \"a b\"", "call it by letters"},
    {"two of a name", "brings", "two operators have one name", "a name of its own"},
    {"no interval", "brings", "collector lines has no time between runs", "an interval of a second"},
    {"never primed", "operator faulty: priming", "clients would wait for ever", "judge()"},
    {"field without a type", "operator faulty: fields", "field \"faulty.name\" has no name, no source or no type",
     "QOROpField"},
    {"crashes", "operator faulty: ask",
     R"(crashes (Segmentation fault) at {"operator":"faulty","request":"ask","body":[1026]})", "debugger"},
    {"hangs", "operator faulty: ask", R"(hangs at {"operator":"faulty","request":"ask","body":[1026]})", "debugger"},
    {"exits", "operator faulty: ask", "ends the process with status 3 at {", "debugger"},
    {"errors without a text", "operator faulty: ask", "answers with an error that has no text, asked {",
     "throw a QORException"},
    {"serves anything", "operator faulty: unknown request", "a request of any name is served", "other than 0"},
    {"crashes with several clients", "operator faulty: many clients", "crashes (Segmentation fault)", "debugger"},
    {"fails without source", "collector lines: no source", "fails where its source is not there: there are no lines",
     "return false"},
    {"reads elsewhere", "collector lines: no source", "there is nothing below root()", "QORCollection::root()"},
    {"never returns", "collector lines: told to end", "hangs", "debugger"},
    {"any bytes", "collector lines: damaged source", "refused, of bytes that are not UTF-8", "toUtf8()"},
    {"new identifiers", "collector lines: read again", "stores records twice: 2", "QORGUIDBase::fromName()"},
    {"new identifiers", "collector lines: position lost", "stores records twice: 2", "QORGUIDBase::fromName()"},
    {"trusts positions", "collector lines: position of others", "fails: sto", "begin anew"},
    {"stays registered", "unloading", "what it brought is still there: heap", "not of the heap"},
    {"leaves a thread", "unloading", "threads that it started go on", "finiQORPlugIn()"},
    {"another's name", "beside others", "another plug-in serves operator pager too", "a name of its own"},
};
INSTANTIATE_TEST_SUITE_P(Kit, PlugInFault, testing::ValuesIn(faults));

TEST_P(PlugInFault, IsFoundWithWhatToDo) {
    const Expected& expected = GetParam();
    Words more;
    if (std::string(expected.found).starts_with("hangs")) more = {"--timeout", patience};
    const CtlResult result = checkFaulty(expected.fault, more);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr(" checks found a fault\n"));
    EXPECT_THAT(lineOf(expected.check, result.out),
                AllOf(StartsWith("FAULT\t"), HasSubstr(expected.found), HasSubstr(expected.todo)))
        << result.out;
}

TEST(PlugInCheck, GoesOnBehindACrash) {
    const CtlResult result = checkFaulty("crashes");
    for (const char* const what : {"operator faulty: tell", "operator faulty: unknown request",
                                   "collector lines: source", "unloading", "beside others"})
        EXPECT_THAT(lineOf(what, result.out), StartsWith("ok\t")) << result.out;
    EXPECT_THAT(result.err, HasSubstr("qorctl: 1 of "));
}

TEST(PlugInCheck, AsksSoundRequestsFromManyClientsThoughALaterOneCrashed) {
    const CtlResult result = checkFaulty("crashes in the last request");
    EXPECT_THAT(lineOf("operator faulty: tell", result.out), StartsWith("FAULT\t")) << result.out;
    EXPECT_THAT(lineOf("operator faulty: many clients", result.out), StartsWith("ok\t")) << result.out;
}

TEST(PlugInCheck, EndsWhatThePlugInStarted) {
    const TemporaryDirectory directory;
    const std::string file = directory / "number";
    ::setenv("QOR_TEST_NUMBER_FILE", file.c_str(), 1);
    const CtlResult result = checkFaulty("starts a program");
    ::unsetenv("QOR_TEST_NUMBER_FILE");
    EXPECT_EQ(result.status, 0) << result.out;
    std::string number;
    ASSERT_TRUE(std::ifstream(file) >> number);
    // One that has ended, and that nobody has waited for, has no words left.
    for (std::string words = "?"; !words.empty();) {
        words.clear();
        std::getline(std::ifstream("/proc/" + number + "/cmdline"), words);
    }
}

TEST(PlugInCheck, TakesNoTreeWithoutBounds) {
    const CtlResult whole = check(faulty, {"--root", "/../."});
    EXPECT_EQ(whole.status, 2);
    EXPECT_THAT(whole.err, HasSubstr("--root is all of this machine: copy what the collectors read to a folder"));
    const TemporaryDirectory large;
    fs::copy(tree, large.path(), fs::copy_options::recursive);
    std::ofstream(large / "etc/large") << "x";
    fs::resize_file(large / "etc/large", 17 << 20);
    const CtlResult result = check(faulty, {"--root", large.path().string()});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(lineOf("collector lines: damaged source", result.out),
                AllOf(StartsWith("advice\t"), HasSubstr("to a part of the tree"), HasSubstr("16 MiB each")));
}

TEST(PlugInCheck, EndsWhereThePlugInCannotBeLoaded) {
    const CtlResult result = checkFaulty("refuses");
    EXPECT_THAT(result.out, Not(HasSubstr("operator faulty")));
}

TEST(PlugInCheck, SaysWhatNobodyHas) {
    const CtlResult result = check(faultyDir + "/libQORLacking.so");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(lineOf("symbols", result.out),
                AllOf(StartsWith("FAULT\t"), HasSubstr("nobody has elsewhere::countThings("),
                      HasSubstr("with the SDK of this version")));
    EXPECT_THAT(result.out, Not(HasSubstr("loading")));
}

TEST(PlugInCheck, SaysWhichLibraryOfThePlugInsOwnItCouldNotLookAt) {
    const CtlResult result = check(faultyDir + "/libQORApart.so");
    EXPECT_THAT(lineOf("symbols", result.out),
                AllOf(StartsWith("advice\t"), HasSubstr("elsewhere::countThings("),
                      HasSubstr("could not be looked at: libqor_elsewhere.so is not found")));
    EXPECT_THAT(lineOf("loading", result.out), StartsWith("ok\t")) << result.out;
}

TEST(PlugInCheck, SaysThatAPlugInIsOfAnotherVersion) {
    const CtlResult result = check(faultyDir + "/libQOROld.so");
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(lineOf("library", result.out),
                AllOf(StartsWith("FAULT\t"), HasSubstr("it was built for libqor.so.0, this is libqor.so."),
                      HasSubstr("build it with the SDK of this version")));
    EXPECT_THAT(result.out, Not(HasSubstr("loading")));
}

TEST(PlugInCheck, SaysThatALibraryIsNoPlugIn) {
    const CtlResult result =
        check((programDirectory().parent_path() / "lib/qor/test-plugins/mixed/libQORNoEntry.so").string());
    EXPECT_THAT(lineOf("entry points", result.out),
                AllOf(StartsWith("FAULT\t"), HasSubstr("does not offer initQORPlugIn nor finiQORPlugIn")));
    EXPECT_THAT(lineOf("offers", result.out), AllOf(StartsWith("advice\t"), HasSubstr("somethingElse")));
}

TEST(PlugInCheck, SaysWhatIsNoLibrary) {
    const TemporaryDirectory directory;
    const fs::path file = directory / "libText.so";
    EXPECT_THAT(lineOf("file", check(file.string()).out), HasSubstr("libText.so is no file"));
    EXPECT_THAT(lineOf("file", check(directory.path().string()).out), HasSubstr("is no file"));
    std::ofstream(file) << "a text of more than a header's length, so that it might be one: 0123456789";
    EXPECT_THAT(lineOf("file", check(file.string()).out), HasSubstr("libText.so is no library"));
    // However it is cut, it is refused or found out when it is loaded, and nothing is read that is not there.
    std::ifstream whole(faulty, std::ios::binary);
    const std::string bytes(std::istreambuf_iterator<char>(whole), {});
    for (std::size_t size = bytes.size() - 1; size > 64; size /= 3) {
        std::ofstream(file, std::ios::binary) << bytes.substr(0, size);
        EXPECT_EQ(check(file.string()).status, 1);
    }
}

TEST(PlugInCheck, MindsNamesThatHostsPassOver) {
    const TemporaryDirectory directory;
    const fs::path file = directory / "Faulty.module";
    fs::copy_file(faulty, file);
    const CtlResult result = check(file.string());
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(lineOf("file name", result.out), AllOf(StartsWith("FAULT\t"), HasSubstr("call it lib<name>.so")));
    EXPECT_THAT(lineOf("beside others", result.out), StartsWith("ok\t")) << result.out;
}

TEST(PlugInCheck, SaysWhatItCouldNotLookAt) {
    const CtlResult result = check(faulty);
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_THAT(lineOf("collector lines: source", result.out),
                AllOf(StartsWith("advice\t"), HasSubstr("was not looked at"), HasSubstr("--root FOLDER")));
    EXPECT_THAT(lineOf("collector lines: damaged source", result.out), StartsWith("ok\t"));
}

TEST(PlugInCheck, TellsFaultsWholeWhateverATableHasRoomFor) {
    const WithFault scope("crashes");
    const CtlResult result = runCtl({"plugin", "check", faulty, "--width", "60"});
    EXPECT_THAT(result.err,
                HasSubstr("\n  operator faulty: ask: crashes (Segmentation fault) at {\"operator\":\"faulty\","
                          "\"request\":\"ask\",\"body\":[1026]}; look at it in a debugger: gdb --args "
                          "qorctl request --standalone --plugins " +
                          faultyDir + " -"));
}

/// Where temporary files are while it lives.
class TemporaryFiles {
public:
    TemporaryFiles() { ::setenv("TMPDIR", m_directory.path().c_str(), 1); }
    ~TemporaryFiles() { before.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", before.c_str(), 1); }
    TemporaryFiles(const TemporaryFiles&) = delete;
    TemporaryFiles& operator=(const TemporaryFiles&) = delete;
    /// Whether there is a folder of a check, beside what the test itself keeps there.
    bool hasCheck() const {
        for (const auto& entry : fs::directory_iterator(m_directory.path()))
            if (entry.path().filename().string().starts_with("qor-check-")) return true;
        return false;
    }

private:
    static std::string variable() {
        const char* const value = std::getenv("TMPDIR");
        return value == nullptr ? "" : value;
    }

    const std::string before = variable();
    const TemporaryDirectory m_directory;
};

TEST(PlugInCheck, LeavesNothingBehind) {
    const TemporaryFiles files;
    checkFaulty("crashes");
    EXPECT_FALSE(files.hasCheck());
}

TEST(PlugInCheck, EndsWithCtrlCAndShowsWhatWasFound) {
    const TemporaryFiles files;
    const WithFault scope("hangs in init");
    CtlProcess process({ctlProgram(), "plugin", "check", faulty, "-o", "tsv"});
    while (!files.hasCheck())  // until it is at work
        ::usleep(1000);
    process.signal(SIGINT);
    const CtlResult result = process.finish();
    EXPECT_EQ(result.status, 130);
    EXPECT_THAT(lineOf("entry points", result.out), StartsWith("ok\t"));
    EXPECT_THAT(result.out, Not(HasSubstr("FAULT")));
    EXPECT_THAT(result.err, HasSubstr("interrupted; the other checks were not made"));
    EXPECT_FALSE(files.hasCheck());
}

}  // namespace
}  // namespace QOR::test
