#include "backend/StandaloneBackend.h"

#include <exception>

#include "CtlError.h"
#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORMessage/QORNotation.h"
#include "host/QORHost.h"
#include "host/QORVocabularyFiles.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

QORStandaloneBackend::QORStandaloneBackend(const QORConnectionOptions& options, QORBackendUse use) {
    QORHostOptions host;
    host.database.connectionString = options.database;
    host.database.readOnly = options.readOnly;
    host.schemaMode = use == QORBackendUse::Store ? QORSchemaMode::Own : QORSchemaMode::Reading;
    host.plugInDirectory = options.plugIns;
    host.vocabularyFile = options.config;
    host.prime = false;
    try {
        if (use != QORBackendUse::Ask) {
            QORDBSchema::open(host.database, host.schemaMode);
            if (use == QORBackendUse::Inspect) vocCacheLocal()->setVocabulary(usableVocabulary(options.config));
            return;
        }
        m_host = std::make_unique<QORHost>(std::move(host));
        m_session = m_host->newSession(fullAccessContext());
    } catch (const std::exception& error) {
        throw QORCtlError::noConnection(error.what());
    }
}

QORStandaloneBackend::~QORStandaloneBackend() {
    m_session.reset();
    m_host.reset();
    QORRdbms::instance().shutdown();
}

std::unique_ptr<QORAnswerSource> QORStandaloneBackend::ask(std::string_view request) {
    return std::make_unique<QORTextSource>(m_host->router().handle(*m_session, request));
}

void QORStandaloneBackend::answerLines(int input, const TakeAnswer& take) {
    QORLineInput lines(input, -1, requestLimit);
    while (lines.next() == QORLineInput::Got::Line) {
        if (lines.line().find_first_not_of(" \t") == std::string_view::npos) continue;
        std::string answer;
        if (lines.isCut())
            writeErrorResponse(errBadRequest, "the line is longer than a request may be", answer);
        else
            answer = m_host->router().handle(*m_session, lines.line());
        take(answer, !lines.isReady());
    }
}

QORIngestResult QORStandaloneBackend::importBatch(std::string_view lines, std::uint64_t firstLine) {
    return m_ingest.importBatch(lines, firstLine);
}

QORCollectResult QORStandaloneBackend::collect(const std::stop_token& stop) {
    return QOR::collect({}, stop);
}

QORPtr<const QORVocMap> QORStandaloneBackend::vocabulary() {
    return vocCacheLocal()->getVocabulary();
}

QORBackendStatus QORStandaloneBackend::status() {
    try {
        return {std::nullopt, readDatabaseStatus()};
    } catch (const std::exception& error) {
        throw QORCtlError::answered(errFailure, error.what());
    }
}

std::vector<QORViewColumn> QORStandaloneBackend::views() {
    try {
        QORRdbmsTran transaction(ASAccess::Read);
        return readViews(*transaction);
    } catch (const std::exception& error) {
        throw QORCtlError::answered(errFailure, error.what());
    }
}

}  // namespace QOR
