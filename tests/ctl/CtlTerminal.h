/// \file
/// qorctl run by a test on a terminal.
#pragma once

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/CtlProcess.h"

namespace QOR::test {

struct TerminalResult {
    int status;
    std::string out;  ///< both streams, lines end with CR LF
};

/// Runs qorctl on a terminal of 10 lines. \param variables "NAME=VALUE" of its environment \param answer what is typed
/// when it asks
inline TerminalResult runOnTerminal(Words command, unsigned short columns, Words variables,
                                    std::string_view answer = {}) {
    ::winsize size{};
    size.ws_col = columns;
    size.ws_row = 10;
    command.insert(command.begin(), ctlProgram());
    std::vector<char*> arguments;
    for (std::string& word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    int terminal = -1;
    const pid_t child = ::forkpty(&terminal, nullptr, nullptr, &size);
    if (child == 0) {
        for (const char* const variable : {"COLUMNS", "NO_COLOR", "PAGER", "QOR_PAGER", "TERM", "TZ"})
            ::unsetenv(variable);
        for (std::string& variable : variables)
            ::putenv(variable.data());
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }
    std::string out;
    char block[4096];
    for (ssize_t got = 0; (got = ::read(terminal, block, sizeof block)) > 0;) {
        out.append(block, static_cast<std::size_t>(got));
        if (!out.ends_with("[y/N] ")) continue;
        EXPECT_EQ(::write(terminal, answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(terminal);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out};
}

}  // namespace QOR::test
