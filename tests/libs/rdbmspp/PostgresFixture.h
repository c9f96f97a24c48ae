/// \file
/// A PostgreSQL database of its own for each test, reached through the real driver; and the engine's own connection to
/// prepare it and to compare with.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "rdbmspp/pool/QORRdbms.h"
#include "support/PostgresServer.h"

namespace QOR::test {

class PostgresTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { QORRdbms::prepareProcess(); }
    void TearDown() override { QORRdbms::instance().shutdown(); }

    ASDatabaseOptions options(const std::string& more = {}) const {
        ASDatabaseOptions options;
        options.connectionString = database.connectionString() + more;
        options.busyTimeoutMs = 200;
        return options;
    }
    void open(const std::string& more = {}) { QORRdbms::instance().configure(options(more)); }
    /// Prepares the database and opens it.
    void prepare(const std::string& sql) {
        engine().run(sql);
        open();
    }
    /// A connection of another program.
    PostgresConnection engine() const { return database.connect(); }

    /// The failure of a call. \returns one with the text "(no failure)" when there is none
    template <class Call>
    static AException failureOf(Call call) {
        try {
            call();
        } catch (const AException& error) {
            return error;
        }
        return AException("(no failure)");
    }
    static void write(const std::string& sql) {
        QORRdbmsTran transaction(ASAccess::Write);
        transaction->execute(sql);
        transaction.commit();
    }
    static std::string cell(const std::string& sql, ASAccess access = ASAccess::ReadOne) {
        QORRdbmsTran transaction(access);
        ASStatement& statement = transaction->prepare(sql);
        statement.execute();
        if (!statement.fetch()) return "(no row)";
        return statement.isNull(1) ? "<null>" : std::string(statement.text(1));
    }

    const PostgresDatabase database;
};

}  // namespace QOR::test
