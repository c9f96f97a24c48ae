#include "QORCommon/QORStandardStreams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace QOR {
namespace {

/// A pipe that nobody reads: whoever has seen enough misses nothing.
bool isPipeWithoutReader() noexcept {
    pollfd output{STDOUT_FILENO, 0, 0};
    return ::poll(&output, 1, 0) > 0 && (output.revents & POLLERR) != 0;
}

}  // namespace

void holdStandardStreams() noexcept {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF) continue;
        // The lowest one that is free is this one; it is opened for what it is not for.
        static_cast<void>(::open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY));
    }
}

bool endStandardOutput(const char* program) noexcept {
    int error = 0;
    std::cout.flush();
    if (std::fflush(stdout) != 0) error = errno;
    const bool isWhole = error == 0 && std::ferror(stdout) == 0 && !std::cout.bad();
    if (isWhole || error == EPIPE || isPipeWithoutReader()) return true;
    std::fprintf(stderr, "%s: cannot write the output%s%s\n", program, error == 0 ? "" : ": ",
                 error == 0 ? "" : std::strerror(error));
    return false;
}

}  // namespace QOR
