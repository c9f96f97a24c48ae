#include "agent/http/LocalListener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/agent/http/LocalListener";
constexpr mode_t socketMode = 0660;
constexpr mode_t lockMode = 0600;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) noexcept : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const noexcept { return m_fd; }
    int release() noexcept { return std::exchange(m_fd, -1); }

private:
    int m_fd;
};

sockaddr_un addressOf(const std::filesystem::path& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.native().size());
    return address;
}

/// True while the lock file at `path` is the one that is open as `fd`: its last owner may have removed it between
/// our opening and our locking it.
bool isStillNamed(const std::filesystem::path& path, int fd) {
    struct stat named {};
    struct stat opened {};
    return ::stat(path.c_str(), &named) == 0 && ::fstat(fd, &opened) == 0 && named.st_ino == opened.st_ino &&
           named.st_dev == opened.st_dev;
}

}  // namespace

LocalListener::LocalListener(const std::filesystem::path& path)
    : m_path(std::filesystem::absolute(path)), m_lockPath(m_path.string() + ".lock") {
    if (m_path.native().size() >= sizeof(sockaddr_un::sun_path)) {
        throw QORException(errFailure,
                           "cannot listen at " + m_path.string() + ": the path is longer than " +
                               std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " characters",
                           sourcePath);
    }
    std::error_code error;
    std::filesystem::create_directories(m_path.parent_path(), error);
    if (error) fail("cannot make the folder", error.value());
    takeLock();
    try {
        clearStaleSocket();
        bindAndListen();
    } catch (...) {
        removeNames();
        if (m_socket >= 0) ::close(m_socket);
        ::close(m_lock);
        throw;
    }
}

LocalListener::~LocalListener() {
    removeNames();
    if (m_socket >= 0) ::close(m_socket);
    if (m_lock >= 0) ::close(m_lock);
}

int LocalListener::releaseSocket() noexcept {
    return std::exchange(m_socket, -1);
}

void LocalListener::fail(const char* what, int error) const {
    throw QORException(errFailure, "cannot listen at " + m_path.string() + ": " + what + ": " + std::strerror(error),
                       sourcePath);
}

void LocalListener::takeLock() {
    for (;;) {
        FileDescriptor lock(::open(m_lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lockMode));
        if (lock.get() < 0) fail("cannot open its lock file", errno);
        if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) fail("cannot lock its lock file", errno);
            throw QORException(errFailure, "cannot listen at " + m_path.string() + ": another agent is using it",
                               sourcePath);
        }
        if (!isStillNamed(m_lockPath, lock.get())) continue;
        m_lock = lock.release();
        return;
    }
}

void LocalListener::clearStaleSocket() const {
    struct stat found {};
    if (::lstat(m_path.c_str(), &found) != 0) {
        if (errno != ENOENT) fail("cannot look at it", errno);
        return;
    }
    if (!S_ISSOCK(found.st_mode)) {
        throw QORException(errFailure, "cannot listen at " + m_path.string() + ": it exists and is no socket",
                           sourcePath);
    }
    const FileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressOf(m_path);
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED) {
        throw QORException(errFailure, "cannot listen at " + m_path.string() + ": another program is using it",
                           sourcePath);
    }
    if (::unlink(m_path.c_str()) != 0 && errno != ENOENT) fail("cannot remove the socket left behind", errno);
}

void LocalListener::bindAndListen() {
    FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) fail("cannot make a socket", errno);
    // The name takes the mode that the socket has, less the umask: never more than 0660, from the first moment on.
    if (::fchmod(socket.get(), socketMode) != 0) fail("cannot set the mode", errno);
    const sockaddr_un address = addressOf(m_path);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("cannot bind", errno);
    }
    struct stat made {};
    if (::lstat(m_path.c_str(), &made) == 0) {
        m_device = made.st_dev;
        m_inode = made.st_ino;
    }
    if (::chmod(m_path.c_str(), socketMode) != 0) fail("cannot set the mode", errno);
    if (::listen(socket.get(), SOMAXCONN) != 0) fail("cannot listen", errno);
    m_socket = socket.release();
}

void LocalListener::removeNames() noexcept {
    struct stat found {};
    if (m_inode != 0 && ::lstat(m_path.c_str(), &found) == 0 && found.st_ino == m_inode && found.st_dev == m_device) {
        ::unlink(m_path.c_str());
    }
    m_inode = 0;
    if (m_lock >= 0 && isStillNamed(m_lockPath, m_lock)) ::unlink(m_lockPath.c_str());
}

}  // namespace QOR
