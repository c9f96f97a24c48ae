/// \file
/// The security check on PostgreSQL: the database is asked where it is, with the plans that the engine has for it, and
/// each part is a schema of its own beside it.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "selfcheck/QORSecurityCopies.h"

namespace QOR {

/// Plain statements, each in a transaction of its own.
class PostgresCheckedDatabase : public QORCheckedDatabase {
public:
    explicit PostgresCheckedDatabase(const ASDatabaseOptions& options) { m_database.configure(options); }

    void run(const std::string& sql) override;
    std::string textOf(const std::string& expression) const override { return "CAST(" + expression + " AS text)"; }
    /// Of records that lie with several servers the tables and views are those of all together.
    std::string whole(const std::string& relation) override;
    std::vector<QORCheckedView> listViews() override;
    bool isHostDatabase() override;
    /// Makes the host's tables, with what keeps their counters, in a schema that is empty.
    void makeHostTables();

private:
    std::vector<std::string> select(const std::string& sql, std::size_t most) override;

    QORRdbms m_database;
    std::optional<std::set<std::string>> m_ofServers;  ///< what lies with several servers, once it was asked for
};

class PostgresSecurityCopies : public QORSecurityCopies {
public:
    explicit PostgresSecurityCopies(const std::string& connectionString);
    ~PostgresSecurityCopies() override;

    QORCheckedDatabase& whole() override { return m_whole; }
    ASDatabaseOptions wholeOptions() const override;
    bool mayChange() const noexcept override { return true; }
    QORVisiblePart makePart(const std::vector<QORCheckedView>& views, const std::set<std::string>& eids) override;

private:
    void copyView(const QORCheckedView& view, const std::string& condition);
    void copyRecords(const std::set<std::string>& eids);
    void copyTable(const QORRecordTable& table, const std::set<std::string>& eids);
    void dropPart();

    const std::string m_connectionString;
    PostgresCheckedDatabase m_whole;
    std::string m_part;  ///< the schema's name; empty: there is none
};

}  // namespace QOR
