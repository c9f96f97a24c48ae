#include "backend/StandaloneBackend.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORPager/QORPagerVocabulary.h"
#include "host/QORHost.h"
#include "host/QORVocabularyFiles.h"
#include "ingest/QORCollectorSchedule.h"
#include "ingest/QORRecordExport.h"
#include "process/CtlError.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// An answer that a thread of its own makes while it is read.
class StandaloneBackend::Source final : public AnswerSource {
public:
    Source(QORRouter& router, QORClientSession& session, std::string request)
        : m_maker([this, &router, &session, request = std::move(request)] { make(router, session, request); }) {}
    ~Source() override {
        {
            const std::lock_guard lock(m_mutex);
            m_givenUp = true;
            m_changed.notify_all();
        }
        m_maker.join();
    }
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    std::string_view read() override {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return !m_pieces.empty() || m_ended; });
        if (m_pieces.empty()) {
            if (m_broken) throw CtlError(CtlExit::AnsweredError, "the answer broke off");
            return {};
        }
        m_piece = std::move(m_pieces.front());
        m_pieces.pop_front();
        m_changed.notify_all();
        return m_piece;
    }

private:
    static constexpr std::size_t mostPieces = 2;

    bool put(std::string_view piece) {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_givenUp || m_pieces.size() < mostPieces; });
        if (m_givenUp) return false;
        m_pieces.emplace_back(piece);
        m_changed.notify_all();
        return true;
    }

    void make(QORRouter& router, QORClientSession& session, const std::string& request) {
        const QORRouter::Streamed streamed =
            router.stream(session, request, [this](std::string_view piece) { return put(piece); });
        if (!streamed.answer.text.empty()) put(streamed.answer.text);
        const std::lock_guard lock(m_mutex);
        m_broken = !streamed.whole;
        m_ended = true;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::string> m_pieces;  // guarded by m_mutex
    bool m_ended = false;              // guarded by m_mutex
    bool m_broken = false;             // guarded by m_mutex
    bool m_givenUp = false;            // guarded by m_mutex
    std::string m_piece;               // the reader's
    std::thread m_maker;
};

StandaloneBackend::StandaloneBackend(const ConnectionOptions& options, BackendUse use) {
    QORHostOptions host;
    host.database.connectionString = options.database;
    host.database.readOnly = options.readOnly;
    host.schemaMode = use == BackendUse::Store ? QORSchemaMode::Own : QORSchemaMode::Reading;
    host.plugInDirectory = options.plugIns;
    host.vocabularyFile = options.config;
    host.prime = false;
    try {
        if (use != BackendUse::Ask) {
            QORDBSchema::open(host.database, host.schemaMode);
            if (use == BackendUse::Inspect)
                vocCacheLocal()->setVocabulary(
                    usableVocabulary(options.config, {pagerVocabulary().begin(), pagerVocabulary().end()}));
            return;
        }
        m_host = std::make_unique<QORHost>(std::move(host));
        m_session = m_host->newSession(fullAccessContext());
    } catch (const std::exception& error) {
        throw CtlError::noConnection(error.what());
    }
}

StandaloneBackend::~StandaloneBackend() {
    m_collectors.reset();
    m_session.reset();
    m_host.reset();
    QORRdbms::instance().shutdown();
}

std::unique_ptr<AnswerSource> StandaloneBackend::ask(std::string_view request) {
    return std::make_unique<Source>(m_host->router(), *m_session, std::string(request));
}

std::unique_ptr<AnswerSource> StandaloneBackend::get(const std::string&) {
    throw CtlError::usage("this needs an agent");
}

namespace {

/// Answers one line. What the reader of the answer throws does not pass through the plug-in, which would take it for a
/// failure of its own.
void answerLine(QORRouter& router, QORClientSession& session, std::string_view line, Backend::LineAnswers& answers) {
    std::exception_ptr failure;
    const QORRouter::Streamed streamed = router.stream(session, line, [&](std::string_view piece) {
        try {
            answers.piece(piece);
            return true;
        } catch (...) {
            failure = std::current_exception();
            return false;
        }
    });
    if (failure) std::rethrow_exception(failure);
    if (!streamed.whole) throw CtlError(CtlExit::AnsweredError, "the answer broke off in the middle");
    answers.piece(streamed.answer.text);
}

}  // namespace

void StandaloneBackend::answerLines(int input, LineAnswers& answers) {
    LineInput lines(input, -1, requestLimit);
    while (lines.next() == LineInput::Got::Line) {
        if (lines.line().find_first_not_of(" \t") == std::string_view::npos) continue;
        if (lines.isCut())
            answers.piece(refusalOfLongLine());
        else
            answerLine(m_host->router(), *m_session, lines.line(), answers);
        answers.end(!lines.isReady());
    }
}

namespace {

/// What fails is answered as an agent would.
template <class Work>
auto answered(Work&& work) {
    try {
        return work();
    } catch (const QORException& error) {
        throw CtlError::answered(error.code(), error.message());
    } catch (const std::exception& error) {
        throw CtlError::answered(errFailure, error.what());
    }
}

class ExportedRecords final : public AnswerSource {
public:
    explicit ExportedRecords(const QORExportPosition& position)
        : m_records(position, QORRowAccess(*fullAccessContext())) {}

    std::string_view read() override {
        answered([this] { m_piece = m_records.next(); });
        return m_piece;
    }

private:
    QORRecordExport m_records;
    std::string m_piece;
};

}  // namespace

std::unique_ptr<AnswerSource> StandaloneBackend::exportRecords(const QORExportPosition& position) {
    return answered([&] { return std::make_unique<ExportedRecords>(position); });
}

QORIngestResult StandaloneBackend::importBatch(std::string_view lines, std::uint64_t firstLine) {
    return m_ingest.importBatch(lines, firstLine);
}

QORCollectResult StandaloneBackend::collect(const std::stop_token& stop) {
    static constexpr std::chrono::seconds patience(5);
    m_collectors = std::make_unique<QORCollectorSchedule>("/");
    const std::stop_callback interrupted(stop, [this] { m_collectors->stop(patience); });
    return answered([this] { return m_collectors->collectNow({}, nullptr); });
}

QORPtr<const QORVocMap> StandaloneBackend::vocabulary() {
    return vocCacheLocal()->getVocabulary();
}

BackendStatus StandaloneBackend::status() {
    try {
        return {std::nullopt, std::nullopt, readDatabaseStatus()};
    } catch (const std::exception& error) {
        throw CtlError::answered(errFailure, error.what());
    }
}

std::vector<QORCheckFinding> StandaloneBackend::check(const std::string& part, bool mend) {
    try {
        return checkDatabase(part, mend);
    } catch (const std::exception& error) {
        throw CtlError::answered(errFailure, error.what());
    }
}

Backend::Pruned StandaloneBackend::prune(const std::string& kind, std::int64_t before, bool unsent) {
    try {
        const QORPruneStep step = pruneDatabase(kind, before, unsent);
        return {step, step.more ? 0 : strandedBytes()};
    } catch (const std::exception& error) {
        throw CtlError::answered(errFailure, error.what());
    }
}

QORIdentityList StandaloneBackend::identities() {
    return answered([] { return readIdentities(); });
}

void StandaloneBackend::addIdentity(const QORIdentity& identity) {
    answered([&] { QOR::addIdentity(identity); });
}

void StandaloneBackend::removeIdentity(const std::string& name) {
    answered([&] { QOR::removeIdentity(name); });
}

std::string StandaloneBackend::createToken(const QORTokenRequest& request) {
    return answered([&] { return QOR::createToken(request.name, request.expires); });
}

std::uint64_t StandaloneBackend::revokeTokens(const QORTokenRequest& request) {
    return answered([&] { return std::uint64_t{QOR::revokeTokens(request.name, request.id)}; });
}

std::vector<QORViewColumn> StandaloneBackend::views() {
    try {
        QORRdbmsTran transaction(ASAccess::Read);
        return readViews(*transaction);
    } catch (const std::exception& error) {
        throw CtlError::answered(errFailure, error.what());
    }
}

}  // namespace QOR
