/// \file
/// One run of a collector: takes its records and stores them.
#pragma once

#include <exception>
#include <filesystem>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "QORFunctionality/QORCollector.h"
#include "ingest/QORCollectors.h"
#include "ingest/QORRecords.h"

namespace QOR {

/// Records are stored as they come, many at a time, by the thread that runs the collector.
class CollectorRun final : public QORCollection {
public:
    /// Reads how far the last run came. \throws AException
    CollectorRun(std::string collector, const QORCollectOptions& options, std::stop_token stop);

    const std::filesystem::path& root() const noexcept override { return m_options.root; }
    const QOREID& machine() const noexcept override { return m_machine; }
    const std::string& position() const noexcept override { return m_before; }
    bool isStopping() const noexcept override { return m_ended || m_stop.stop_requested(); }
    void add(std::string_view record) override;
    void setPosition(std::string position) override { m_position = std::move(position); }
    void cannotRead(std::string what) override { m_result.unreadable.push_back(std::move(what)); }
    void passOver(std::uint64_t lines) override { m_result.malformed += lines; }

    /// Stores the rest, unless it was told to end, and how far it came when everything has been stored: in one
    /// transaction, so that a crash in between does not have the next run tell alerts again. \param failure
    /// why the collector gave up; empty where it did not \throws what storing threw, when the collector ran or now
    QORCollectResult end(const std::string& failure);

private:
    void flush(const QORStoredBeside& beside = {});
    void storeRest(const QORStoredBeside& position);

    const std::string m_collector;
    const QORCollectOptions& m_options;
    const std::stop_token m_stop;
    const QOREID m_machine;
    const std::string m_before;
    std::string m_position;
    QORRecordParser m_parser;
    std::vector<QORRecord> m_records;
    QORCollectResult m_result;
    std::exception_ptr m_thrown;
    bool m_ended = false;  ///< nothing more is stored
};

}  // namespace QOR
