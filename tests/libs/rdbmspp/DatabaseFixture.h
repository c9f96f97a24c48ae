/// \file
/// A database file of its own for each test, reached through the real driver; and the engine's own connection to
/// prepare it and to compare with.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "libs/rdbmspp/Columns.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/SqliteFile.h"
#include "support/TemporaryDirectory.h"

namespace QOR::test {

/// The engine itself, without a driver.
using Engine = test::SqliteFile;

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

    test::TemporaryDirectory m_folder;
};

}  // namespace QOR::test
