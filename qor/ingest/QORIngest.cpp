#include "ingest/QORIngest.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <utility>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QORChangeWatch.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORServers/QORServers.h"
#include "ingest/LineReader.h"
#include "ingest/RecordBatch.h"
#include "ingest/RecordRights.h"
#include "ingest/RecordTables.h"
#include "ingest/RecordWriter.h"
#include "ingest/RequestLedger.h"
#include "ingest/SpreadBatch.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

void count(QORIngestCounts& counts, QORStored stored) {
    switch (stored) {
        case QORStored::Added:
            ++counts.added;
            break;
        case QORStored::Replaced:
            ++counts.replaced;
            break;
        case QORStored::Unchanged:
            ++counts.unchanged;
            break;
    }
}

/// What a table says of whose records servers keep instead.
constexpr std::string_view keptByServers = "QOR01";

// A few records are stored faster without preparations.
constexpr std::size_t manyRecords = 100;

/// What the batch brought of environments is known to this process at once; to others that have them in memory soon.
/// It is stored by now: when it cannot be read, the cache takes it in at the next opportunity.
void refreshCache(std::span<const QORRecord> batch) {
    QOREnvCache* const cache = envCache();
    const bool any = std::any_of(batch.begin(), batch.end(),
                                 [](const QORRecord& record) { return kindOf(record) == QORRecordKind::Environment; });
    if (cache == nullptr || !any) return;
    try {
        cache->refresh();
    } catch (const AException& error) {
        logMessage(1, "QORIngest", QOR_SOURCE_PATH, __func__,
                   "environments that were stored cannot be read back yet: %s", error.what());
    }
}

/// Record by record where that costs less.
RecordBatchCounts storeBatch(ASSession& session, std::span<const QORRecord> batch, bool keepEqual) {
    RecordBatchCounts counts;
    if (session.engine() != ASEngine::SQLite) {
        std::vector<ArrivedRecord> records;
        for (const QORRecord& record : batch)
            records.push_back({&record});
        return storeTogether(session, records, keepEqual);
    }
    RecordWriter writer(session, keepEqual);
    for (const QORRecord& record : batch)
        count(counts[record.index()], writer.store(record));
    writer.finish();
    return counts;
}

void addOwnersAtServers(const QORPlacement& placement, std::span<const QORRecord> batch, StoredOwners& owners) {
    for (const QORServer& server : placement.servers()) {
        QORServers::instance().run(server, [&](QORRdbms& database) {
            QORRdbmsTran tran(database, ASAccess::Read);
            owners.read(*tran, batch, false);
        });
    }
}

/// Where several write at a time, somebody else may have stored a record of a batch after it was judged.
void checkNothingCame(const RecordBatchCounts& counts, std::span<const QORRecord> batch, const StoredOwners& owners) {
    std::uint64_t added = 0;
    for (const QORRecordKind kind : {QORRecordKind::Environment, QORRecordKind::Operation, QORRecordKind::Backup})
        added += counts[static_cast<std::size_t>(kind)].added;
    if (added != owners.newOnes(batch))
        throw AException("others stored the same records meanwhile", {}, 0, {}, ASFailure::Undone);
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

}  // namespace

void addCounts(QORIngestCounts& to, const QORIngestCounts& more) {
    to.added += more.added;
    to.replaced += more.replaced;
    to.unchanged += more.unchanged;
}

QORIngestCounts QORIngestResult::total() const {
    QORIngestCounts sum;
    for (const QORIngestCounts& kind : counts)
        addCounts(sum, kind);
    return sum;
}

std::uint64_t QORIngestResult::accepted() const {
    const QORIngestCounts sum = total();
    return sum.added + sum.replaced + sum.unchanged;
}

void QORIngestResult::merge(const QORIngestResult& other) {
    lastLine = std::max(lastLine, other.lastLine);
    for (std::size_t kind = 0; kind < counts.size(); ++kind)
        addCounts(counts[kind], other.counts[kind]);
    refused += other.refused;
    refusedLines.insert(refusedLines.end(), other.refusedLines.begin(), other.refusedLines.end());
    stopped = stopped || other.stopped;
    if (!failure) failure = other.failure;
}

/// One import: the batch that is being filled, and the result so far.
class QORIngest::Run {
public:
    /// One behind which nothing is left to be cleared up by others.
    Run(const QORIngestOptions& options, const QORIngestProgress& progress)
        : m_options(options), m_progress(progress), m_clearsAll(true) {}
    /// \param request null for one that is not sent again
    Run(const QORIngestOptions& options, const QORIngestProgress& progress, const QORIngestRequest* request)
        : m_options(options), m_progress(progress) {
        if (request == nullptr) return;
        m_ledger.emplace(*request);
        QORRdbmsTran tran(ASAccess::ReadOne);
        goOnFrom(m_ledger->find(*tran));
    }

    /// Of a request of which a part may not be stored, nothing is. \throws QORException errForbidden
    void judge(LineReader lines) {
        RecordRights rights(*m_options.scope);
        std::vector<QORRecord> records;
        std::vector<std::uint64_t> numbers;
        for (bool more = true; more;) {
            more = lines.next();
            if (more && !lines.tooLong() && !isPassedOver(lines.line())) {
                try {
                    records.push_back(m_parser.parse(lines.line()));
                    numbers.push_back(lines.number());
                } catch (const QORException&) {  // it is refused when its turn comes
                }
            }
            if (more && records.size() < m_options.batchRecords) continue;
            judge(rights, records, numbers);
            records.clear();
            numbers.clear();
        }
    }
    void judge(std::span<const QORRecord> records) {
        std::vector<std::uint64_t> numbers(records.size());
        std::iota(numbers.begin(), numbers.end(), 1);
        RecordRights rights(*m_options.scope);
        judge(rights, records, numbers);
    }

    /// Reads and stores until the end, a failure or a stop.
    QORIngestResult run(LineReader& lines, const std::stop_token& stop) {
        while (!m_result.failure && !isStopped(stop) && !hasEnded(m_result.lastLine + 1) && lines.next())
            takeLine(lines);
        flush();
        if (m_spread) SpreadBatch::clearUp(m_clearsAll);
        return std::move(m_result);
    }

    QORIngestResult run(std::span<const QORRecord> records, bool keepEqual, const std::stop_token& stop,
                        const QORStoredBeside& beside) {
        for (std::size_t at = 0; at < records.size() && !m_result.failure && !isStopped(stop);) {
            const auto batch =
                records.subspan(at, std::min(std::max<std::size_t>(m_options.batchRecords, 1), records.size() - at));
            m_result.lastLine = at + batch.size();
            for (std::size_t i = 0; i < batch.size(); ++i)
                m_lines.push_back(at + i + 1);
            m_batch.assign(batch.begin(), batch.end());
            for (QORRecord& record : m_batch)
                stamp(record);
            at += batch.size();
            if (at == records.size()) m_beside = beside;
            write(m_batch, keepEqual);
            m_batch.clear();
            m_lines.clear();
        }
        if (m_spread) SpreadBatch::clearUp(m_clearsAll);
        return std::move(m_result);
    }

private:
    static void judge(RecordRights& rights, std::span<const QORRecord> records,
                      std::span<const std::uint64_t> numbers) {
        if (records.empty()) return;
        StoredOwners owners;
        const auto placement = QORServers::instance().placement();
        if (!placement->none()) addOwnersAtServers(*placement, records, owners);
        QORRdbmsTran home(ASAccess::Read);
        owners.read(*home, records, false);
        rights.check(*home, records, numbers, owners);
    }

    bool isPassedOver(std::string_view line) { return isBlank(line) || m_parser.isAside(line); }

    /// Once more, where nothing changes until they are stored. \param owners what other servers tell, and then home too
    void judgeAgain(ASSession& home, std::span<const QORRecord> batch, StoredOwners& owners) const {
        owners.read(home, batch, true);
        RecordRights(*m_options.scope).check(home, batch, m_lines, owners);
    }

    bool isStopped(const std::stop_token& stop) {
        m_result.stopped = stop.stop_requested();
        return m_result.stopped;
    }

    /// What bad lines cost is bounded as well.
    bool hasEnded(std::uint64_t nextLine) {
        const QORRequestControl* const control = QORRequestControl::current();
        if (control == nullptr || (nextLine & 0xff) != 0 || !control->expired()) return false;
        if (m_batch.empty()) m_result.failure = QORIngestFailure{nextLine, nextLine, control->text()};
        return true;  // a batch that waits to be written finds out by itself
    }

    /// What was stored under the request's key is part of the result, and its lines are not taken again.
    void goOnFrom(std::optional<QORIngestResult> known) {
        if (!known) return;
        m_result = std::move(*known);
        m_doneLine = m_result.lastLine;
    }

    void takeLine(const LineReader& lines) {
        if (lines.number() <= m_doneLine) return;
        m_result.lastLine = lines.number();
        if (lines.tooLong()) {
            return refuse("longer than " + std::to_string(m_options.maxLineBytes) + " bytes");
        }
        if (isPassedOver(lines.line())) return;
        try {
            m_batch.push_back(m_parser.parse(lines.line()));
            stamp(m_batch.back());
        } catch (const QORException& error) {
            return refuse(error.message());
        }
        m_refusedInARow = 0;
        m_lines.push_back(lines.number());
        m_batchBytes += lines.line().size();
        if (m_batch.size() >= m_options.batchRecords || m_batchBytes >= m_options.batchBytes) flush();
    }

    void stamp(QORRecord& record) const {
        std::visit([this](QORStampedRecord& one) { one.reporter = m_options.reporter; }, record);
    }

    void refuse(std::string reason) {
        ++m_result.refused;
        if (m_result.refusedLines.size() < m_options.refusedKept) {
            m_result.refusedLines.push_back({m_result.lastLine, std::move(reason)});
        }
        if (++m_refusedInARow < m_options.refusedInARow) return;
        flush();
        if (m_result.failure) return;
        m_result.failure = QORIngestFailure{
            m_result.lastLine + 1, m_result.lastLine + 1,
            "the " + std::to_string(m_refusedInARow) + " lines before it are no records; the rest was not read"};
    }

    void flush() {
        if (m_batch.empty() || m_result.failure) return;
        write(m_batch, false);
        m_batch.clear();
        m_lines.clear();
        m_batchBytes = 0;
    }

    /// What became of a batch, or of the whole request where somebody else has gone further with it.
    struct Written {
        RecordBatchCounts counts;
        std::optional<QORIngestResult> elsewhere;
    };

    void write(std::span<const QORRecord> batch, bool keepEqual) {
        const std::uint64_t lastLine = m_result.lastLine;
        Written written;
        try {
            written = writeWhereItBelongs(batch, keepEqual, lastLine);
        } catch (const AException& error) {
            m_result.failure = QORIngestFailure{m_lines.front(), lastLine, error.text()};
            return;
        } catch (const QORException& error) {
            const bool partly = error.code() == errForbidden && m_result.accepted() > 0;
            if (error.code() != errDeadline && !partly) throw;
            m_result.failure = QORIngestFailure{m_lines.front(), lastLine, error.message()};
            return;
        }
        QORChangeWatch::noteStored();
        refreshCache(batch);
        if (written.elsewhere) return goOnFrom(std::move(written.elsewhere));
        for (std::size_t kind = 0; kind < written.counts.size(); ++kind)
            addCounts(m_result.counts[kind], written.counts[kind]);
        if (m_ledger) m_doneLine = lastLine;
        if (m_progress) m_progress(m_result);
    }

    /// A database whose records have been spread since it was looked at says so.
    Written writeWhereItBelongs(std::span<const QORRecord> batch, bool keepEqual, std::uint64_t lastLine) {
        auto placement = QORServers::instance().placement();
        if (!placement->none()) return writeSpread(std::move(placement), batch, keepEqual, lastLine);
        try {
            return writeHere(batch, keepEqual, lastLine);
        } catch (const AException& error) {
            if (error.sqlState() != keptByServers) throw;
            placement = QORServers::instance().refresh();
            if (placement->none()) throw;
        }
        return writeSpread(std::move(placement), batch, keepEqual, lastLine);
    }

    /// One transaction, which may have to be run again: what is known here changes once it is committed.
    Written writeHere(std::span<const QORRecord> batch, bool keepEqual, std::uint64_t lastLine) const {
        Written written;
        QORRdbms::instance().write([&](ASSession& session) {
            written = {};
            const bool isNew = isNewRequest(session, lastLine, written.elsewhere);
            if (written.elsewhere) return;
            StoredOwners owners;
            if (m_options.scope != nullptr) judgeAgain(session, batch, owners);
            if (batch.size() >= manyRecords) QORDBSchema::prepareManyWrites(session);
            written.counts = storeBatch(session, batch, keepEqual);
            if (m_options.scope != nullptr) checkNothingCame(written.counts, batch, owners);
            if (m_ledger) m_ledger->put(session, resultWith(written.counts), isNew);
            if (m_beside) m_beside(session);
        });
        return written;
    }

    /// A transaction at home before the parts, so that they have what they need, and one behind them, so that what is
    /// known there of the request is what has been stored everywhere.
    Written writeSpread(std::shared_ptr<const QORPlacement> placement, std::span<const QORRecord> batch, bool keepEqual,
                        std::uint64_t lastLine) {
        m_spread = true;
        Written written;
        StoredOwners elsewhere;
        if (m_options.scope != nullptr) addOwnersAtServers(*placement, batch, elsewhere);
        SpreadBatch spread(std::move(placement), batch, m_lines, keepEqual);
        QORRdbms::instance().write([&](ASSession& home) {
            written = {};
            const bool isNew = isNewRequest(home, lastLine, written.elsewhere);
            if (written.elsewhere) return;
            if (StoredOwners owners = elsewhere; m_options.scope != nullptr) judgeAgain(home, batch, owners);
            if (isNew) m_ledger->put(home, {}, true);
            spread.storeAtHome(home);
        });
        if (written.elsewhere) return written;
        spread.storeParts(m_ledger ? &*m_ledger : nullptr, m_doneLine);
        written.counts = spread.counts();
        if (m_beside) QORRdbms::instance().write(m_beside);
        if (!m_ledger) return written;
        QORRdbms::instance().write([&](ASSession& home) {
            written.elsewhere.reset();
            m_ledger->lock(home);
            std::optional<QORIngestResult> known = m_ledger->find(home);
            if (known && known->lastLine >= lastLine) {
                written.elsewhere = std::move(known);
            } else {
                m_ledger->put(home, resultWith(written.counts), !known);
            }
        });
        return written;
    }

    QORIngestResult resultWith(const RecordBatchCounts& counts) const {
        QORIngestResult result = m_result;
        for (std::size_t kind = 0; kind < counts.size(); ++kind)
            addCounts(result.counts[kind], counts[kind]);
        return result;
    }

    /// Another attempt at the same request may be at work, in this process or another one: this one waits for its
    /// batch. \param elsewhere what has become of the request where that went further than is known here
    /// \returns whether nobody has noted anything of it yet
    bool isNewRequest(ASSession& session, std::uint64_t lastLine, std::optional<QORIngestResult>& elsewhere) const {
        if (!m_ledger) return false;
        m_ledger->lock(session);
        std::optional<QORIngestResult> known = m_ledger->find(session);
        const std::uint64_t storedLine = known ? known->lastLine : 0;
        if (storedLine == m_doneLine) return !known;
        if (storedLine < lastLine) {
            throw QORException(errSameRequest, "a request with this Idempotency-Key is being worked on");
        }
        elsewhere = std::move(known);
        return false;
    }

    const QORIngestOptions& m_options;
    const QORIngestProgress& m_progress;
    QORRecordParser m_parser{QORRecordBounds::of(QORRdbms::instance().dialect())};
    std::vector<QORRecord> m_batch;
    std::size_t m_batchBytes = 0;
    std::vector<std::uint64_t> m_lines;  ///< of the batch's records
    std::uint64_t m_refusedInARow = 0;
    QORIngestResult m_result;
    std::optional<RequestLedger> m_ledger;
    std::uint64_t m_doneLine = 0;  ///< up to here the request is stored
    bool m_spread = false;         ///< servers have stored parts of it
    QORStoredBeside m_beside;      ///< of the present batch
    bool m_clearsAll = false;      ///< that they need not keep, at once
};

QORIngestRequest::QORIngestRequest(std::string_view requestKey, std::string_view lines, std::uint64_t firstLine,
                                   std::string_view owner)
    : key(requestKey) {
    constexpr std::size_t longestKey = 255;
    const bool visible = std::all_of(key.begin(), key.end(), [](char c) { return c > ' ' && c < '\x7f'; });
    if (key.empty() || key.size() > longestKey || !visible) {
        throw QORException(errBadRequest, "Idempotency-Key: " + quoteText(key) + " is not 1 to " +
                                              std::to_string(longestKey) + " visible characters of ASCII");
    }
    digest = QORDigest().add(std::to_string(firstLine) + "\n").add(lines).hex();
    // No key holds a blank, so that nobody's is like another one's.
    if (!owner.empty()) key.insert(0, std::string(owner) + " ");
}

QORIngest::QORIngest(QORIngestOptions options) : m_options(std::move(options)) {}

QORIngestResult QORIngest::importLines(std::istream& lines, const QORIngestProgress& progress,
                                       const std::stop_token& stop) {
    LineReader reader(lines, m_options.maxLineBytes);
    return Run(m_options, progress).run(reader, stop);
}

QORIngestResult QORIngest::importBatch(std::string_view lines, std::uint64_t firstLine,
                                       const QORIngestRequest* request) {
    LineReader reader(lines, m_options.maxLineBytes, firstLine);
    const QORIngestProgress none;
    Run run(m_options, none, request);
    if (m_options.scope != nullptr) run.judge(LineReader(lines, m_options.maxLineBytes, firstLine));
    return run.run(reader, {});
}

QORIngestResult QORIngest::store(std::span<const QORRecord> records, bool keepEqual, const std::stop_token& stop,
                                 const QORStoredBeside& beside) {
    const QORIngestProgress none;
    Run run(m_options, none);
    if (m_options.scope != nullptr) run.judge(records);
    return run.run(records, keepEqual, stop, beside);
}

}  // namespace QOR
