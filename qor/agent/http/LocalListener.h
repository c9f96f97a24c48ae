/// \file
/// A listening unix stream socket and the name it has in the file system.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

#include "QORCommon/QORFiles.h"

namespace QOR {

/// Listens at a path. Who may connect is decided by the socket's mode, 0660, and its group, whatever the umask is. A
/// lock file beside the socket, held as long as the object lives, tells a socket in use from one that a dead process
/// left behind: the latter is replaced, the former never. Missing folders are made, with mode 0755. Both names are
/// removed at the end. Another user's links and files are never taken for the agent's own, see openOwnFile().
/// Not thread-safe.
class LocalListener {
public:
    /// \param group the socket's, by name or number; empty: the process's
    /// \throws QORException errFailure naming the path and the reason
    explicit LocalListener(const std::filesystem::path& path, const std::string& group = {});
    ~LocalListener();
    LocalListener(const LocalListener&) = delete;
    LocalListener& operator=(const LocalListener&) = delete;

    const std::filesystem::path& path() const noexcept { return m_path; }
    /// Hands the socket over; the names stay with the object.
    int releaseSocket() noexcept;
    /// Removes the names now, unless somebody else has put another socket there.
    void removeNames() noexcept;

private:
    QORFileDescriptor openLock() const;
    void takeLock();
    void clearStaleSocket() const;
    void bindAndListen();
    void admit(const std::string& group) const;
    [[noreturn]] void fail(const char* what, int error) const;

    std::filesystem::path m_path;
    std::filesystem::path m_lockPath;
    QORFileDescriptor m_lock;
    int m_socket = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

}  // namespace QOR
