/// \file
/// qorctl run by a test, its three streams apart.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// A command and its arguments.
using Words = std::vector<std::string>;

struct CtlResult {
    int status = -1;  ///< the exit status, or minus the number of the signal that ended it
    std::string out{};
    std::string err{};
};

/// A running program with pipes at standard input and standard output; standard error goes to a file.
class CtlProcess {
public:
    explicit CtlProcess(const Words& command) {
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
        m_in = in[1];
        m_out = out[0];
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errorFile().c_str(), O_WRONLY | O_CREAT, 0600);
        std::vector<char*> arguments;
        for (const std::string& argument : command)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        const int error = ::posix_spawnp(&m_pid, arguments.front(), &actions, nullptr, arguments.data(), environ);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        if (error != 0) throw std::runtime_error("cannot start " + command.front() + ": " + std::strerror(error));
    }
    ~CtlProcess() {
        closeInput();
        ::close(m_out);
        if (m_pid <= 0) return;
        ::kill(m_pid, SIGKILL);
        ::waitpid(m_pid, nullptr, 0);
    }
    CtlProcess(const CtlProcess&) = delete;
    CtlProcess& operator=(const CtlProcess&) = delete;

    /// Writes to its standard input while it takes it.
    void write(std::string_view text) {
        while (!text.empty()) {
            drain(0);
            pollfd ready{m_in, POLLOUT, 0};
            if (::poll(&ready, 1, 10) == 0) continue;
            const ssize_t size = ::write(m_in, text.data(), std::min<std::size_t>(text.size(), 4096));
            if (size < 0) return;
            text.remove_prefix(static_cast<std::size_t>(size));
        }
    }
    void closeInput() {
        if (m_in >= 0) ::close(std::exchange(m_in, -1));
    }
    /// The next line of its output, waited for; empty at the end.
    std::string readLine() {
        std::size_t end = 0;
        while ((end = m_text.find('\n')) == std::string::npos)
            if (!drain(patience)) return {};
        std::string line = m_text.substr(0, end);
        m_text.erase(0, end + 1);
        return line;
    }
    /// Whether a line of its output is there, waited for so long.
    bool hasLineWithin(std::chrono::milliseconds time) {
        const auto until = std::chrono::steady_clock::now() + time;
        while (m_text.find('\n') == std::string::npos) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
            pollfd waiting{m_out, POLLIN, 0};
            if (::poll(&waiting, 1, static_cast<int>(std::max(left, std::chrono::milliseconds(0)).count())) == 0 ||
                !drain(0))
                return false;
        }
        return true;
    }
    bool isRunning() const {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
    }
    void signal(int number) const { ::kill(m_pid, number); }

    CtlResult finish() {
        closeInput();
        while (drain(patience)) {
        }
        int status = 0;
        ::waitpid(std::exchange(m_pid, -1), &status, 0);
        std::ifstream file(errorFile());
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), m_text,
                std::string(std::istreambuf_iterator<char>(file), {})};
    }

private:
    static constexpr int patience = 240'000;  ///< ms; what is not optimised is slow, a hang must still end

    std::string errorFile() const { return (m_directory / "stderr").string(); }

    /// Reads what is there. False at the end, and without waiting when there is nothing.
    bool drain(int milliseconds) {
        pollfd waiting{m_out, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, milliseconds);
        if (ready <= 0 && milliseconds > 0) throw std::runtime_error("qorctl says nothing more: " + m_text);
        if (ready <= 0) return false;
        char block[65536];
        const ssize_t size = ::read(m_out, block, sizeof block);
        if (size > 0) m_text.append(block, static_cast<std::size_t>(size));
        return size > 0;
    }

    TemporaryDirectory m_directory;
    pid_t m_pid = -1;
    int m_in = -1;
    int m_out = -1;
    std::string m_text;
};

inline std::string ctlProgram() {
    return (programDirectory() / "qorctl").string();
}

/// Runs qorctl to its end.
inline CtlResult runCtl(Words arguments, std::string_view input = {}) {
    ::signal(SIGPIPE, SIG_IGN);
    arguments.insert(arguments.begin(), ctlProgram());
    CtlProcess process(arguments);
    process.write(input);
    return process.finish();
}

}  // namespace QOR::test
