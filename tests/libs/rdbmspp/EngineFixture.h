/// \file
/// The same tests on each engine: what is selected, and how it answers, does not depend on which one it is.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "libs/rdbmspp/Columns.h"
#include "rdbmspp/engine/ASDialect.h"
#include "support/PostgresServer.h"
#include "support/SqliteFile.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// A database of its own for each test, of the engine that is its parameter.
class EngineTest : public ::testing::TestWithParam<ASEngine> {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void SetUp() override {
        if (isPostgres()) m_database.emplace();
        prepareDatabase();
    }
    void TearDown() override { QORRdbms::instance().shutdown(); }
    /// What a suite has in its database.
    virtual void prepareDatabase() {}

    bool isPostgres() const { return GetParam() == ASEngine::PostgreSQL; }
    const ASDialect& dialect() const { return ASDialect::of(GetParam()); }

    /// Runs statements through the engine itself, without a driver. Types of columns are named as SQLite's databases
    /// name them.
    void run(const std::string& sql) {
        if (isPostgres()) {
            m_database->connect().run(inPostgres(sql));
        } else {
            SqliteFile(m_folder.file("test.db")).run(sql);
        }
    }
    void open() {
        ASDatabaseOptions options;
        options.connectionString =
            isPostgres() ? m_database->connectionString() : "Driver=SQLite3;Database=" + m_folder.file("test.db");
        options.busyTimeoutMs = 100;
        QORRdbms::instance().configure(options);
    }
    /// Prepares the database and opens it.
    void open(const std::string& sql) {
        run(sql);
        open();
    }

private:
    static std::string inPostgres(std::string sql) {
        static constexpr std::array<std::pair<std::string_view, std::string_view>, 7> types{{
            {" NVARCHAR", " varchar"},
            {" UNIQUEIDENTIFIER", " uuid"},
            {" DATETIME", " timestamp"},
            {" FLOAT", " float8"},
            {" DECIMAL", " numeric"},
            {" BIT", " boolean"},
            {" IMAGE", " bytea"},
        }};
        for (const auto& [theirs, ours] : types) {
            for (auto at = sql.find(theirs); at != std::string::npos; at = sql.find(theirs, at + ours.size()))
                if (const char next = at + theirs.size() < sql.size() ? sql[at + theirs.size()] : ' ';
                    next == ',' || next == ')' || next == '(' || next == ' ')
                    sql.replace(at, theirs.size(), ours);
        }
        return sql;
    }

    TemporaryDirectory m_folder;
    std::optional<PostgresDatabase> m_database;
};

}  // namespace QOR::test
