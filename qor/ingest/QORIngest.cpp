#include "ingest/QORIngest.h"

#include <algorithm>
#include <mutex>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QOREnvCache.h"
#include "ingest/LineReader.h"
#include "ingest/RecordWriter.h"
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

void addCounts(QORIngestCounts& to, const QORIngestCounts& more) {
    to.added += more.added;
    to.replaced += more.replaced;
    to.unchanged += more.unchanged;
}

// A few records are stored faster without preparations.
constexpr std::size_t manyRecords = 100;

/// Held while environments are stored and made known, when there are any and there is someone to tell.
std::unique_lock<std::mutex> lockCache(std::span<const QORRecord> batch) {
    QOREnvCache* const cache = envCache();
    const bool any = std::any_of(batch.begin(), batch.end(),
                                 [](const QORRecord& record) { return kindOf(record) == QORRecordKind::Environment; });
    return cache != nullptr && any ? cache->lockForWriting() : std::unique_lock<std::mutex>();
}

bool isBlank(std::string_view line) {
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

}  // namespace

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
    Run(const QORIngestOptions& options, const QORIngestProgress& progress)
        : m_options(options), m_progress(progress) {}

    /// Reads and stores until the end, a failure or a stop.
    QORIngestResult run(LineReader& lines, const std::stop_token& stop) {
        while (!m_result.failure && !isStopped(stop) && lines.next())
            takeLine(lines);
        flush();
        return std::move(m_result);
    }

    QORIngestResult run(std::span<const QORRecord> records, bool keepEqual, const std::stop_token& stop) {
        for (std::size_t at = 0; at < records.size() && !m_result.failure && !isStopped(stop);) {
            const auto batch =
                records.subspan(at, std::min(std::max<std::size_t>(m_options.batchRecords, 1), records.size() - at));
            m_result.lastLine = at + batch.size();
            write(batch, keepEqual, at + 1, m_result.lastLine);
            at += batch.size();
        }
        return std::move(m_result);
    }

private:
    bool isStopped(const std::stop_token& stop) {
        m_result.stopped = stop.stop_requested();
        return m_result.stopped;
    }

    void takeLine(const LineReader& lines) {
        m_result.lastLine = lines.number();
        if (lines.tooLong()) {
            return refuse("longer than " + std::to_string(m_options.maxLineBytes) + " bytes");
        }
        if (isBlank(lines.line())) return;
        try {
            m_batch.push_back(m_parser.parse(lines.line()));
        } catch (const QORException& error) {
            return refuse(error.message());
        }
        m_refusedInARow = 0;
        if (m_batch.size() == 1) m_firstLine = lines.number();
        m_batchBytes += lines.line().size();
        if (m_batch.size() >= m_options.batchRecords || m_batchBytes >= m_options.batchBytes) flush();
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
        write(m_batch, false, m_firstLine, m_result.lastLine);
        m_batch.clear();
        m_batchBytes = 0;
    }

    /// One transaction. Counts are added once it is committed.
    void write(std::span<const QORRecord> batch, bool keepEqual, std::uint64_t firstLine, std::uint64_t lastLine) {
        std::array<QORIngestCounts, recordKindCount> counts;
        try {
            const auto caching = lockCache(batch);
            QORRdbmsTran tran(ASAccess::Write);
            if (batch.size() >= manyRecords) QORDBSchema::prepareManyWrites(*tran);
            RecordWriter writer(*tran, keepEqual);
            for (const QORRecord& record : batch)
                count(counts[record.index()], writer.store(record));
            writer.finish();
            tran.commit();
            if (caching) envCache()->update(writer.takeEnvironments());
        } catch (const AException& error) {
            m_result.failure = QORIngestFailure{firstLine, lastLine, error.text()};
            return;
        }
        for (std::size_t kind = 0; kind < counts.size(); ++kind)
            addCounts(m_result.counts[kind], counts[kind]);
        if (m_progress) m_progress(m_result);
    }

    const QORIngestOptions& m_options;
    const QORIngestProgress& m_progress;
    QORRecordParser m_parser;
    std::vector<QORRecord> m_batch;
    std::size_t m_batchBytes = 0;
    std::uint64_t m_firstLine = 0;
    std::uint64_t m_refusedInARow = 0;
    QORIngestResult m_result;
};

QORIngest::QORIngest(QORIngestOptions options) : m_options(options) {}

QORIngestResult QORIngest::importLines(std::istream& lines, const QORIngestProgress& progress,
                                       const std::stop_token& stop) {
    LineReader reader(lines, m_options.maxLineBytes);
    return Run(m_options, progress).run(reader, stop);
}

QORIngestResult QORIngest::importBatch(std::string_view lines, std::uint64_t firstLine) {
    LineReader reader(lines, m_options.maxLineBytes, firstLine);
    const QORIngestProgress none;
    return Run(m_options, none).run(reader, {});
}

QORIngestResult QORIngest::store(std::span<const QORRecord> records, bool keepEqual, const std::stop_token& stop) {
    const QORIngestProgress none;
    return Run(m_options, none).run(records, keepEqual, stop);
}

}  // namespace QOR
