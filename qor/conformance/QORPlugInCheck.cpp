#include "conformance/QORPlugInCheck.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORPrivateFolder.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORUtf8.h"
#include "conformance/CheckReport.h"
#include "conformance/FileChecks.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;
using Level = QORPlugInFinding::Level;

/// Of processes that come to a bad end, one after the other.
constexpr int mostProcesses = 100;
constexpr std::size_t shownOfErrors = 300;
constexpr const char* hangs = "hangs";
constexpr const char* interrupted = "was interrupted";

[[noreturn]] void refuse(const char* what, int error) {
    throw QORException(errFailure, std::string(what) + ": " + std::strerror(error), QOR_SOURCE_PATH, __LINE__);
}

/// A process that uses the plug-in, in a group of its own: what the plug-in started ends with it.
class Process {
public:
    /// \param errors the file that standard output and standard error go to
    Process(const std::vector<std::string>& arguments, const fs::path& errors) {
        std::array<int, 2> ends{};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) refuse("cannot make a pipe", errno);
        m_report = QORFileDescriptor(ends[0]);
        const QORFileDescriptor writes(ends[1]);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, writes.get(), reportDescriptor);
        std::vector<char*> words;
        std::string program = fs::read_symlink("/proc/self/exe").string();
        words.push_back(program.data());
        for (const std::string& argument : arguments)
            words.push_back(const_cast<char*>(argument.c_str()));
        words.push_back(nullptr);
        posix_spawnattr_t attributes;
        ::posix_spawnattr_init(&attributes);
        ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
        ::posix_spawnattr_setpgroup(&attributes, 0);
        const int error = ::posix_spawn(&m_pid, program.c_str(), &actions, &attributes, words.data(), environ);
        ::posix_spawnattr_destroy(&attributes);
        ::posix_spawn_file_actions_destroy(&actions);
        if (error != 0) refuse("cannot start a process", error);
    }
    ~Process() {
        if (m_pid > 0) endGroup();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Reads what it reports until it ends. \returns how it ended, in words; empty where well
    std::string wait(CheckReader& reader, const QORPlugInCheckOptions& options) {
        for (;;) {
            std::array<pollfd, 2> ready{{{options.interrupt, POLLIN, 0}, {m_report.get(), POLLIN, 0}}};
            const int count = ::poll(ready.data(), ready.size(), static_cast<int>(options.patience.count()));
            if (count < 0 && errno == EINTR) continue;
            if (count == 0) return hangs;
            if (ready[0].revents != 0) return interrupted;
            std::array<char, 4096> block{};
            const ssize_t size = ::read(m_report.get(), block.data(), block.size());
            if (size <= 0) break;
            reader.take({block.data(), static_cast<std::size_t>(size)});
        }
        return waitForEnd(options);
    }

private:
    /// \returns the status that the process ended with
    int endGroup() {
        ::kill(-m_pid, SIGKILL);  // before the process is waited for: until then the number is its own
        int status = 0;
        while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
        return status;
    }

    std::string waitForEnd(const QORPlugInCheckOptions& options) {
        constexpr auto pause = std::chrono::milliseconds(5);
        for (auto left = options.patience; left.count() > 0; left -= pause) {
            siginfo_t ended{};
            if (::waitid(P_PID, static_cast<id_t>(m_pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                ended.si_pid == m_pid) {
                const int status = endGroup();
                if (WIFSIGNALED(status)) return std::string("crashes (") + ::strsignal(WTERMSIG(status)) + ")";
                return status == 0 ? "" : "ends the process with status " + std::to_string(WEXITSTATUS(status));
            }
            pollfd ready{options.interrupt, POLLIN, 0};
            if (::poll(&ready, 1, static_cast<int>(pause.count())) > 0) return interrupted;
        }
        return hangs;
    }

    pid_t m_pid = -1;
    QORFileDescriptor m_report;
};

/// The last line of a file; "" where there is none.
std::string lastLine(const fs::path& file) {
    std::ifstream stream(file);
    std::string last;
    for (std::string line; std::getline(stream, line);)
        if (!line.empty()) last = line;
    return toUtf8(last.substr(0, shownOfErrors));
}

QORPlugInFinding badEnd(const CheckReader& reader, const std::string& how, const fs::path& plugIn,
                        const fs::path& errors) {
    QORPlugInFinding finding{reader.running().empty() ? "end" : reader.running(), Level::Fault, how, {}};
    if (!reader.at().empty()) finding.found += " at " + reader.at();
    const std::string last = lastLine(errors);
    if (!last.empty()) finding.found += "; the last line of its output: " + last;
    finding.todo = how == hangs ? "end what takes long, or look at it in a debugger" : "look at it in a debugger";
    const bool isRequest = reader.at().starts_with('{');
    if (isRequest)
        finding.todo += ": gdb --args qorctl request --standalone --plugins " +
                        fs::absolute(plugIn).parent_path().string() + " -, and give it that request";
    return finding;
}

void useInProcesses(const QORPlugInCheckOptions& options, std::vector<QORPlugInFinding>& findings) {
    const QORPrivateFolder folder;
    const fs::path errors = folder.path() / "errors";
    DoneChecks done;
    for (int number = 0; number < mostProcesses; ++number) {
        const fs::path place = folder.path() / std::to_string(number);
        fs::create_directory(place);
        std::vector<std::string> arguments{std::string(plugInCheckQuestion), options.file.string(), place.string(),
                                           options.root.string()};
        const std::vector<std::string> words = wordsOf(done);
        arguments.insert(arguments.end(), words.begin(), words.end());
        CheckReader reader;
        Process process(arguments, errors);
        const std::string how = process.wait(reader, options);
        for (const QORPlugInFinding& finding : reader.findings()) {
            findings.push_back(finding);
            done[finding.check] = finding.level != Level::Fault;
        }
        if (how.empty() || how == interrupted) return;
        findings.push_back(badEnd(reader, how, options.file, errors));
        // What it cannot be loaded for comes again, and so does what its end was.
        const std::string& running = reader.running();
        if (running.empty() || running == "symbols" || running == "loading") return;
        done[running] = false;
    }
}

}  // namespace

std::vector<QORPlugInFinding> checkPlugIn(const QORPlugInCheckOptions& options) {
    std::vector<QORPlugInFinding> findings;
    if (checkFile(options.file, findings)) useInProcesses(options, findings);
    return findings;
}

}  // namespace QOR
