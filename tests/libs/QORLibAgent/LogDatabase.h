/// \file
/// A database of the host's own for each test, filled through the host's intake.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORLibAgent/QORLogs.h"
#include "QORLibAgent/QORSecurity.h"
#include "ingest/QORIngest.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/ClientContexts.h"
#include "support/TestDatabase.h"

namespace QOR::test {

class LogDatabaseTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void SetUp() override { open(); }
    void TearDown() override { QORRdbms::instance().shutdown(); }

    std::string path() const { return m_database.file().string(); }
    ASDatabaseOptions options() const {
        ASDatabaseOptions options;
        options.connectionString = m_database.connectionString();
        return options;
    }
    void open() { QORDBSchema::open(options(), QORSchemaMode::Own); }

    static void store(const std::vector<QORRecord>& records) {
        const QORIngestResult result = QORIngest().store(records, false);
        ASSERT_FALSE(result.failure) << result.failure->reason;
    }
    static QORIngestResult import(const std::string& lines) { return QORIngest().importBatch(lines); }

    TestDatabase m_database{TestTables::Own};
};

}  // namespace QOR::test
