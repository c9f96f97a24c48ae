/// \file
/// An agent's client that is another user. Needs root, who alone can be several users.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include "support/AgentProcess.h"
#include "support/HttpClient.h"

namespace QOR::test {

/// What a process of another user gets told: `ask` runs in a child that has given up its rights.
inline std::string asStranger(const AgentProcess& agent, const std::function<std::string(HttpClient&)>& ask) {
    constexpr uid_t nobody = 65534;
    // The folder is the agent's user's own.
    std::filesystem::permissions(agent.directory(), std::filesystem::perms(0755));
    int ends[2];
    if (::pipe(ends) != 0) throw std::runtime_error("cannot make a pipe");
    const pid_t child = ::fork();
    if (child == 0) {
        std::string answer;
        try {
            if (::setresuid(nobody, nobody, nobody) != 0) throw std::runtime_error("cannot change the user");
            HttpClient client(agent.socketPath());
            answer = ask(client);
        } catch (const std::exception& exception) {
            answer = exception.what();
        }
        const ssize_t written = ::write(ends[1], answer.data(), answer.size());
        ::_exit(written == static_cast<ssize_t>(answer.size()) ? 0 : 1);
    }
    ::close(ends[1]);
    std::string answer;
    char bytes[4096];
    for (ssize_t size = 0; (size = ::read(ends[0], bytes, sizeof bytes)) > 0;) {
        answer.append(bytes, static_cast<std::size_t>(size));
    }
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return answer;
}

}  // namespace QOR::test
