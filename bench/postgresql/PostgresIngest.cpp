#include <libpq-fe.h>

#include <array>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "QORCommon/QORTime.h"
#include "postgresql/PostgresBench.h"
#include "support/Operations.h"

namespace QOR::bench {
namespace {

constexpr std::uint64_t span = 1'000'000;  ///< of the operations that are made, whose first ones are stored
constexpr std::uint64_t batchSize = 1000;

struct Finish {
    void operator()(PGconn* connection) const noexcept { PQfinish(connection); }
    void operator()(PGresult* result) const noexcept { PQclear(result); }
};

/// An operation as the texts of its rows, made before the clock runs.
struct Texts {
    std::array<std::string, 7> operation;             ///< seq, id, op, status, time, eid, message
    std::vector<std::array<std::string, 5>> touched;  ///< operation, position, eid, own, time
};

Texts textsOf(const QOROperationRecord& record, std::uint64_t sequence) {
    const std::string seq = std::to_string(sequence);
    const std::string time = time2dbstr(record.time);
    const std::string eid = record.eid.toString();
    Texts texts{
        {seq, record.id, *record.op, std::to_string(record.status), time, eid, record.message->serializeToString()},
        {}};
    for (const QOREID& other : record.eids)
        texts.touched.push_back({seq, std::to_string(texts.touched.size()), other.toString(), eid, time});
    return texts;
}

void dropTriggers(PostgresConnection&& connection) {
    connection.run(
        "DO $$ DECLARE t record; BEGIN FOR t IN SELECT tgname, tgrelid::regclass AS of FROM pg_trigger "
        "WHERE NOT tgisinternal LOOP EXECUTE format('DROP TRIGGER %I ON %s', t.tgname, t.of); END LOOP; END $$");
}

/// Rows by prepared inserts of the engine's own library, one after the other, a thousand operations a transaction.
class ByLibrary {
public:
    explicit ByLibrary(const PostgresDatabase& database)
        : m_connection(PQconnectdb(PostgresServer::shared().conninfo(database.name()).c_str())) {
        succeed(PQprepare(m_connection.get(), "operation",
                          "INSERT INTO qor_operation (seq, id, op, status, time, eid, message) "
                          "VALUES ($1, $2, $3, $4, $5, $6, $7)",
                          0, nullptr));
        succeed(PQprepare(m_connection.get(), "touched",
                          "INSERT INTO qor_operation_environment (operation, position, eid, own, time) "
                          "VALUES ($1, $2, $3, $4, $5)",
                          0, nullptr));
    }

    void store(const std::vector<Texts>& rows) {
        for (std::size_t at = 0; at < rows.size(); at += batchSize) {
            succeed(PQexec(m_connection.get(), "BEGIN"));
            for (std::size_t i = at; i < std::min<std::size_t>(at + batchSize, rows.size()); ++i) {
                insert("operation", rows[i].operation);
                for (const auto& touched : rows[i].touched)
                    insert("touched", touched);
            }
            succeed(PQexec(m_connection.get(), "COMMIT"));
        }
    }

private:
    void succeed(PGresult* taken) {
        const std::unique_ptr<PGresult, Finish> result(taken);
        check(PQresultStatus(result.get()) == PGRES_COMMAND_OK, PQerrorMessage(m_connection.get()));
    }
    template <std::size_t size>
    void insert(const char* statement, const std::array<std::string, size>& texts) {
        std::array<const char*, size> values{};
        for (std::size_t i = 0; i < size; ++i)
            values[i] = texts[i].c_str();
        succeed(
            PQexecPrepared(m_connection.get(), statement, static_cast<int>(size), values.data(), nullptr, nullptr, 0));
    }

    std::unique_ptr<PGconn, Finish> m_connection;
};

/// The same rows into the same tables with the same indexes, and nothing else: nothing is counted.
class Bare {
public:
    explicit Bare(const PostgresDatabase& database) : m_library(database) { dropTriggers(database.connect()); }

    /// \returns seconds
    double store(std::uint64_t count) {
        std::vector<Texts> rows;
        for (const QORRecord& record : makeBatch(m_stored, count, span))
            rows.push_back(textsOf(std::get<QOROperationRecord>(record), ++m_stored));
        return wallSeconds([&] { m_library.store(rows); });
    }

private:
    ByLibrary m_library;
    std::uint64_t m_stored = 0;
};

class Ours {
public:
    Ours() { m_options.batchRecords = batchSize; }
    /// \returns seconds
    double store(std::uint64_t count) { return storeNext(m_options, m_stored, count, span); }

private:
    QORIngestOptions m_options;
    std::uint64_t m_stored = 0;
};

/// Some who store at the same time, each the records of environments of his own, as agents do.
class Writers {
public:
    static constexpr unsigned number = 4;

    explicit Writers(bool counted) {
        if (!counted) dropTriggers(m_log.database().connect());
    }
    /// \returns seconds
    double store(std::uint64_t each) {
        m_log.open();
        std::vector<std::vector<QORRecord>> batches;
        for (unsigned writer = 0; writer < number; ++writer)
            batches.push_back(recordsOf(writer, each));
        m_stored += each;
        return wallSeconds([&] {
            std::vector<std::jthread> threads;
            for (const auto& batch : batches)
                threads.emplace_back([&batch] { storeAll(batch); });
        });
    }
    /// The same by the library, where each has a connection of his own. \returns seconds
    double storeByLibrary(std::uint64_t each) {
        while (m_libraries.size() < number)
            m_libraries.push_back(std::make_unique<ByLibrary>(m_log.database()));
        std::vector<std::vector<Texts>> batches(number);
        for (unsigned writer = 0; writer < number; ++writer) {
            std::uint64_t sequence = number * m_stored + writer * each;
            for (const QORRecord& record : recordsOf(writer, each))
                batches[writer].push_back(textsOf(std::get<QOROperationRecord>(record), ++sequence));
        }
        m_stored += each;
        return wallSeconds([&] {
            std::vector<std::jthread> threads;
            for (unsigned writer = 0; writer < number; ++writer)
                threads.emplace_back([&, writer] { m_libraries[writer]->store(batches[writer]); });
        });
    }
    std::uint64_t stored() const noexcept { return number * m_stored; }
    const PostgresDatabase& database() const noexcept { return m_log.database(); }

private:
    std::vector<QORRecord> recordsOf(unsigned writer, std::uint64_t count) const {
        constexpr unsigned own = 20;
        std::vector<QORRecord> records = makeBatch(m_stored, count, span);
        for (std::size_t i = 0; i < records.size(); ++i) {
            auto& operation = std::get<QOROperationRecord>(records[i]);
            operation.id += '-' + std::to_string(writer);
            operation.eid = eidOf(environments + own * writer + i % own);
            operation.eids.clear();
        }
        return records;
    }
    static void storeAll(const std::vector<QORRecord>& records) {
        QORIngestOptions options;
        options.batchRecords = batchSize;
        const QORIngestResult result = QORIngest(options).store(records, false);
        check(!result.failure && result.accepted() == records.size(), "the records were not stored");
    }

    const Log m_log{0};
    std::vector<std::unique_ptr<ByLibrary>> m_libraries;
    std::uint64_t m_stored = 0;
};

std::string content(const PostgresDatabase& database) {
    return database.connect().cell(
        "SELECT count(*) || ' ' || min(id) || ' ' || max(id) || ' ' || sum(status) || ' ' || max(time) || ' ' || "
        "(SELECT count(*) || ' ' || sum(operation) FROM qor_operation_environment) FROM qor_operation");
}

}  // namespace

void measureWriters(Figures& figures) {
    Writers library(false);
    Writers bare(false);
    Writers counted(true);
    const std::uint64_t each = (figures.smallest() ? 1 : 10) * batchSize;
    const unsigned rounds = figures.smallest() ? 1 : 9;
    const Turns beside = takeTurns(
        rounds, [&] { return library.storeByLibrary(each); }, [&] { return counted.store(each); });
    figures.printRates("operations of 4 writers, 1000 a transaction", beside,
                       static_cast<double>(Writers::number * each), Goal::atLeast(1));
    const Turns turns = takeTurns(
        rounds, [&] { return bare.store(each); }, [&] { return counted.store(each); });
    check(counted.database().connect().cell("SELECT sum(n) FROM qor_operation_count WHERE scope = '' AND level = 24") ==
              std::to_string(counted.stored()),
          "the counters are wrong");
    figures.printRates("operations of 4 writers, beside the same uncounted", turns,
                       static_cast<double>(Writers::number * each), Goal::atLeast(0.5));
}

void measureIngest(Figures& figures) {
    const Log bareLog(0);
    Bare bare(bareLog.database());
    const Log oursLog(0);
    Ours ours;
    const std::uint64_t perTurn = (figures.smallest() ? 1 : 20) * batchSize;
    const Turns turns = takeTurns(
        figures.smallest() ? 1 : 9, [&] { return bare.store(perTurn); }, [&] { return ours.store(perTurn); });
    const std::string counted =
        oursLog.database().connect().cell("SELECT sum(n) FROM qor_operation_count WHERE scope = '' AND level = 24");
    const std::string stored = content(oursLog.database());
    check(stored == content(bareLog.database()), "the rows differ: " + stored);
    check(stored.starts_with(counted + " "), "the counters say " + counted + " of " + stored);
    figures.printRates("operations, 1000 a transaction", turns, static_cast<double>(perTurn), Goal::atLeast(1));
}

}  // namespace QOR::bench
