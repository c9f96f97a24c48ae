/// \file
/// A listening unix stream socket and the name it has in the file system.
#pragma once

#include <sys/types.h>

#include <filesystem>

namespace QOR {

/// Listens at a path. Who may connect is decided by the socket's mode, 0660, whatever the umask is. A lock file
/// beside the socket, held as long as the object lives, tells a socket in use from one that a dead process left
/// behind: the latter is replaced, the former never. A missing parent folder is made, with mode 0755. Both names are
/// removed at the end. Not thread-safe.
class LocalListener {
public:
    /// \throws QORException errFailure naming the path and the reason
    explicit LocalListener(const std::filesystem::path& path);
    ~LocalListener();
    LocalListener(const LocalListener&) = delete;
    LocalListener& operator=(const LocalListener&) = delete;

    const std::filesystem::path& path() const noexcept { return m_path; }
    /// Hands the socket over; the names stay with the object.
    int releaseSocket() noexcept;
    /// Removes the names now, unless somebody else has put another socket there.
    void removeNames() noexcept;

private:
    void takeLock();
    void clearStaleSocket() const;
    void bindAndListen();
    [[noreturn]] void fail(const char* what, int error) const;

    std::filesystem::path m_path;
    std::filesystem::path m_lockPath;
    int m_lock = -1;
    int m_socket = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

}  // namespace QOR
