/// \file
/// A folder that a process keeps its own things in while it needs them.
#pragma once

#include <filesystem>

#include "QORCommon/QORExport.h"

namespace QOR {

/// A folder of mode 0700 below the system's folder of temporary files; gone with the object, and everything in it.
class QOR_API QORPrivateFolder {
public:
    /// \throws QORException errFailure
    QORPrivateFolder();
    ~QORPrivateFolder();
    QORPrivateFolder(const QORPrivateFolder&) = delete;
    QORPrivateFolder& operator=(const QORPrivateFolder&) = delete;
    const std::filesystem::path& path() const noexcept { return m_path; }

private:
    std::filesystem::path m_path;
};

}  // namespace QOR
