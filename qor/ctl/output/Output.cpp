#include "output/Output.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "process/CtlError.h"

namespace QOR {

void Output::flush() {
    if (m_buffer.empty()) return;
    const std::string block = std::move(m_buffer);
    m_buffer.clear();
    write(block);
    m_buffer.reserve(blockSize + blockSize / 8);
}

void FileOutput::write(std::string_view block) {
    while (!block.empty()) {
        const ssize_t written = ::write(m_descriptor, block.data(), block.size());
        if (written >= 0) {
            block.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            // Whoever shares the terminal or pipe may have made it non-blocking.
            pollfd ready{m_descriptor, POLLOUT, 0};
            ::poll(&ready, 1, -1);
        } else if (errno == EPIPE) {
            throw BrokenPipe();
        } else if (errno != EINTR) {
            throw CtlError(CtlExit::AnsweredError,
                           "cannot write the output: " + std::generic_category().message(errno));
        }
    }
}

}  // namespace QOR
