#include "output/Pager.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "QORCommon/QORText.h"
#include "process/Interrupt.h"
#include "process/TellPerson.h"

namespace QOR {
namespace {

/// Ends when all fits on the screen, shows colours, leaves what it showed, does not wrap tables.
constexpr const char* usualOptions = "FRSX";

bool isOnPath(std::string_view program) {
    const char* const path = std::getenv("PATH");
    std::string_view left = path == nullptr ? "/usr/bin:/bin" : path;
    while (!left.empty()) {
        const std::string_view folder = left.substr(0, left.find(':'));
        left.remove_prefix(std::min(folder.size() + 1, left.size()));
        std::string file(folder);
        file.append("/").append(program);
        if (::access(file.c_str(), X_OK) == 0) return true;
    }
    return false;
}

// What a signal handler may touch.
std::atomic<pid_t> pager{-1};
std::atomic<int> terminal{-1};  ///< what standard output was
std::atomic<bool> failed{false};
static_assert(std::atomic<pid_t>::is_always_lock_free);

/// The pager has read all when nobody holds the other end of its pipe. \returns how it ended
int waitForPager() {
    ::dup2(terminal, STDOUT_FILENO);
    ::close(terminal);
    int status = 0;
    while (::waitpid(pager, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

/// Whether a command line of the shell begins with a program that can be run; what begins with something else is for
/// the shell to find out.
bool begins(std::string_view command) {
    const std::string word(command.substr(0, command.find_first_of(" \t")));
    if (word.find_first_of("$`'\"\\;&|<>(){}~*?[=") != std::string::npos) return true;
    return word.find('/') == std::string::npos ? isOnPath(word) : ::access(word.c_str(), X_OK) == 0;
}

/// With the option that shows colours, however else the person wants to have it.
void chooseLessOptions() {
    const char* const chosen = std::getenv("LESS");
    if (chosen == nullptr) {
        ::setenv("LESS", usualOptions, 0);
    } else if (std::string_view(chosen).find_first_of("rR") == std::string_view::npos) {
        ::setenv("LESS", (std::string(chosen) + " -R").c_str(), 1);
    }
}

/// The pager gets the same signal from the terminal, and may have a use of its own for it.
extern "C" void endWithPager(int number) {
    waitForPager();
    ::_exit(128 + number);
}

}  // namespace

std::optional<std::string> pagerCommand() {
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) return std::nullopt;
    for (const char* const variable : {"QOR_PAGER", "PAGER"}) {
        const char* const command = std::getenv(variable);
        if (command == nullptr) continue;
        if (*command == '\0' || std::string_view(command) == "cat") return std::nullopt;
        if (begins(command)) return std::string(command);
        static bool isTold = false;
        if (!std::exchange(isTold, true))
            tellPerson(std::string(variable) + ": " + quoteText(command) + " cannot be run, so there are no pages");
        return std::nullopt;
    }
    return isOnPath("less") ? std::optional<std::string>("less") : std::nullopt;
}

bool hasPagerFailed() noexcept {
    return failed;
}

Pager::Pager(const std::string& command) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return;
    chooseLessOptions();
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
    std::string shell = "/bin/sh";
    std::string option = "-c";
    std::string text = "exec " + command;
    std::array<char*, 4> arguments{shell.data(), option.data(), text.data(), nullptr};
    pid_t child = -1;
    const int error = ::posix_spawn(&child, shell.c_str(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ends[0]);
    if (error == 0) {
        pager = child;
        terminal = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        ::dup2(ends[1], STDOUT_FILENO);
        for (const int number : {SIGINT, SIGTERM})
            ::signal(number, endWithPager);
        m_runs = true;
    }
    ::close(ends[1]);
}

Pager::~Pager() {
    if (!m_runs) return;
    const int status = waitForPager();
    const bool isBroken = WIFEXITED(status) ? WEXITSTATUS(status) != 0 : WTERMSIG(status) != SIGINT;
    if (isBroken) {
        failed = true;
        tellPerson("the pager has failed; --no-pager shows the rows without it");
    }
    endOnInterrupt();
    ::signal(SIGTERM, SIG_DFL);
}

void PagedOutput::write(std::string_view block) {
    if (m_command) m_pager.emplace(*std::exchange(m_command, std::nullopt));
    m_file << block;
    m_file.flush();
}

}  // namespace QOR
