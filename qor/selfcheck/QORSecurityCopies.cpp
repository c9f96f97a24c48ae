#include "selfcheck/QORSecurityCopies.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
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

/// The host's tables of records; `owner`: the column with the environment that one belongs to. An operation is there
/// before what it touches.
struct RecordTable {
    const char* name;
    const char* owner;
};
constexpr RecordTable recordTables[] = {
    {"qor_environment", "eid"}, {"qor_operation", "eid"}, {"qor_operation_environment", "own"}, {"qor_event", "eid"}};

/// The host's tables with what keeps their counters, empty, then the records of the environments: so that everything
/// which is kept beside them is that of a host which never knew others.
void copyRecords(QORCheckedDatabase& target, const std::set<std::string>& eids) {
    for (const auto& part : target.rows("SELECT sql FROM whole.sqlite_master WHERE substr(tbl_name, 1, 4) = 'qor_' AND "
                                        "type <> 'view' AND sql IS NOT NULL ORDER BY CASE type WHEN 'table' THEN 0 "
                                        "WHEN 'index' THEN 1 ELSE 2 END"))
        target.run(part.front());
    for (const RecordTable& table : recordTables) {
        std::string columns;
        for (const auto& column : target.rows("SELECT name FROM pragma_table_info(" + quotedText(table.name) + ")"))
            columns += (columns.empty() ? "" : ", ") + quotedName(column.front());
        target.run("INSERT INTO main." + std::string(table.name) + " (" + columns + ") SELECT " + columns +
                   " FROM whole." + table.name + " WHERE " + table.owner + " IN (" + quotedList(eids) + ")");
    }
}

}  // namespace

bool isHostDatabase(QORCheckedDatabase& database) {
    return std::all_of(std::begin(recordTables), std::end(recordTables), [&](const RecordTable& table) {
        return !database.rows("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = " + quotedText(table.name))
                    .empty();
    });
}

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
    QORCheckedDatabase source(whole, true);
    if (isHostDatabase(source)) copyRecords(target, eids);
    target.run("COMMIT; DETACH whole");
    return sizes;
}

}  // namespace QOR
