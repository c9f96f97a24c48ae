#include "process/LineInput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "process/CtlError.h"

namespace QOR {
namespace {

constexpr std::size_t blockSize = 256 * 1024;

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

}  // namespace

LineInput::Got LineInput::next() {
    m_cut = false;
    std::size_t scanned = m_at;
    for (;;) {
        const std::size_t end = m_buffer.find('\n', scanned);
        if (end != std::string::npos) {
            takeLine(end);
            m_at = end + 1;
            return Got::Line;
        }
        if (m_buffer.size() - m_at > m_maxBytes) {
            // The rest of an overlong line is passed over as it comes.
            m_buffer.resize(m_at + m_maxBytes);
            m_cut = true;
        }
        if (m_at > 0) {
            m_buffer.erase(0, m_at);
            m_at = 0;
        }
        scanned = m_buffer.size();
        const Filled filled = m_end ? Filled::End : fill();
        if (filled == Filled::Stopped) return Got::Stopped;
        if (filled == Filled::More) continue;
        if (m_buffer.empty()) return Got::End;
        takeLine(m_buffer.size());
        m_at = m_buffer.size();
        return Got::Line;
    }
}

void LineInput::takeLine(std::size_t end) {
    m_line = std::string_view(m_buffer).substr(m_at, end - m_at);
    if (m_line.size() > m_maxBytes) m_cut = true;
    if (m_cut) m_line = m_line.substr(0, m_maxBytes);
    if (m_line.ends_with('\r')) m_line.remove_suffix(1);
}

LineInput::Filled LineInput::fill() {
    const std::size_t size = m_buffer.size();
    m_buffer.resize(size + blockSize);
    ssize_t got = -1;
    for (;;) {
        pollfd waiting[] = {{m_descriptor, POLLIN, 0}, {m_stop, POLLIN, 0}};
        const int ready = ::poll(waiting, m_stop < 0 ? 1 : 2, -1);
        if (ready < 0 && errno == EINTR) continue;
        if (waiting[1].revents != 0) {
            m_buffer.resize(size);
            return Filled::Stopped;
        }
        got = ::read(m_descriptor, m_buffer.data() + size, blockSize);
        if (got >= 0 || (errno != EINTR && errno != EAGAIN)) break;
    }
    m_buffer.resize(size + static_cast<std::size_t>(got > 0 ? got : 0));
    if (got < 0) throw CtlError::usage("cannot read the input: " + reasonOf(errno));
    m_end = got == 0;
    return m_end ? Filled::End : Filled::More;
}

InputFile::InputFile(const std::string& path)
    : m_name(path.empty() || path == "-" ? "standard input" : path), m_descriptor(STDIN_FILENO), m_owned(false) {
    if (path.empty() || path == "-") return;
    m_descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_descriptor < 0) throw CtlError::usage("cannot open " + path + ": " + reasonOf(errno));
    m_owned = true;
    struct stat status {};
    if (::fstat(m_descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
        ::close(m_descriptor);
        throw CtlError::usage("cannot read " + path + ": " + reasonOf(EISDIR));
    }
}

InputFile::~InputFile() {
    if (m_owned) ::close(m_descriptor);
}

std::optional<std::string> InputFile::beginning(std::size_t bytes) const {
    struct stat status {};
    const off_t at = ::lseek(m_descriptor, 0, SEEK_CUR);
    if (at < 0 || ::fstat(m_descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    std::string text(bytes, '\0');
    const ssize_t got = ::pread(m_descriptor, text.data(), bytes, at);
    if (got < 0) throw CtlError::usage("cannot read " + m_name + ": " + reasonOf(errno));
    text.resize(static_cast<std::size_t>(got));
    return text;
}

std::uint64_t InputFile::bytesLeft() const noexcept {
    struct stat found {};
    if (::fstat(m_descriptor, &found) != 0 || !S_ISREG(found.st_mode)) return 0;
    const off_t at = ::lseek(m_descriptor, 0, SEEK_CUR);
    return at >= 0 && at < found.st_size ? static_cast<std::uint64_t>(found.st_size - at) : 0;
}

std::string InputFile::readAll(std::size_t maxBytes) const {
    std::string text;
    for (;;) {
        const std::size_t size = text.size();
        text.resize(size + blockSize);
        const ssize_t got = ::read(m_descriptor, text.data() + size, blockSize);
        const int error = errno;
        text.resize(size + static_cast<std::size_t>(got > 0 ? got : 0));
        if (got == 0) return text;
        if (got < 0 && error != EINTR) throw CtlError::usage("cannot read " + m_name + ": " + reasonOf(error));
        if (text.size() > maxBytes)
            throw CtlError::usage(m_name + " is larger than " + std::to_string(maxBytes) + " bytes");
    }
}

}  // namespace QOR
