/// \file
/// The views of a database as the security check sees them: independently of the operators, by the engine's own words.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

struct sqlite3;

namespace QOR {

/// The engine's own connection to a database file. One thread.
class QORCheckedDatabase {
public:
    /// \throws QORException 1 naming the file and the reason
    QORCheckedDatabase(const std::filesystem::path& file, bool readOnly);
    ~QORCheckedDatabase();
    QORCheckedDatabase(const QORCheckedDatabase&) = delete;
    QORCheckedDatabase& operator=(const QORCheckedDatabase&) = delete;

    /// Runs statements without results. \throws QORException 1
    void run(const std::string& sql);
    /// The first `most` rows of a select as texts, nulls as empty texts. \throws QORException 1
    std::vector<std::vector<std::string>> rows(const std::string& sql, std::size_t most = SIZE_MAX);
    /// Copies the whole database, as it is at one moment, into `target`. \throws QORException 1
    void copyTo(QORCheckedDatabase& target);

private:
    sqlite3* m_database = nullptr;
};

/// `"name"` and `'text'` with the quotes inside doubled.
std::string quotedName(const std::string& name);
std::string quotedText(const std::string& text);
/// `'text','text'`.
std::string quotedList(const std::set<std::string>& texts);

struct QORCheckedColumn {
    std::string name;
    std::string type;                  ///< as declared, without its length, in lower case
    std::string declared;              ///< as declared
    std::vector<std::string> samples;  ///< some values of all rows, whoever may see them
};

struct QORCheckedView {
    std::string name;
    std::vector<QORCheckedColumn> columns;
    std::vector<std::string> objects;  ///< the object columns of a securable view; none: everybody sees it whole

    /// The condition that a row belongs to one of the environments.
    std::string access(const std::set<std::string>& eids) const;
};

/// Every view that can be read, with samples. \throws QORException 1
std::vector<QORCheckedView> checkedViews(QORCheckedDatabase& database);

/// Environments that rows of securable views belong to, some of them where there are many.
std::vector<std::string> checkedObjects(QORCheckedDatabase& database, const std::vector<QORCheckedView>& views);

}  // namespace QOR
