#include "copy/QORDatabaseCopy.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <future>
#include <map>
#include <optional>
#include <thread>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORSchemaTables.h"
#include "QORLibAgent/QORLogCheck.h"
#include "copy/CopyReader.h"
#include "copy/CopyRows.h"
#include "copy/CopyWriter.h"
#include "host/QORDatabaseLock.h"
#include "rdbmspp/engine/OdbcConnectionString.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

using Part = QORCopyProgress::Part;

[[noreturn]] void refuse(const std::string& what, const std::string& connection, const std::string& why) {
    throw QORException(errFailure,
                       "the " + what + " " + quoteText(QORDBSchema::databaseName(connection), 1024) + " " + why,
                       QOR_SOURCE_PATH, __LINE__);
}

/// Ends a copy that is to be gone on with.
class Stopped : public std::exception {};

/// A table in both databases.
struct Pair {
    QORSchemaTable source;
    QORSchemaTable target;  ///< its columns in the order of the source's
};

std::string identityOf(ASSession& session) {
    ASStatement& select = session.prepare("SELECT id FROM qor_database");
    select.execute();
    std::string id(select.fetch() ? select.text(1) : std::string_view());
    select.close();
    return id;
}

/// A database whose records servers keep has none itself, and a server has only some of them.
void requireWhole(ASSession& session, const std::string& what, const std::string& connection) {
    if (session.engine() != ASEngine::PostgreSQL) return;
    ASStatement& select = session.prepare("SELECT (SELECT count(*) FROM qor_server), (SELECT count(*) FROM qor_held)");
    select.execute();
    const bool found = select.fetch();
    const bool isHome = found && select.integer(1) != 0;
    const bool isServer = found && select.integer(2) != 0;
    select.close();
    if (isHome)
        refuse(what, connection,
               "has its records with several servers, which are not copied: back up and restore it and its servers by "
               "the engine's own means. Records that shall be spread are copied first, and spread where they are then");
    if (isServer) refuse(what, connection, "is a server that keeps a part of the records of another database");
}

void requireCopyable(ASSession& session, const std::string& connection) {
    const QORSchemaState state = QORDBSchema::inspect(session);
    const int current = QORDBSchema::currentVersion();
    if (state.kind == QORSchemaState::Kind::Empty) refuse("source", connection, "is empty: there is nothing to copy");
    if (state.kind == QORSchemaState::Kind::Foreign)
        refuse("source", connection, "is another program's: it holds tables or views that are not this host's");
    if (state.filling) refuse("source", connection, "holds a part of another database: a copy into it has not ended");
    if (state.version == current) return requireWhole(session, "source", connection);
    const std::string versions = "has version " + std::to_string(state.version) +
                                 " of the schema, and this program copies version " + std::to_string(current);
    if (state.version > current) refuse("source", connection, versions + ": use the newer program that wrote it");
    refuse("source", connection,
           versions +
               ". A copy leaves its source as it is: start this version's qor-agent on it once, which brings it up "
               "to date (keep a backup of it for the older version)");
}

/// So that a server tells this program's sessions from those of agents; drivers of files take no notice of it.
std::string namedApart(const std::string& connection) {
    OdbcConnectionString string(connection);
    string.set("pqopt", "{" + string.get("pqopt") + " application_name=qor-copy}");
    return string.text();
}

/// Who has a database on a server open goes on asking it and writing to it, whatever happens to its tables.
std::int64_t openSessions(ASSession& session) {
    ASStatement& select = session.prepare(
        "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND usename = current_user "
        "AND application_name = 'qor'");
    select.execute();
    const std::int64_t found = select.fetch() ? select.integer(1) : 0;
    select.close();
    return found;
}

std::vector<Pair> pairTables(std::vector<QORSchemaTable> source, const std::vector<QORSchemaTable>& target) {
    std::vector<Pair> pairs;
    for (QORSchemaTable& from : source) {
        const auto to = std::find_if(target.begin(), target.end(),
                                     [&](const QORSchemaTable& table) { return table.name == from.name; });
        const bool fits = to != target.end() && to->columns.size() == from.columns.size() && !from.key.empty();
        QORSchemaTable ordered{from.name, {}, {}};
        for (const QORSchemaColumn& column : from.columns) {
            if (!fits) break;
            const auto same = std::find_if(to->columns.begin(), to->columns.end(),
                                           [&](const QORSchemaColumn& other) { return other.name == column.name; });
            if (same != to->columns.end()) ordered.columns.push_back(*same);
        }
        if (!fits || ordered.columns.size() != from.columns.size())
            throw QORException(errFailure, "the table " + from.name + " is not the same in both databases",
                               QOR_SOURCE_PATH, __LINE__);
        ordered.key = from.key;
        pairs.push_back({std::move(from), std::move(ordered)});
    }
    return pairs;
}

/// Takes a table's rows to somebody, and reads the next ones meanwhile.
template <class Take>
void walk(CopyReader& reader, std::size_t columns, Take take) {
    CopyRows rows(columns);
    CopyRows next(columns);
    for (bool more = reader.next(rows); more; std::swap(rows, next)) {
        auto ahead = std::async(std::launch::async, [&] { return reader.next(next); });
        take(rows);
        more = ahead.get();
    }
}

}  // namespace

class QORDatabaseCopy::Impl {
public:
    explicit Impl(QORCopyOptions options) : m_options(std::move(options)) {
        m_source.configure({.connectionString = namedApart(m_options.from), .readOnly = true});
        m_snapshot.emplace(m_source, ASAccess::Read);
        m_session = &**m_snapshot;
        requireCopyable(*m_session, m_options.from);
        m_lock.emplace(m_options.to);
        QORDBSchema::open({.connectionString = namedApart(m_options.to)}, QORSchemaMode::Filling);
    }
    ~Impl() {
        m_snapshot.reset();
        QORRdbms::instance().shutdown();
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    QORCopyReport run() {
        QORCopyReport report;
        try {
            copy(report);
        } catch (const Stopped&) {
            report.stopped = true;
            return report;
        }
        m_snapshot.reset();
        report.changed = changedTables();
        for (const Pair& pair : m_tables)
            report.tables.push_back({pair.source.name, sum(pair).records, sum(pair).digest});
        return report;
    }

private:
    void copy(QORCopyReport& report) {
        const std::map<std::string, CopySum> known = prepare();
        report.resumed = !known.empty();
        requireClosed();
        addUpSource();
        known.empty() ? begin() : requireUnchanged(known);
        requireClosed();  // from here on nobody opens it any more
        copyTables();
        tell(Part::Indexing);
        write([](ASSession& session) { QORDBSchema::completeFilling(session); });
        check();
        tell(Part::Counting);
        report.miscounted = countMiscounted();
        write([](ASSession& session) { QORDBSchema::endFilling(session); });
    }

    /// Makes sure that the target is fit. \returns what an earlier run has noted, nothing where there was none
    std::map<std::string, CopySum> prepare() {
        QORRdbmsTran target(ASAccess::Read);
        requireWhole(*target, "target", m_options.to);
        m_tables = pairTables(readTables(*m_session), readTables(*target));
        if (QORDBSchema::inspect(*target).filling) return readNotes(*target);
        if (identityOf(*target) == identityOf(*m_session))
            refuse("target", m_options.to, "is the source itself, or was copied from its files");
        for (const Pair& pair : m_tables) {
            if (!CopyReader::last(*target, pair.target).empty())
                refuse("target", m_options.to,
                       "holds records (" + pair.target.name + "): a copy needs a database without any");
        }
        return {};
    }

    /// Makes sure that nobody has the target open. A program that has just ended is known to a server for a moment
    /// more.
    void requireClosed() const {
        constexpr auto patience = std::chrono::seconds(3);
        constexpr auto betweenLooks = std::chrono::milliseconds(50);
        if (QORRdbms::instance().engine() != ASEngine::PostgreSQL) return;
        const auto until = std::chrono::steady_clock::now() + patience;
        for (;;) {
            std::int64_t others = 0;
            QORRdbms::instance().read(ASAccess::Read, [&](ASSession& target) { others = openSessions(target); });
            if (others == 0) return;
            if (std::chrono::steady_clock::now() >= until)
                refuse("target", m_options.to,
                       "is open in an agent or another qorctl, with " + std::to_string(others) +
                           (others == 1 ? " connection" : " connections") +
                           ": stop whoever has it; what has been copied stays, and the same command goes on");
            std::this_thread::sleep_for(betweenLooks);
        }
    }

    std::map<std::string, CopySum> readNotes(ASSession& target) const {
        std::map<std::string, CopySum> notes;
        ASStatement& select = target.prepare("SELECT part, records, digest FROM qor_copy");
        select.execute();
        while (select.fetch())
            notes[std::string(select.text(1))] = {static_cast<std::uint64_t>(select.integer(2)),
                                                  std::string(select.text(3))};
        select.close();
        return notes;
    }

    void addUpSource() {
        begin(Part::Reading, total([&](const Pair& pair) { return CopyReader::count(*m_session, pair.source); }));
        for (const Pair& pair : m_tables) {
            m_sums[pair.source.name] =
                addUp(*m_session, pair.source, [&](const CopyRows& rows) { requireStorable(pair, rows); });
        }
    }

    template <class Look>
    CopySum addUp(ASSession& session, const QORSchemaTable& table, Look look) {
        CopyReader reader(session, table);
        CopySumming summing(table.columns.size());
        walk(reader, table.columns.size(), [&](const CopyRows& rows) {
            look(rows);
            summing.add(rows);
            advance(rows.size());
        });
        return summing.sum();
    }

    static void requireStorable(const Pair& pair, const CopyRows& rows) {
        const ASEngine engine = QORRdbms::instance().engine();
        for (std::size_t row = 0; row < rows.size(); ++row) {
            for (std::size_t i = 0; i < pair.target.columns.size(); ++i) {
                const auto value = rows.value(row, i);
                const char* const fault =
                    value ? CopyWriter::faultOf(engine, pair.target.columns[i].kind, *value) : nullptr;
                if (fault == nullptr) continue;
                std::string where = pair.source.name;
                for (const std::size_t index : pair.source.key)
                    where += ", " + pair.source.columns[index].name + " " + quoteText(*rows.value(row, index));
                throw QORException(errFailure,
                                   where + ": " + pair.target.columns[i].name + " " + quoteText(*value) + " " + fault +
                                       ", which the target cannot keep; change it in the source",
                                   QOR_SOURCE_PATH, __LINE__);
            }
        }
    }

    /// What is noted tells another run whether it goes on with the same copy.
    void begin() {
        write([this](ASSession& session) {
            QORDBSchema::beginFilling(session);
            const auto note = [&](const std::string& part, const CopySum& sum) {
                session
                    .prepare(
                        "INSERT INTO qor_copy (part, records, digest) VALUES (CAST(? AS text), CAST(? AS bigint), "
                        "CAST(? AS text))")
                    .bind(1, std::string_view(part))
                    .bind(2, static_cast<std::int64_t>(sum.records))
                    .bind(3, std::string_view(sum.digest))
                    .execute();
            };
            note({}, {0, identityOf(*m_session)});
            for (const Pair& pair : m_tables)
                note(pair.source.name, sum(pair));
        });
    }

    void requireUnchanged(const std::map<std::string, CopySum>& known) const {
        const auto source = known.find({});
        if (source == known.end() || source->second.digest != identityOf(*m_session))
            refuse("target", m_options.to,
                   "holds a part of another source than " + quoteText(QORDBSchema::databaseName(m_options.from), 1024) +
                       ": name that one, or make the target anew");
        for (const Pair& pair : m_tables) {
            const auto then = known.find(pair.source.name);
            if (then != known.end() && then->second == sum(pair)) continue;
            const std::uint64_t records = then == known.end() ? 0 : then->second.records;
            refuse("source", m_options.from,
                   "has changed since the copy began (" + pair.source.name + " had " + std::to_string(records) +
                       " records and has " + std::to_string(sum(pair).records) +
                       "), and the target holds a part of what it was. Make the target anew, and let nobody write to "
                       "the source until the copy has ended");
        }
    }

    void copyTables() {
        std::map<std::string, CopyReader::Key> behind;
        std::uint64_t there = 0;
        {
            QORRdbmsTran target(ASAccess::Read);
            for (const Pair& pair : m_tables) {
                behind[pair.target.name] = CopyReader::last(*target, pair.target);
                there += CopyReader::count(*target, pair.target);
            }
        }
        begin(Part::Copying, total([&](const Pair& pair) { return sum(pair).records; }));
        m_progress.resumed = there;
        advance(there);
        for (const Pair& pair : m_tables) {
            CopyReader reader(*m_session, pair.source, behind[pair.target.name]);
            const CopyWriter writer(QORRdbms::instance().engine(), pair.target);
            walk(reader, pair.source.columns.size(), [&](const CopyRows& rows) {
                write([&](ASSession& session) {
                    QORDBSchema::prepareManyWrites(session);
                    writer.write(session, rows);
                });
                advance(rows.size());
            });
        }
    }

    /// Reads back what was written.
    void check() {
        QORRdbmsTran target(ASAccess::Read);
        begin(Part::Checking, total([&](const Pair& pair) { return sum(pair).records; }));
        for (const Pair& pair : m_tables) {
            const CopySum found = addUp(*target, pair.target, [](const CopyRows&) {});
            if (found == sum(pair)) continue;
            refuse("target", m_options.to,
                   "is not what the source is: " + pair.target.name + " holds " + std::to_string(found.records) +
                       " records with the digest " + found.digest + ", the source's " +
                       std::to_string(sum(pair).records) + " with " + sum(pair).digest +
                       ". Somebody else has written to it; make it anew");
        }
    }

    static std::uint64_t countMiscounted() {
        QORRdbmsTran target(ASAccess::Read);
        return findMiscountedScopes(*target, QORLogKind::Operations).size() +
               findMiscountedScopes(*target, QORLogKind::Events).size();
    }

    /// Told by what a look at the tables costs little for.
    std::vector<std::string> changedTables() {
        QORRdbmsTran now(m_source, ASAccess::Read);
        std::vector<std::string> changed;
        for (const Pair& pair : m_tables) {
            if (CopyReader::count(*now, pair.source) != sum(pair).records) changed.push_back(pair.source.name);
        }
        return changed;
    }

    const CopySum& sum(const Pair& pair) const { return m_sums.at(pair.source.name); }

    template <class Count>
    std::uint64_t total(Count count) const {
        std::uint64_t records = 0;
        for (const Pair& pair : m_tables)
            records += count(pair);
        return records;
    }

    static void write(const std::function<void(ASSession&)>& work) { QORRdbms::instance().write(work); }

    void begin(Part part, std::uint64_t records) {
        m_progress = {part, 0, records, 0};
        advance(0);
    }
    void tell(Part part) { begin(part, 0); }
    void advance(std::uint64_t records) {
        m_progress.records += records;
        if (m_options.progress) m_options.progress(m_progress);
        if (m_options.stop && m_options.stop()) throw Stopped();
    }

    const QORCopyOptions m_options;
    QORRdbms m_source;
    std::optional<QORRdbmsTran> m_snapshot;  ///< the source as it was at one moment
    ASSession* m_session = nullptr;          ///< of that
    std::optional<QORDatabaseLock> m_lock;   ///< on the target
    std::vector<Pair> m_tables;
    std::map<std::string, CopySum> m_sums;  ///< of the source, by table
    QORCopyProgress m_progress;
};

QORDatabaseCopy::QORDatabaseCopy(QORCopyOptions options) : m_impl(std::make_unique<Impl>(std::move(options))) {}
QORDatabaseCopy::~QORDatabaseCopy() = default;

QORCopyReport QORDatabaseCopy::run() {
    return m_impl->run();
}

}  // namespace QOR
