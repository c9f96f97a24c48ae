#include "ingest/CollectorRun.h"

#include <utility>

#include "QORCommon/QORException.h"
#include "ingest/CollectorPosition.h"
#include "ingest/QORIngest.h"
#include "ingest/QORMachine.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

CollectorRun::CollectorRun(std::string collector, const QORCollectOptions& options, std::stop_token stop)
    : m_collector(std::move(collector)),
      m_options(options),
      m_stop(std::move(stop)),
      m_machine(describeMachine(options.root).eid),
      m_before(readCollectorPosition(m_machine, m_collector)),
      m_position(m_before),
      m_parser(QORRecordBounds::of(QORRdbms::instance().dialect())) {}

void CollectorRun::add(std::string_view record) {
    if (isStopping()) return;
    try {
        m_records.push_back(m_parser.parse(record));
    } catch (const QORException& error) {
        ++m_result.stored.refused;
        if (m_result.text.empty()) m_result.text = "a record makes no sense: " + error.message();
        return;
    }
    if (m_records.size() >= m_options.ingest.batchRecords) flush();
}

void CollectorRun::flush(const QORStoredBeside& beside) {
    if (m_records.empty() || m_ended) return;
    // What it throws is the host's business and not the collector's, through which it would pass.
    try {
        m_result.stored.merge(QORIngest(m_options.ingest).store(m_records, true, {}, beside));
    } catch (...) {
        m_thrown = std::current_exception();
    }
    m_records.clear();
    if (m_options.stored) m_options.stored();
    m_ended = m_thrown != nullptr || m_result.stored.failure.has_value();
}

void CollectorRun::storeRest(const QORStoredBeside& position) {
    if (!m_records.empty()) return flush(position);
    if (position && !m_ended) QORRdbms::instance().write(position);
}

QORCollectResult CollectorRun::end(const std::string& failure) {
    // What is told to end may have passed over records, and whoever told it so may not want the rest any more.
    m_result.stored.stopped = m_stop.stop_requested();
    if (m_result.text.empty()) m_result.text = failure;
    QORStoredBeside position;
    if (m_result.text.empty() && m_position != m_before)
        position = [this](ASSession& session) { storeCollectorPosition(session, m_machine, m_collector, m_position); };
    if (!m_result.stored.stopped) storeRest(position);
    if (m_thrown) std::rethrow_exception(m_thrown);
    if (m_result.stored.failure) m_result.text = m_result.stored.failure->reason;
    if (m_result.text.empty() && m_result.stored.stopped) m_result.text = "it was told to end before it was done";
    if (m_result.text.empty() && !m_result.unreadable.empty())
        m_result.text = "it cannot read " + m_result.unreadable.front();
    return std::move(m_result);
}

}  // namespace QOR
