/// \file
/// Files opened where other users may have been before.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>

#include "QORCommon/QORExport.h"

namespace QOR {

/// Closes a descriptor at its end. Moves only.
class QOR_API QORFileDescriptor {
public:
    explicit QORFileDescriptor(int descriptor = -1) noexcept : m_descriptor(descriptor) {}
    ~QORFileDescriptor();
    QORFileDescriptor(QORFileDescriptor&& other) noexcept : m_descriptor(other.release()) {}
    QORFileDescriptor& operator=(QORFileDescriptor&& other) noexcept {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }

    int get() const noexcept { return m_descriptor; }
    int release() noexcept { return std::exchange(m_descriptor, -1); }

private:
    int m_descriptor;
};

/// Opens a file without being led elsewhere by another user. In a folder that others may write to (/tmp, somebody's
/// home) they can put a link of theirs in place of a file that is about to be opened, or a file of theirs whose content
/// they read or choose; the system's own protection against it can be switched off, and does not cover all folders.
///
/// Symbolic links are followed, at every step of the path, only when they belong to root or to this user. A file that
/// is there already must belong to one of them too, and have no other name, where its folder may be written by others.
/// Nothing is looked up twice, so nothing can change in between. Thread-safe.
///
/// \param flags, mode as for open(2); O_CLOEXEC is added
/// \throws QORException errFailure naming the path, and whose link or file is in the way
QOR_API QORFileDescriptor openOwnFile(const std::string& path, int flags, mode_t mode = 0600);

/// Checks a path that another library is going to open by name: the links on the way to it, and the file itself when
/// it is there. In a folder that others may write to this holds only as long as the file is there.
/// \returns false when there is no such file
/// \throws QORException as openOwnFile()
QOR_API bool checkOwnFile(const std::string& path);

/// Takes the rights of group and others away from a file (or a folder) of this user's. Opens nothing, so that locks
/// which this process holds on the file stay.
/// \returns the mode that it had; nothing when there was nothing to take, or the file is missing or another user's
/// \throws QORException as openOwnFile()
QOR_API std::optional<mode_t> narrowOwnFile(const std::string& path);

}  // namespace QOR
