#include "agent/http/LocalListener.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

constexpr mode_t socketMode = 0660;
constexpr mode_t lockMode = 0600;

constexpr mode_t folderMode = 0755;

/// Makes what is missing of a folder. Those who may use the socket must be able to pass it, whatever the umask is.
void makeFolders(const std::filesystem::path& folder) {
    if (folder.empty() || std::filesystem::is_directory(folder)) return;
    makeFolders(folder.parent_path());
    if (::mkdir(folder.c_str(), folderMode) == 0) {
        std::filesystem::permissions(folder, std::filesystem::perms(folderMode));
    } else if (errno != EEXIST || !std::filesystem::is_directory(folder)) {
        throw std::filesystem::filesystem_error("mkdir", folder, std::error_code(errno, std::generic_category()));
    }
}

/// The number of a group that is given by name or by number. \returns false when there is none of that name
bool findGroup(const std::string& name, gid_t& number) {
    std::vector<char> buffer(std::size_t{64} << 10);
    group entry{};
    group* found = nullptr;
    if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        number = found->gr_gid;
        return true;
    }
    constexpr gid_t none = static_cast<gid_t>(-1);
    const char* const end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data(), end, number);
    return !name.empty() && error == std::errc() && rest == end && number != none;
}

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

LocalListener::LocalListener(const std::filesystem::path& path, const std::string& group)
    : m_path(std::filesystem::absolute(path)), m_lockPath(m_path.string() + ".lock") {
    if (m_path.native().size() >= sizeof(sockaddr_un::sun_path)) {
        throw QORException(errFailure,
                           "cannot listen at " + m_path.string() + ": the path is longer than " +
                               std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " characters",
                           QOR_SOURCE_PATH);
    }
    try {
        makeFolders(m_path.parent_path());
    } catch (const std::filesystem::filesystem_error& error) {
        fail("cannot make the folder", error.code().value());
    }
    takeLock();
    try {
        clearStaleSocket();
        bindAndListen();
        admit(group);
        if (::listen(m_socket, SOMAXCONN) != 0) fail("cannot listen", errno);
    } catch (...) {
        removeNames();
        if (m_socket >= 0) ::close(m_socket);
        throw;
    }
}

LocalListener::~LocalListener() {
    removeNames();
    if (m_socket >= 0) ::close(m_socket);
}

int LocalListener::releaseSocket() noexcept {
    return std::exchange(m_socket, -1);
}

void LocalListener::fail(const char* what, int error) const {
    throw QORException(errFailure, "cannot listen at " + m_path.string() + ": " + what + ": " + std::strerror(error),
                       QOR_SOURCE_PATH);
}

QORFileDescriptor LocalListener::openLock() const {
    try {
        return openOwnFile(m_lockPath.string(), O_RDWR | O_CREAT, lockMode);
    } catch (const QORException& exception) {
        throw QORException(errFailure, "cannot listen at " + m_path.string() + ": " + exception.message(),
                           QOR_SOURCE_PATH);
    }
}

void LocalListener::takeLock() {
    for (;;) {
        QORFileDescriptor lock = openLock();
        if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) fail("cannot lock its lock file", errno);
            throw QORException(errFailure, "cannot listen at " + m_path.string() + ": another agent is using it",
                               QOR_SOURCE_PATH);
        }
        if (!isStillNamed(m_lockPath, lock.get())) continue;
        m_lock = std::move(lock);
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
                           QOR_SOURCE_PATH);
    }
    const QORFileDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = addressOf(m_path);
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
        errno != ECONNREFUSED) {
        throw QORException(errFailure, "cannot listen at " + m_path.string() + ": another program is using it",
                           QOR_SOURCE_PATH);
    }
    if (::unlink(m_path.c_str()) != 0 && errno != ENOENT) fail("cannot remove the socket left behind", errno);
}

void LocalListener::bindAndListen() {
    QORFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
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
    m_socket = socket.release();
}

/// Nobody can connect before this has succeeded: the socket does not listen yet.
void LocalListener::admit(const std::string& group) const {
    // The name could mean another file by now, in a folder that others may write to.
    const QORFileDescriptor socket(::open(m_path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat found {};
    if (socket.get() < 0 || ::fstat(socket.get(), &found) != 0) fail("cannot look at it", errno);
    if (found.st_ino != m_inode || found.st_dev != m_device) fail("it was replaced at once", EEXIST);
    const std::string name = "/proc/self/fd/" + std::to_string(socket.get());
    gid_t number = 0;
    if (!group.empty() && !findGroup(group, number)) {
        throw QORException(errFailure,
                           "cannot listen at " + m_path.string() + ": there is no group " + quoteText(group),
                           QOR_SOURCE_PATH);
    }
    if (!group.empty() && ::chown(name.c_str(), static_cast<uid_t>(-1), number) != 0) {
        fail(("cannot give it to group " + group).c_str(), errno);
    }
    if (::chmod(name.c_str(), socketMode) != 0) fail("cannot set the mode", errno);
}

void LocalListener::removeNames() noexcept {
    struct stat found {};
    if (m_inode != 0 && ::lstat(m_path.c_str(), &found) == 0 && found.st_ino == m_inode && found.st_dev == m_device) {
        ::unlink(m_path.c_str());
    }
    m_inode = 0;
    if (m_lock.get() >= 0 && isStillNamed(m_lockPath, m_lock.get())) ::unlink(m_lockPath.c_str());
}

}  // namespace QOR
