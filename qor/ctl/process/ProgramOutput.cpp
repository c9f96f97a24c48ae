#include "process/ProgramOutput.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace QOR {
namespace {

constexpr std::size_t mostText = std::size_t{64} << 10;

std::string readBoth(int descriptor) {
    std::string text;
    std::array<char, 4096> block{};
    for (;;) {
        const ssize_t size = ::read(descriptor, block.data(), block.size());
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) return text;
        if (text.size() < mostText) text.append(block.data(), static_cast<std::size_t>(size));
    }
}

}  // namespace

ProgramOutput runProgram(const std::vector<std::string>& command) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) return {};
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));  // as the call has it; it changes none
    arguments.push_back(nullptr);
    pid_t child = -1;
    const int error = ::posix_spawn(&child, arguments.front(), &actions, nullptr, arguments.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);
    ProgramOutput output;
    if (error == 0) {
        output.text = readBoth(ends[0]);
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        if (WIFEXITED(status)) output.status = WEXITSTATUS(status);
    }
    ::close(ends[0]);
    return output;
}

}  // namespace QOR
