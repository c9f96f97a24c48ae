/// \file
/// Databases of both engines for tests of copies, and what is in them, read without the host.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ctl/CtlProcess.h"
#include "rdbmspp/engine/ASEngine.h"
#include "support/PostgresServer.h"
#include "support/SqliteFile.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// The rows of every table, as texts.
using Contents = std::map<std::string, std::vector<std::vector<std::string>>>;

/// A table and its columns, those of bytes behind a "#". The rowid is a column in PostgreSQL alone.
struct PlaceTable {
    const char* name;
    std::vector<std::string> columns;
};

inline const std::vector<PlaceTable>& placeTables() {
    static const std::vector<PlaceTable> tables{
        {"qor_environment",
         {"rowid",  "eid",      "parent_eid",   "title",  "state",          "transition",  "name",       "description",
          "domain", "hostname", "architecture", "type",   "os_name",        "os_platform", "os_version", "os_kernel",
          "ip",     "memory",   "boot_time",    "config", "virtual_config", "updated"}},
        {"qor_environment_address", {"eid", "source", "position", "address"}},
        {"qor_backup",
         {"seq", "id", "eid", "storage_eid", "time", "size", "type", "description", "name", "hostname", "#info"}},
        {"qor_operation", {"seq", "id", "parent_id", "op", "status", "time", "eid", "package", "version", "message"}},
        {"qor_operation_environment", {"operation", "eid", "position", "own", "time"}},
        {"qor_event", {"seq", "time", "eid", "source", "category", "info"}},
        {"qor_unreadable_document", {"source", "part", "record"}},
        {"qor_request", {"rowid", "key", "digest", "last_line", "result", "time"}},
        {"qor_operation_count", {"scope", "level", "bucket", "n", "split"}},
        {"qor_event_count", {"scope", "level", "bucket", "n", "split"}}};
    return tables;
}

/// A database of one engine, empty and without a schema at first.
class Place {
public:
    explicit Place(ASEngine engine) : m_engine(engine) {
        if (engine == ASEngine::PostgreSQL) m_postgres = std::make_unique<PostgresDatabase>();
    }

    ASEngine engine() const { return m_engine; }
    /// As options of qorctl take it.
    std::string name() const { return m_postgres ? m_postgres->connectionString() : file().string(); }
    std::filesystem::path file() const { return m_folder / "place.db"; }
    const PostgresDatabase& postgres() const { return *m_postgres; }

    /// Runs statements, past the host.
    void run(const std::string& sql) const {
        if (m_postgres) return m_postgres->connect().run(sql);
        SqliteFile(file()).run(sql);
    }
    std::string cell(const std::string& sql) const {
        return m_postgres ? m_postgres->connect().cell(sql) : SqliteFile(file()).cell(sql);
    }
    /// \returns 0 where there is no such table
    int count(const std::string& table) const {
        try {
            return std::stoi(cell("SELECT count(*) FROM " + table));
        } catch (const std::runtime_error&) {
            return 0;
        }
    }
    Contents contents() const {
        Contents all;
        for (const PlaceTable& table : placeTables()) {
            std::string list;
            for (const std::string& column : table.columns)
                list += (list.empty() ? "" : ", ") + text(column);
            const std::string sql = "SELECT " + list + " FROM " + table.name;
            auto& rows = all[table.name];
            rows = m_postgres ? m_postgres->connect().rows(sql) : SqliteFile(file()).rows(sql);
            std::sort(rows.begin(), rows.end());
        }
        return all;
    }

private:
    std::string text(const std::string& column) const {
        if (column[0] != '#') return m_postgres ? column + "::text" : "CAST(" + column + " AS TEXT)";
        return m_postgres ? "upper(encode(" + column.substr(1) + ", 'hex'))"
                          : "CASE WHEN " + column.substr(1) + " IS NOT NULL THEN hex(" + column.substr(1) + ") END";
    }

    ASEngine m_engine;
    TemporaryDirectory m_folder;
    std::unique_ptr<PostgresDatabase> m_postgres;
};

inline Words copyCommand(const Place& from, const Place& to, const Words& more = {}) {
    Words words{"copy", "--from", from.name(), "--to", to.name()};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

inline CtlResult copy(const Place& from, const Place& to, const Words& more = {}) {
    return runCtl(copyCommand(from, to, more));
}

/// Makes a source with some thousand records of all kinds, among them what other programs can have stored and what an
/// engine could understand otherwise than as it stands. SQLite's.
inline void fillSource(const Place& place) {
    const CtlResult sample = runCtl({"sample", "--standalone", "--database", place.name(), "--environments", "40",
                                     "--operations", "6000", "--events", "5000", "--backups", "200", "--seed", "3"});
    ASSERT_EQ(sample.status, 0) << sample.err;
    place.run(R"sql(
        UPDATE qor_operation SET message = '<m>' || replace(hex(zeroblob(700000)), '0', 'ä') || '</m>' WHERE seq = 7;
        UPDATE qor_operation SET message = '', package = '', version = NULL WHERE seq = 8;
        UPDATE qor_operation SET message = 'X''00FF''', op = '\x00', package = '{"a":[1]}', version = '\\N' WHERE seq = 9;
        UPDATE qor_operation SET message = 'a''b"c\d{e};--' || char(10, 13, 9, 1, 31, 127, 8232, 128512) WHERE seq = 10;
        UPDATE qor_operation SET status = -2147483648, time = '0001-01-01 00:00:00', eid = NULL WHERE seq = 11;
        UPDATE qor_operation SET status = 2147483647, time = '9999-12-31 23:59:59' WHERE seq = 12;
        UPDATE qor_environment SET memory = 9223372036854775807, boot_time = NULL, title = ' padded ' WHERE rowid = 3;
        UPDATE qor_environment SET rowid = 4711 WHERE rowid = 5;
        UPDATE qor_backup SET size = -9223372036854775807 - 1, info = x'00010203FFFE5C27' WHERE seq = 1;
        UPDATE qor_backup SET info = zeroblob(300000) WHERE seq = 2;
        UPDATE qor_backup SET info = x'' WHERE seq = 3;
        UPDATE qor_backup SET info = NULL WHERE seq = 4;
        INSERT INTO qor_unreadable_document VALUES ('qor_event', 'info', 17), ('qor_event', 'info', 9),
            ('qor_environment', 'config', (SELECT eid FROM qor_environment LIMIT 1));
        INSERT INTO qor_request (rowid, key, digest, last_line, result, time) VALUES
            (5, 'zebra', 'd1', 1000, '{"counts":[]}', 1700000000), (6, 'apple', 'd2', 7, '{"ü":1}', 1700000001);
    )sql");
}

}  // namespace QOR::test
