#include "QORCommon/QORPrivateFolder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {

QORPrivateFolder::QORPrivateFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "qor-check-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw QORException(errFailure, "cannot make a folder " + name + ": " + std::strerror(errno), QOR_SOURCE_PATH,
                           __LINE__);
    }
    m_path = name;
}

QORPrivateFolder::~QORPrivateFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

}  // namespace QOR
