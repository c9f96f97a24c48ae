/// \file
/// A database file of its own for each test, reached through the real driver; and the engine's own connection to
/// prepare it and to compare with.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR::testing {

class Folder {
public:
    Folder() {
        std::string name = (std::filesystem::temp_directory_path() / "qor-rdbms-XXXXXX").string();
        if (!mkdtemp(name.data())) throw std::runtime_error("mkdtemp");
        m_path = name;
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

/// The engine itself, without a driver.
class Engine {
public:
    explicit Engine(const std::string& file) {
        if (sqlite3_open(file.c_str(), &m_db) != SQLITE_OK) throw std::runtime_error("sqlite3_open");
    }
    ~Engine() { sqlite3_close(m_db); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    void run(const std::string& sql) {
        if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(m_db) + (" in " + sql));
        }
    }
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sqlite3_errmsg(m_db) + (" in " + sql));
        }
        std::vector<std::vector<std::string>> all;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, i));
                row.emplace_back(text ? text : "(null)");
            }
            all.push_back(std::move(row));
        }
        sqlite3_finalize(statement);
        return all;
    }

private:
    sqlite3* m_db = nullptr;
};

class DatabaseTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void TearDown() override { QORRdbms::instance().shutdown(); }

    std::string path() const { return m_folder.file("test.db"); }
    std::string connectionString() const { return "Driver=SQLite3;Database=" + path(); }
    ASDatabaseOptions options() const {
        ASDatabaseOptions options;
        options.connectionString = connectionString();
        options.busyTimeoutMs = 100;
        return options;
    }
    void open() { QORRdbms::instance().configure(options()); }
    /// Prepares the database and opens it.
    void open(const std::string& sql) {
        Engine(path()).run(sql);
        open();
    }
    /// The text of the AException that the call throws.
    template <class Call>
    static std::string failure(Call call) {
        try {
            call();
        } catch (const AException& error) {
            return error.text();
        }
        return "(no failure)";
    }

    Folder m_folder;
};

/// A column with its receiver.
struct Column {
    ASAttribute attribute;
    ASDataPtr data;
};

inline ASDataPtr makeData(ASType type) {
    switch (type) {
        case ASType::Int:
            return std::make_shared<ASInt>();
        case ASType::BigInt:
            return std::make_shared<ASInt64>();
        case ASType::Double:
            return std::make_shared<ASDouble>();
        case ASType::Guid:
            return std::make_shared<ASGuid>();
        case ASType::DateTime:
            return std::make_shared<ASTime>();
        case ASType::Blob:
            return std::make_shared<ASRealBlob>();
        case ASType::Char:
            return std::make_shared<ASStr>(21);
        case ASType::VarChar:
            break;
    }
    return std::make_shared<ASVStr>(21);
}

inline ASDomainPtr domainOf(const std::string& view) {
    return std::make_shared<ASDomain>(view, "");
}

inline Column column(const ASDomainPtr& domain, const std::string& name, ASType type = ASType::VarChar) {
    Column made{ASAttribute(name, type), makeData(type)};
    made.attribute.Register(made.data, domain);
    return made;
}

/// A cell as text; "(null)" for null.
inline std::string cell(const ASData& data) {
    return data.isNull() ? "(null)" : data.Str();
}

/// All rows of one column, or of an aggregate.
template <class Selected>
std::vector<std::string> select(const Selected& what, const ASComparison& condition = {},
                                const std::vector<ASOrder>& order = {}, std::int32_t limit = 0,
                                std::int32_t offset = 0) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << what;
    if (!condition.empty()) cursor.Filter().Set(condition);
    if (!order.empty()) cursor.Order(order.front());
    if (limit > 0) cursor.Limit(limit, offset);
    std::vector<std::string> rows;
    while (cursor.Fetch())
        rows.push_back(cell(*what.data()));
    return rows;
}

}  // namespace QOR::testing
