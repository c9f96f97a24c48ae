#include "selfcheck/QORSecurityCopies.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "QORCommon/QORException.h"

namespace QOR {
namespace {

constexpr const char* sourcePath = "qor/selfcheck/SecurityCopies";

/// The engine makes files as the process's mask says; this one is there before, for its owner alone.
void createPrivate(const std::filesystem::path& file) {
    constexpr mode_t ownerOnly = 0600;
    const int descriptor = ::open(file.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, ownerOnly);
    if (descriptor < 0) {
        throw QORException(errFailure, "cannot create " + file.string() + ": " + std::strerror(errno), sourcePath,
                           __LINE__);
    }
    ::close(descriptor);
}

std::string columnList(const QORCheckedView& view, bool withTypes) {
    std::string list;
    for (const QORCheckedColumn& column : view.columns) {
        if (!list.empty()) list += ", ";
        list += quotedName(column.name);
        if (withTypes && !column.declared.empty()) list += ' ' + column.declared;
    }
    return list;
}

}  // namespace

QORPrivateFolder::QORPrivateFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "qor-check-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw QORException(errFailure, "cannot make a folder " + name + ": " + std::strerror(errno), sourcePath,
                           __LINE__);
    }
    m_path = name;
}

QORPrivateFolder::~QORPrivateFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

void copyDatabase(const std::filesystem::path& from, const std::filesystem::path& to) {
    QORCheckedDatabase source(from, true);
    createPrivate(to);
    QORCheckedDatabase target(to, false);
    source.copyTo(target);
    // A copy is read and never written again; without a write-ahead log nothing lies beside it.
    target.run("PRAGMA journal_mode = DELETE");
}

std::map<std::string, std::size_t> makeVisiblePart(const std::filesystem::path& whole,
                                                   const std::filesystem::path& part,
                                                   const std::vector<QORCheckedView>& views,
                                                   const std::set<std::string>& eids) {
    std::map<std::string, std::size_t> sizes;
    createPrivate(part);
    QORCheckedDatabase target(part, false);
    target.run("PRAGMA synchronous = OFF; PRAGMA journal_mode = OFF; ATTACH " + quotedText(whole.string()) +
               " AS whole; BEGIN");
    for (const QORCheckedView& view : views) {
        const std::string table = quotedName("rows of " + view.name);
        // The declared types keep what the columns' values are compared by.
        target.run("CREATE TABLE " + table + " (" + columnList(view, true) + ")");
        try {
            target.run("INSERT INTO " + table + " SELECT " + columnList(view, false) + " FROM whole." +
                       quotedName(view.name) + " WHERE " + view.access(eids));
        } catch (const QORException&) {
            continue;  // a view that fails on what the client may see fails for full access too
        }
        target.run("CREATE VIEW " + quotedName(view.name) + " AS SELECT * FROM " + table);
        sizes[view.name] = std::stoul(target.rows("SELECT count(*) FROM " + table).front().front());
    }
    target.run("COMMIT; DETACH whole");
    return sizes;
}

}  // namespace QOR
