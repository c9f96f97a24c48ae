#include "host/QORHost.h"

#include <utility>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORFunctionality/QOROpFactory.h"
#include "QORLibLocal/QORVocabulary.h"
#include "QORServers/QORServers.h"
#include "host/QORHostPaths.h"
#include "host/QORVocabularyFiles.h"
#include "ingest/QORCollectors.h"

namespace QOR {

void QORHost::prepareProcess() {
    QORRdbms::prepareProcess();
}

QORHost::QORHost(QORHostOptions options) : m_options(std::move(options)) {
    if (m_options.plugInDirectory.empty()) m_options.plugInDirectory = defaultPlugInDirectory();
    // What comes with the host is there before what plug-ins bring.
    registerCollectors();
    // Before the vocabulary, because they know what it may hold.
    m_refused = m_plugIns.loadDirectory(m_options.plugInDirectory);
    if (m_plugIns.plugIns().empty()) {
        logMessage(1, "QORHost", QOR_SOURCE_PATH, "QORHost", "no plug-in was loaded from %s",
                   m_options.plugInDirectory.c_str());
    }
    vocCacheLocal()->setVocabulary(
        usableVocabulary(m_options.vocabularyFile, QOROpFactoryRegistry::instance().vocabulary()));
    if (m_options.exclusive && !m_options.database.readOnly) m_lock.emplace(m_options.database.connectionString);
    QORDBSchema::open(m_options.database, m_options.schemaMode);
    m_environments.load();
    setEnvCache(&m_environments);
    m_router = std::make_unique<QORRouter>(
        m_options.prime ? QOROpFactoryRegistry::instance().names() : std::vector<std::string>(), QORMessageLimits(),
        m_options.answers);
    m_router->prime();
    if (!m_options.follows) return;
    m_follower.emplace(m_environments);
    const bool writes = !QORRdbms::instance().options().readOnly;
    if (writes && QORRdbms::instance().engine() == ASEngine::PostgreSQL) m_serverFollower.emplace();
}

QORHost::~QORHost() {
    m_serverFollower.reset();
    m_follower.reset();
    m_router.reset();
    m_plugIns.unloadAll();
    setEnvCache(nullptr);
    vocCacheLocal()->setVocabulary(nullptr);
    QORServers::instance().close();
    QORRdbms::instance().shutdown();
}

std::unique_ptr<QORClientSession> QORHost::newSession(QORClientContextPtr own) const {
    return std::make_unique<QORClientSession>(std::move(own));
}

}  // namespace QOR
