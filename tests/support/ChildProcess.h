/// \file
/// A program run by a test: started with its output captured, ended by its process id.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace QOR::test {

/// The folder in which the build puts its programs, this test among them.
inline std::filesystem::path programDirectory() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

/// A running child. Standard output and standard error come together, in order.
class ChildProcess {
public:
    using Clock = std::chrono::steady_clock;
    /// What is built or imported under a sanitizer on a busy machine takes minutes; a hang must still end.
    static constexpr auto patience = std::chrono::minutes(5);

    explicit ChildProcess(const std::vector<std::string>& command) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("cannot make a pipe");
        m_output = ends[0];
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        std::vector<char*> arguments;
        for (const std::string& argument : command)
            arguments.push_back(const_cast<char*>(argument.c_str()));
        arguments.push_back(nullptr);
        const int error = ::posix_spawnp(&m_pid, arguments.front(), &actions, nullptr, arguments.data(), environ);
        ::posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        if (error != 0) {
            ::close(m_output);
            throw std::runtime_error("cannot start " + command.front() + ": " + std::strerror(error));
        }
    }

    /// Kills a child that still runs.
    ~ChildProcess() {
        if (m_pid > 0) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        ::close(m_output);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const noexcept { return m_pid; }
    void signal(int number) const {
        if (m_pid > 0) ::kill(m_pid, number);
    }

    /// Reads output until a line begins with `prefix`. \returns false when the child ended its output without it
    bool waitForLine(const std::string& prefix) {
        const auto deadline = Clock::now() + patience;
        while (!hasLine(prefix)) {
            if (!readSome(deadline)) return hasLine(prefix);
        }
        return true;
    }

    /// Waits for the end. \returns the exit status, or minus the number of the signal that killed it
    int wait() {
        const auto deadline = Clock::now() + patience;
        while (readSome(deadline)) {
        }
        for (;;) {
            int status = 0;
            if (::waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            }
            if (Clock::now() > deadline) throw std::runtime_error("a child process does not end");
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    bool isRunning() {
        if (m_pid <= 0) return false;
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
    }

    /// What it has written so far, as far as it was read.
    const std::string& output() const noexcept { return m_text; }

private:
    bool hasLine(const std::string& prefix) const {
        return m_text.rfind(prefix, 0) == 0 || m_text.find("\n" + prefix) != std::string::npos;
    }

    /// False at the end of the output.
    bool readSome(Clock::time_point deadline) {
        pollfd waiting{m_output, POLLIN, 0};
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int ready = left <= 0 ? 0 : ::poll(&waiting, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) return true;
        if (ready <= 0) throw std::runtime_error("a child process says nothing more: " + m_text);
        char buffer[4096];
        const ssize_t size = ::read(m_output, buffer, sizeof buffer);
        if (size <= 0) return false;
        m_text.append(buffer, static_cast<std::size_t>(size));
        return true;
    }

    pid_t m_pid = -1;
    int m_output = -1;
    std::string m_text;
};

/// Runs a program to its end. \returns exit status and output
inline std::pair<int, std::string> runProgram(const std::vector<std::string>& command) {
    ChildProcess child(command);
    const int status = child.wait();
    return {status, child.output()};
}

}  // namespace QOR::test
