#include "QORCommon/QORFiles.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// As many as the system follows.
constexpr unsigned mostLinks = 40;

bool isTrusted(uid_t user) {
    return user == 0 || user == ::geteuid();
}

bool othersMayWrite(const struct stat& folder) {
    return !isTrusted(folder.st_uid) || (folder.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

/// Walks a path step by step, each step relative to the folder that the one before has led to.
class Walk {
public:
    explicit Walk(const std::string& path) : m_path(path), m_rest(path) { begin(m_rest.starts_with('/') ? "/" : "."); }

    QORFileDescriptor open(int flags, mode_t mode) {
        // First a look: opening somebody's pipe would wait for him. Then what was opened counts, and it is cut only
        // when it has turned out to be the right one.
        check();
        if (m_isMissing) fail(ENOENT);
        const int wanted = m_magic ? flags : (flags & ~O_TRUNC) | O_NOFOLLOW;
        QORFileDescriptor file(::openat(m_folder.get(), m_name.c_str(), wanted, mode));
        struct stat found {};
        if (file.get() < 0 || ::fstat(file.get(), &found) != 0) fail(errno);
        checkFile(found);
        const bool cuts = (flags & O_TRUNC) != 0 && S_ISREG(found.st_mode);
        if (cuts && ::ftruncate(file.get(), 0) != 0) fail(errno);
        return file;
    }

    bool check() {
        descend();
        if (m_isMissing) return false;
        struct stat found {};
        if (::fstatat(m_folder.get(), m_name.c_str(), &found, m_magic ? 0 : AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) return false;
            fail(errno);
        }
        checkFile(found);
        return true;
    }

    std::optional<mode_t> narrow() {
        if (!check()) return std::nullopt;
        // A descriptor that stands for the name alone: closing any other one would end the process's locks.
        const QORFileDescriptor file(::openat(m_folder.get(), m_name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat found {};
        if (file.get() < 0 || ::fstat(file.get(), &found) != 0) fail(errno);
        const bool isOurs = found.st_uid == ::geteuid() && (S_ISREG(found.st_mode) || S_ISDIR(found.st_mode));
        if (!isOurs || (found.st_mode & (S_IRWXG | S_IRWXO)) == 0) return std::nullopt;
        const std::string name = "/proc/self/fd/" + std::to_string(file.get());
        if (::chmod(name.c_str(), found.st_mode & (S_IRWXU | S_ISVTX)) != 0) fail(errno);
        return found.st_mode & allBits;
    }

private:
    static constexpr mode_t allBits = 07777;

    [[noreturn]] void fail(const std::string& reason) const {
        throw QORException(errFailure, "cannot open " + quoteText(m_path, 1024) + ": " + reason, QOR_SOURCE_PATH);
    }
    [[noreturn]] void fail(int error) const { fail(std::strerror(error)); }

    void begin(const char* folder) {
        m_folder = QORFileDescriptor(::open(folder, O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (m_folder.get() < 0) fail(errno);
    }

    /// Takes the next name off the rest of the path; "." for an empty one.
    std::string takeName() {
        const std::size_t begin = std::min(m_rest.find_first_not_of('/'), m_rest.size());
        const std::size_t end = std::min(m_rest.find('/', begin), m_rest.size());
        std::string name = m_rest.substr(begin, end - begin);
        m_rest.erase(0, end);
        return name.empty() ? "." : name;
    }

    /// Until m_folder holds the file that m_name names.
    void descend() {
        for (;;) {
            m_name = takeName();
            const bool isLast = m_rest.find_first_not_of('/') == std::string::npos;
            const QORFileDescriptor step(::openat(m_folder.get(), m_name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
            if (step.get() < 0) {
                m_isMissing = errno == ENOENT && !isLast;
                if (errno == ENOENT) return;
                fail(errno);
            }
            struct stat found {};
            if (::fstat(step.get(), &found) != 0) fail(errno);
            if (S_ISLNK(found.st_mode)) {
                if (!follow(step.get(), found)) return;
            } else if (isLast) {
                return;
            } else {
                m_folder = QORFileDescriptor(
                    ::openat(m_folder.get(), m_name.c_str(), O_PATH | O_NOFOLLOW | O_DIRECTORY | O_CLOEXEC));
                if (m_folder.get() < 0) fail(errno);
            }
        }
    }

    /// Puts what a link says in front of the rest. \returns false for a link of the kind that /proc has, which says
    /// nothing that could be walked: it stands for something that this process has opened itself
    bool follow(int link, const struct stat& found) {
        struct statfs system {};
        if (::fstatfs(link, &system) == 0 && system.f_type == PROC_SUPER_MAGIC &&
            m_rest.find_first_not_of('/') == std::string::npos) {
            m_magic = true;
            return false;
        }
        if (!isTrusted(found.st_uid))
            fail("the symbolic link " + quoteText(m_name) + " on the way belongs to another user (uid " +
                 std::to_string(found.st_uid) + ")");
        if (++m_links > mostLinks) fail(ELOOP);
        std::array<char, 4096> text;
        const ssize_t size = ::readlinkat(link, "", text.data(), text.size());
        if (size <= 0 || static_cast<std::size_t>(size) == text.size()) fail(size < 0 ? errno : ENAMETOOLONG);
        m_rest.insert(0, std::string_view(text.data(), static_cast<std::size_t>(size)));
        if (m_rest.starts_with('/')) begin("/");
        return true;
    }

    void checkFile(const struct stat& found) const {
        if (m_magic) return;
        struct stat folder {};
        if (::fstat(m_folder.get(), &folder) != 0) fail(errno);
        if (!othersMayWrite(folder)) return;
        if (!isTrusted(found.st_uid))
            fail("it belongs to another user (uid " + std::to_string(found.st_uid) +
                 "), in a folder that others may write to");
        if (S_ISREG(found.st_mode) && found.st_nlink > 1)
            fail("it has other names, in a folder that others may write to");
    }

    const std::string& m_path;
    std::string m_rest;
    QORFileDescriptor m_folder;
    std::string m_name;
    unsigned m_links = 0;
    bool m_magic = false;
    bool m_isMissing = false;  ///< a folder on the way
};

}  // namespace

QORFileDescriptor::~QORFileDescriptor() {
    if (m_descriptor >= 0) ::close(m_descriptor);
}

QORFileDescriptor openOwnFile(const std::string& path, int flags, mode_t mode) {
    return Walk(path).open(flags | O_CLOEXEC, mode);
}

bool checkOwnFile(const std::string& path) {
    return Walk(path).check();
}

std::optional<mode_t> narrowOwnFile(const std::string& path) {
    return Walk(path).narrow();
}

}  // namespace QOR
