/// \file
/// What operator "pager" needs of a host, for tests in one process: a database of the host's own, the cache of its
/// environments, the vocabulary that is shipped, and clients.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/Operators/QORPagerOperator.h"
#include "ingest/QORIngest.h"
#include "plugins/QORPager/Operators/Pager/PagerAnswer.h"
#include "plugins/QORPager/Operators/Pager/Rows.h"
#include "support/Pager2Harness.h"
#include "support/TestDatabase.h"

namespace QOR::test {

class PagerHost {
public:
    PagerHost() {
        ASDatabaseOptions options;
        options.connectionString = m_database.connectionString();
        QORDBSchema::open(options, QORSchemaMode::Own);
        const QORClientContextScope scope(fullAccess());
        envs.cache.load();
    }
    ~PagerHost() {
        setVocabulary({});
        QORRdbms::instance().shutdown();
    }
    PagerHost(const PagerHost&) = delete;
    PagerHost& operator=(const PagerHost&) = delete;

    std::filesystem::path file() const { return m_database.file(); }

    /// Changes its database as another program does.
    void run(const std::string& sql) const {
        QORRdbmsTran tran(ASAccess::Write);
        tran->execute(sql);
        tran.commit();
    }

    /// Records, a line each.
    void import(std::string_view lines) {
        const QORIngestResult result = QORIngest().importBatch(lines);
        if (result.failure) throw std::runtime_error(result.failure->reason);
        if (result.refused != 0) throw std::runtime_error(result.refusedLines.front().reason);
    }

    void setVocabulary(QORPtr<const QORVocMap> vocabulary) { vocCacheLocal()->setVocabulary(std::move(vocabulary)); }
    void useShippedVocabulary() {
        QORVocReader reader;
        if (!reader.readFile(QOR_PROJECT_DIR "/packaging/vocabulary.xml"))
            throw std::runtime_error(reader.mistakes().front().reason);
        setVocabulary(reader.vocabulary());
    }

    ScopedEnvCache envs;

private:
    TestDatabase m_database{TestTables::Own};
};

/// One client of "pager".
class PagerClient : public OperatorClient {
public:
    PagerClient() : OperatorClient("pager") {}

    QORPagerOperatorPrototype& op() { return dynamic_cast<QORPagerOperatorPrototype&>(object()); }
};

}  // namespace QOR::test
