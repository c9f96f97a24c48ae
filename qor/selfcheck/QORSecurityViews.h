/// \file
/// The views of a database as the security check sees them: independently of the operators, by the engine's own words.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace QOR {

/// `"name"` and `'text'` with the quotes inside doubled.
std::string quotedName(const std::string& name);
std::string quotedText(const std::string& text);
/// `'text','text'`.
std::string quotedList(const std::set<std::string>& texts);

struct QORCheckedColumn {
    std::string name;
    std::string type;                  ///< as operators know it: as declared, without its length, in lower case
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

/// A connection to a database that is checked. One thread.
class QORCheckedDatabase {
public:
    QORCheckedDatabase() = default;
    virtual ~QORCheckedDatabase() = default;
    QORCheckedDatabase(const QORCheckedDatabase&) = delete;
    QORCheckedDatabase& operator=(const QORCheckedDatabase&) = delete;

    /// Runs a statement without results. \throws QORException 1
    virtual void run(const std::string& sql) = 0;
    /// The first column of the first `most` rows of a select as texts, nulls as empty texts. \throws QORException 1
    std::vector<std::string> values(const std::string& sql, std::size_t most = SIZE_MAX) { return select(sql, most); }
    /// An expression of the value of a column as a text.
    virtual std::string textOf(const std::string& expression) const = 0;
    /// Where all rows of a table or a view are selected from, ready for a statement. \throws QORException 1
    virtual std::string whole(const std::string& relation) { return quotedName(relation); }
    /// Every view that can be read, by name, with the names and types of its columns alone. \throws QORException 1
    virtual std::vector<QORCheckedView> listViews() = 0;
    /// Whether there are the tables that operator "pager" selects from, so that a part can have its own of them.
    virtual bool isHostDatabase() = 0;

private:
    virtual std::vector<std::string> select(const std::string& sql, std::size_t most) = 0;
};

/// Every view that can be read, with samples. \throws QORException 1
std::vector<QORCheckedView> checkedViews(QORCheckedDatabase& database);

/// Environments that rows of securable views belong to, some of them where there are many.
std::vector<std::string> checkedObjects(QORCheckedDatabase& database, const std::vector<QORCheckedView>& views);

}  // namespace QOR
