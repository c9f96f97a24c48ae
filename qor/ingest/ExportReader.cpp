#include "ingest/ExportReader.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORHandover.h"
#include "QORServers/QORServers.h"
#include "ingest/RecordLines.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

/// Of one piece: a position costs as much as a short record, and what is read again behind one is no more than this.
constexpr std::size_t recordsAtOnce = 500;
/// Documents of one piece; a larger one is a piece of its own.
constexpr std::int64_t bytesAtOnce = std::int64_t{1} << 20;
/// Numbers of arrival among which a piece looks for what is wanted, where that is not all: as many rows as an engine
/// reads in a fraction of a second.
constexpr std::int64_t numbersAtOnce = 50'000;

/// Where records of a kind are, by QORRecordKind.
struct ExportTable {
    const char* table;
    const char* place;  ///< the column whose order they come in
    const char* id;     ///< what readRecordLines() asks for
    std::vector<const char*> documents;
};

const ExportTable& exportTable(QORRecordKind kind) {
    static const std::array<ExportTable, recordKindCount> tables{
        {{"qor_environment", "eid", "eid", {"config", "virtual_config"}},
         {"qor_operation", "seq", "id", {"message"}},
         {"qor_event", "seq", "seq", {"info"}},
         {"qor_backup", "seq", "id", {"info"}}}};
    return tables[static_cast<std::size_t>(kind)];
}

/// A record that comes next.
struct FoundRecord {
    std::string id;
    std::string place;
    std::int64_t number = 0;  ///< the place as a number; not of environments
    std::int64_t bytes = 0;   ///< of its documents
    std::size_t part = 0;     ///< which database it was found in
};

/// What comes next in one database, or in all of them.
struct FoundRecords {
    std::vector<FoundRecord> records{};
    std::optional<std::string> horizon{};  ///< up to there nothing is missing; nothing: there is no more
};

/// Finds records behind a place in one database.
class ExportSelect {
public:
    ExportSelect(ASSession& session, const QORExportPosition& position, const std::optional<ExportOwners>& owners)
        : m_session(session),
          m_position(position),
          m_table(exportTable(*position.kind)),
          m_owners(owners),
          m_isSqlite(session.engine() == ASEngine::SQLite),
          m_isEnvironment(*position.kind == QORRecordKind::Environment) {}

    FoundRecords find() {
        FoundRecords found;
        if (isNarrowed()) {
            const auto last = lastNumber();
            if (!last) return found;
            found.horizon = std::to_string(*last);
        }
        ASStatement& select = m_session.prepare(sql());
        bind(select, found.horizon);
        select.execute();
        std::int64_t bytes = 0;
        while (select.fetch()) {
            bytes += select.integer(3);
            if (isFull(found.records.size(), bytes)) {
                found.horizon = found.records.back().place;
                break;
            }
            found.records.push_back({std::string(select.text(1)), std::string(select.text(2)),
                                     m_isEnvironment ? 0 : select.integer(2), select.integer(3)});
        }
        select.close();
        return found;
    }

    static bool isFull(std::size_t records, std::int64_t bytesWithNext) {
        return records == recordsAtOnce || (records > 0 && bytesWithNext > bytesAtOnce);
    }

private:
    /// Environments of owners are found by their identifiers.
    bool isNarrowed() const {
        return !m_isEnvironment && (m_owners || m_position.question.from || m_position.question.to);
    }

    /// Of those among which is looked; nothing where there is none.
    std::optional<std::int64_t> lastNumber() {
        const std::string table(m_table.table);
        ASStatement& select =
            m_session.prepare("SELECT (SELECT min(seq) FROM " + table +
                              (m_position.after.empty() ? "" : " WHERE seq > " + parameter("bigint")) +
                              "), (SELECT max(seq) FROM " + table + ")");
        if (!m_position.after.empty()) select.bind(1, parseInt64(m_position.after).value_or(0));
        select.execute();
        std::optional<std::int64_t> last;
        // What comes later has numbers beyond the last one of now.
        if (select.fetch() && !select.isNull(1)) {
            const std::int64_t most = std::numeric_limits<std::int64_t>::max() - numbersAtOnce;
            last = std::min(std::min(select.integer(1), most) + numbersAtOnce - 1, select.integer(2));
        }
        select.close();
        return last;
    }

    /// Whatever else is asked, records are walked along their order: SQLite would rather collect all that an index
    /// finds, and sort them, for each piece. A column behind a '+' is none that it looks for an index for.
    std::string column(const char* name) const {
        return (m_isSqlite && !m_isEnvironment ? "+" : "") + std::string(name);
    }
    std::string parameter(const char* type) const { return m_isSqlite ? "?" : "CAST(? AS " + std::string(type) + ")"; }

    std::string sizes() const {
        std::string sum;
        for (const char* document : m_table.documents) {
            sum.append(sum.empty() ? "" : " + ");
            sum += m_isSqlite ? "coalesce(length(CAST(" + std::string(document) + " AS BLOB)), 0)"
                              : "coalesce(octet_length(" + std::string(document) + "), 0)";
        }
        return sum;
    }

    std::string sql() const {
        std::string conditions;
        const auto add = [&](const std::string& condition) {
            conditions += (conditions.empty() ? " WHERE " : " AND ") + condition;
        };
        if (!m_position.after.empty())
            add(std::string(m_table.place) + " > " + parameter(m_isEnvironment ? "uuid" : "bigint"));
        if (isNarrowed()) add("seq <= " + parameter("bigint"));
        if (!m_isEnvironment && m_position.question.from) add(column("time") + " >= " + parameter("timestamp"));
        if (!m_isEnvironment && m_position.question.to) add(column("time") + " <= " + parameter("timestamp"));
        if (m_owners) add(column("eid") + " IN " + recordListSql(m_session.engine(), "uuid"));
        return "SELECT " + std::string(m_table.id) + ", " + m_table.place + ", " + sizes() + " FROM " + m_table.table +
               conditions + " ORDER BY " + m_table.place + " LIMIT " + std::to_string(recordsAtOnce + 1);
    }

    void bind(ASStatement& select, const std::optional<std::string>& last) const {
        unsigned at = 0;
        if (!m_position.after.empty()) {
            m_isEnvironment ? select.bind(++at, std::string_view(m_position.after))
                            : select.bind(++at, parseInt64(m_position.after).value_or(0));
        }
        if (isNarrowed()) select.bind(++at, parseInt64(last.value_or("")).value_or(0));
        const std::int64_t first = ASDialect::of(m_session.engine()).firstSecond;
        for (const auto& bound : {m_position.question.from, m_position.question.to}) {
            if (m_isEnvironment || !bound) continue;
            const std::string time = time2dbstr(std::clamp(*bound, first, lastDbSecond));
            select.bind(++at, std::string_view(time));
        }
        if (m_owners) select.bind(++at, std::string_view(m_owners->list));
    }

    ASSession& m_session;
    const QORExportPosition& m_position;
    const ExportTable& m_table;
    const std::optional<ExportOwners>& m_owners;
    const bool m_isSqlite;
    const bool m_isEnvironment;
};

/// A database that has some of the records, in one state.
struct ExportPart {
    ExportPart(const QORServer* of, QORRdbms& database) : server(of), tran(database, ASAccess::Read) {}

    const QORServer* server;  ///< null for home
    QORRdbmsTran tran;
    FoundRecords found{};
    RecordLines lines{};
};

/// Records of several databases in the order of their numbers, as far as all of them have told theirs.
FoundRecords merged(std::vector<std::unique_ptr<ExportPart>>& parts) {
    std::int64_t horizon = std::numeric_limits<std::int64_t>::max();
    FoundRecords all;
    for (std::size_t part = 0; part < parts.size(); ++part) {
        FoundRecords& found = parts[part]->found;
        if (found.horizon) {
            horizon = std::min(horizon, parseInt64(*found.horizon).value_or(0));
            all.horizon = std::to_string(horizon);
        }
        for (FoundRecord& record : found.records) {
            record.part = part;
            all.records.push_back(std::move(record));
        }
    }
    std::sort(all.records.begin(), all.records.end(), [](const FoundRecord& left, const FoundRecord& right) {
        return std::pair(left.number, left.part) < std::pair(right.number, right.part);
    });
    const auto isBeyond = [&](const FoundRecord& record) { return record.number > horizon; };
    all.records.erase(std::find_if(all.records.begin(), all.records.end(), isBeyond), all.records.end());
    return all;
}

/// What one piece takes of it. Home gives each number out once; should two servers have one in common all the same,
/// both of its records are in the same piece.
void cutToPiece(FoundRecords& found) {
    std::int64_t bytes = 0;
    for (std::size_t at = 0; at < found.records.size(); ++at) {
        const FoundRecord& record = found.records[at];
        bytes += record.bytes;
        if (!ExportSelect::isFull(std::min(at, recordsAtOnce), bytes) || record.number == found.records[at - 1].number)
            continue;
        found.horizon = found.records[at - 1].place;
        found.records.resize(at);
        return;
    }
}

/// Reads a piece by one division among servers.
class ExportReading {
public:
    ExportReading(const QORPlacement& placement, const QORExportPosition& position,
                  const std::optional<ExportOwners>& owners)
        : m_placement(placement), m_position(position), m_owners(owners) {}

    /// \returns nothing where environments are just being moved
    std::optional<ExportPiece> read() {
        for (const QORServer* const server : servers()) {
            bool isSame = true;
            ask(server, [&](QORRdbms& database) { isSame = open(server, database); });
            if (!isSame) return std::nullopt;
        }
        FoundRecords found = m_parts.size() == 1 ? std::move(m_parts.front()->found) : merged(m_parts);
        if (m_parts.size() > 1) cutToPiece(found);
        return written(found);
    }

private:
    /// Null: home.
    std::vector<const QORServer*> servers() const {
        if (m_placement.none() || *m_position.kind == QORRecordKind::Environment) return {nullptr};
        std::vector<const QORServer*> all;
        for (const QORServer& server : m_placement.servers()) {
            if (!m_owners || std::any_of(m_owners->environments.begin(), m_owners->environments.end(),
                                         [&](const QOREID& eid) { return &m_placement.of(eid) == &server; }))
                all.push_back(&server);
        }
        return all;
    }

    static void ask(const QORServer* server, const std::function<void(QORRdbms&)>& work) {
        server == nullptr ? work(QORRdbms::instance()) : QORServers::instance().run(*server, work);
    }

    bool open(const QORServer* server, QORRdbms& database) {
        auto part = std::make_unique<ExportPart>(server, database);
        if (server != nullptr && !QORServers::holds(*part->tran, *server)) return false;
        part->found = ExportSelect(*part->tran, m_position, m_owners).find();
        m_parts.push_back(std::move(part));
        return true;
    }

    void readLines(const FoundRecords& found) {
        std::vector<std::vector<std::string>> ids(m_parts.size());
        for (const FoundRecord& record : found.records)
            ids[record.part].push_back(record.id);
        for (std::size_t at = 0; at < m_parts.size(); ++at) {
            if (ids[at].empty()) continue;
            ExportPart& part = *m_parts[at];
            ask(part.server,
                [&](QORRdbms&) { part.lines = readRecordLines(*part.tran, *m_position.kind, ids[at], nullptr); });
        }
    }

    ExportPiece written(const FoundRecords& found) {
        readLines(found);
        ExportPiece piece;
        for (const FoundRecord& record : found.records) {
            const RecordLines& lines = m_parts[record.part]->lines;
            const auto line = lines.find(record.id);
            if (line == lines.end()) continue;
            piece.lines += line->second.text;
            ++piece.records;
            if (line->second.lacksDocument) ++piece.unreadable;
        }
        piece.atEnd = !found.horizon;
        if (found.horizon) {
            piece.last = *found.horizon;
        } else if (!found.records.empty()) {
            piece.last = found.records.back().place;
        }
        return piece;
    }

    const QORPlacement& m_placement;
    const QORExportPosition& m_position;
    const std::optional<ExportOwners>& m_owners;
    std::vector<std::unique_ptr<ExportPart>> m_parts;
};

}  // namespace

// A server tells in its own transaction what it keeps, and home tells afterwards whether it still is as it was: records
// that home gives to servers for the first time are removed with no look at who reads.
ExportPiece readExportPiece(const QORExportPosition& position, const std::optional<ExportOwners>& owners) {
    constexpr auto betweenLooks = std::chrono::milliseconds(20);
    constexpr auto longestMove = std::chrono::seconds(10);
    const auto until = QORRequestControl::Clock::now() + longestMove;
    for (auto placement = QORServers::instance().placement();;) {
        auto piece = ExportReading(*placement, position, owners).read();
        const auto now = QORServers::instance().refresh();
        if (piece && now->epoch() == placement->epoch()) return std::move(*piece);
        QORRequestControl::checkCurrent();
        if (QORRequestControl::Clock::now() >= until)
            throw QORException(errFailure, "the servers do not keep what the database says that they keep",
                               QOR_SOURCE_PATH, __LINE__);
        placement = now;
        if (piece) continue;
        settleHandover();
        std::this_thread::sleep_for(betweenLooks);
        placement = QORServers::instance().refresh();
    }
}

}  // namespace QOR
