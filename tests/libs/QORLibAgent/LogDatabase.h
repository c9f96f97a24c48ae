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
#include "support/TemporaryDirectory.h"

namespace QOR::test {

class LogDatabaseTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void SetUp() override { open(); }
    void TearDown() override { QORRdbms::instance().shutdown(); }

    std::string path() const { return (m_folder / "agent.db").string(); }
    ASDatabaseOptions options() const {
        ASDatabaseOptions options;
        options.connectionString = "Driver=SQLite3;Database=" + path();
        return options;
    }
    void open() { QORDBSchema::open(options(), QORSchemaMode::Own); }

    static void store(const std::vector<QORRecord>& records) {
        const QORIngestResult result = QORIngest().store(records, false);
        ASSERT_FALSE(result.failure) << result.failure->reason;
    }
    static QORIngestResult import(const std::string& lines) { return QORIngest().importBatch(lines); }

    TemporaryDirectory m_folder;
};

}  // namespace QOR::test
