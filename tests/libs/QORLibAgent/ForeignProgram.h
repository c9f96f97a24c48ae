/// \file
/// Another program that has the host's database open: plain SQL through the engine itself, as its shell would do it.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

namespace QOR::test {

class ForeignProgram {
public:
    explicit ForeignProgram(const std::string& file) {
        EXPECT_EQ(sqlite3_open(file.c_str(), &m_database), SQLITE_OK);
        sqlite3_busy_timeout(m_database, 5000);
        run("PRAGMA synchronous = OFF");
    }
    ~ForeignProgram() { sqlite3_close(m_database); }
    ForeignProgram(const ForeignProgram&) = delete;
    ForeignProgram& operator=(const ForeignProgram&) = delete;

    /// \returns whether every statement was taken
    bool tries(const std::string& sql) {
        const bool taken = sqlite3_exec(m_database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
        if (!taken) m_complaint = sqlite3_errmsg(m_database);
        return taken;
    }
    void run(const std::string& sql) { EXPECT_TRUE(tries(sql)) << m_complaint << " in " << sql; }
    const std::string& complaint() const { return m_complaint; }

private:
    sqlite3* m_database = nullptr;
    std::string m_complaint;
};

}  // namespace QOR::test
