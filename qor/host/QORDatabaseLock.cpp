#include "host/QORDatabaseLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORDBSchema/QORDatabaseFile.h"

namespace QOR {
namespace {

constexpr mode_t lockMode = 0600;

/// One name for the file, whatever way leads to it.
std::filesystem::path fileOf(const std::string& connectionString) {
    const std::string name = QORDatabaseFile(connectionString).path();
    if (name.empty()) return {};
    std::error_code error;
    auto path = std::filesystem::weakly_canonical(name, error);
    return error || !std::filesystem::is_directory(path.parent_path(), error) ? std::filesystem::path() : path;
}

[[noreturn]] void refuse(const std::filesystem::path& database, const std::string& reason) {
    throw QORException(errFailure,
                       "cannot keep records in database " + quoteText(database.string(), 1024) + ": " + reason,
                       QOR_SOURCE_PATH);
}

/// The process that wrote itself into the lock's file.
std::string holderIn(int file) {
    std::array<char, 24> text{};
    const ssize_t size = ::pread(file, text.data(), text.size() - 1, 0);
    return size > 0 ? "another agent, process " + std::string(text.data(), std::strcspn(text.data(), "\n"))
                    : "another agent";
}

}  // namespace

QORDatabaseLock::QORDatabaseLock(const std::string& connectionString) {
    const std::filesystem::path database = fileOf(connectionString);
    if (database.empty()) return;
    const std::string name = database.string() + ".lock";
    m_file = ::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lockMode);
    if (m_file < 0) refuse(database, "its lock " + name + ": " + std::strerror(errno));
    if (::flock(m_file, LOCK_EX | LOCK_NB) != 0) {
        const std::string reason = errno == EWOULDBLOCK
                                       ? holderIn(m_file) + ", has it open; --read-only may be used beside it"
                                       : std::string("its lock ") + name + ": " + std::strerror(errno);
        ::close(m_file);
        refuse(database, reason);
    }
    const std::string self = std::to_string(::getpid()) + "\n";
    if (::ftruncate(m_file, 0) == 0) static_cast<void>(::pwrite(m_file, self.data(), self.size(), 0) < 0);
}

QORDatabaseLock::~QORDatabaseLock() {
    if (m_file >= 0) ::close(m_file);
}

}  // namespace QOR
