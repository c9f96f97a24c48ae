/// \file
/// The security check on SQLite: a private folder with a copy of the file, and a file for each part. Through the
/// engine's own connections, so that what is expected does not come from the layer that is checked.
#pragma once

#include <filesystem>

#include "QORCommon/QORPrivateFolder.h"
#include "selfcheck/QORSecurityCopies.h"

struct sqlite3;

namespace QOR {

class SqliteCheckedDatabase : public QORCheckedDatabase {
public:
    /// \throws QORException 1 naming the file and the reason
    SqliteCheckedDatabase(const std::filesystem::path& file, bool readOnly);
    ~SqliteCheckedDatabase() override;

    void run(const std::string& sql) override;
    std::string textOf(const std::string& expression) const override { return expression; }
    std::vector<QORCheckedView> listViews() override;
    bool isHostDatabase() override;
    /// Copies the whole database, as it is at one moment, into `target`. \throws QORException 1
    void copyTo(SqliteCheckedDatabase& target);

private:
    std::vector<std::string> select(const std::string& sql, std::size_t most) override;
    using Rows = std::vector<std::vector<std::string>>;
    Rows rows(const std::string& sql, std::size_t most);

    sqlite3* m_database = nullptr;
};

class SqliteSecurityCopies : public QORSecurityCopies {
public:
    /// Copies the file, which is opened for reading only.
    explicit SqliteSecurityCopies(const std::filesystem::path& file);

    QORCheckedDatabase& whole() override { return *m_whole; }
    ASDatabaseOptions wholeOptions() const override;
    bool mayChange() const noexcept override { return false; }
    QORVisiblePart makePart(const std::vector<QORCheckedView>& views, const std::set<std::string>& eids) override;

    const std::filesystem::path& folder() const noexcept { return m_folder.path(); }

private:
    std::filesystem::path wholeFile() const;

    QORPrivateFolder m_folder;
    std::unique_ptr<SqliteCheckedDatabase> m_whole;
    unsigned m_parts = 0;
};

}  // namespace QOR
