/// \file
/// The databases that the security check asks: a copy of the whole one, and one for each client of what it may see.
#pragma once

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "selfcheck/QORSecurityViews.h"

namespace QOR {

/// A folder of mode 0700 below the system's folder of temporary files; gone with the object, and everything in it.
class QORPrivateFolder {
public:
    /// \throws QORException 1
    QORPrivateFolder();
    ~QORPrivateFolder();
    QORPrivateFolder(const QORPrivateFolder&) = delete;
    QORPrivateFolder& operator=(const QORPrivateFolder&) = delete;
    const std::filesystem::path& path() const noexcept { return m_path; }

private:
    std::filesystem::path m_path;
};

/// Copies the database, which is opened for reading only. \throws QORException 1
void copyDatabase(const std::filesystem::path& from, const std::filesystem::path& to);

/// Whether a database has the tables that operator "pager" selects from.
bool isHostDatabase(QORCheckedDatabase& database);

/// Makes a database of the same views, each of which holds the rows that a client of the environments may see, and of
/// the host's own tables, with the client's records. Nothing else is there: no other row, and no table behind other
/// views. \returns rows of each view, by name; a view that cannot be read as far as the client sees it is left out
std::map<std::string, std::size_t> makeVisiblePart(const std::filesystem::path& whole,
                                                   const std::filesystem::path& part,
                                                   const std::vector<QORCheckedView>& views,
                                                   const std::set<std::string>& eids);

}  // namespace QOR
