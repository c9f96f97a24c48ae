#include "ingest/QORRecordExport.h"

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "QORLibAgent/QORRecordState.h"
#include "QORServers/QORServers.h"
#include "ingest/RecordLines.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

constexpr const char* exportSource = "qor/ingest/QORRecordExport";
constexpr int errNothingToExport = 404;

/// Of one piece: a position costs as much as a short record, and what is read again behind one is no more than this.
constexpr std::size_t recordsAtOnce = 500;
/// Documents of one piece; a larger one is a piece of its own.
constexpr std::int64_t bytesAtOnce = std::int64_t{1} << 20;

/// Where records of a kind are, by QORRecordKind.
struct ExportTable {
    const char* table;
    const char* place;  ///< the column whose order they come in
    const char* id;     ///< what readRecordLines() asks for
    std::vector<const char*> documents;
    bool hasTime;
};

const ExportTable& exportTable(QORRecordKind kind) {
    static const std::array<ExportTable, recordKindCount> tables{
        {{"qor_environment", "eid", "eid", {"config", "virtual_config"}, false},
         {"qor_operation", "seq", "id", {"message"}, true},
         {"qor_event", "seq", "seq", {"info"}, true},
         {"qor_backup", "seq", "id", {"info"}, true}}};
    return tables[static_cast<std::size_t>(kind)];
}

QORChangeKind changeKindOf(QORRecordKind kind) {
    constexpr std::array<QORChangeKind, recordKindCount> changeKinds{
        QORChangeKind::Environment, QORChangeKind::Operation, QORChangeKind::Event, QORChangeKind::Backup};
    return changeKinds[static_cast<std::size_t>(kind)];
}

/// Some records in their order.
struct ExportPage {
    std::vector<std::string> ids{};
    std::string last{};  ///< place of the last one
};

/// Finds records behind a place.
class ExportPageSelect {
public:
    /// \param owners whose records alone; null: all
    ExportPageSelect(ASSession& session, const QORExportPosition& position, const std::vector<std::string>* owners)
        : m_session(session),
          m_position(position),
          m_table(exportTable(*position.kind)),
          m_owners(owners),
          m_isSqlite(session.engine() == ASEngine::SQLite) {}

    ExportPage read() {
        ASStatement& select = m_session.prepare(sql());
        bind(select);
        select.execute();
        ExportPage page;
        std::int64_t bytes = 0;
        while (select.fetch()) {
            bytes += select.integer(3);
            if (!page.ids.empty() && bytes > bytesAtOnce) break;
            page.ids.emplace_back(select.text(1));
            page.last = select.text(2);
        }
        select.close();
        return page;
    }

private:
    /// Whatever else is asked, records are walked along their order: SQLite would rather collect all that an index
    /// finds, and sort them, for each page. A column behind a '+' is none that it looks for an index for.
    std::string column(const char* name) const { return (m_isSqlite ? "+" : "") + std::string(name); }
    std::string parameter(const char* type) const { return m_isSqlite ? "?" : "CAST(? AS " + std::string(type) + ")"; }
    bool isEnvironment() const { return !m_table.hasTime; }

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
            add(std::string(m_table.place) + " > " + parameter(isEnvironment() ? "uuid" : "bigint"));
        if (m_table.hasTime && m_position.question.from) add(column("time") + " >= " + parameter("timestamp"));
        if (m_table.hasTime && m_position.question.to) add(column("time") + " <= " + parameter("timestamp"));
        if (m_owners != nullptr) add(column("eid") + " IN " + recordListSql(m_session.engine(), "uuid"));
        return "SELECT " + std::string(m_table.id) + ", " + m_table.place + ", " + sizes() + " FROM " + m_table.table +
               conditions + " ORDER BY " + m_table.place + " LIMIT " + std::to_string(recordsAtOnce);
    }

    void bind(ASStatement& select) const {
        unsigned at = 0;
        if (!m_position.after.empty()) {
            isEnvironment() ? select.bind(++at, std::string_view(m_position.after))
                            : select.bind(++at, parseInt64(m_position.after).value_or(0));
        }
        const std::int64_t first = ASDialect::of(m_session.engine()).firstSecond;
        for (const auto& bound : {m_position.question.from, m_position.question.to}) {
            if (!m_table.hasTime || !bound) continue;
            const std::string time = time2dbstr(std::clamp(*bound, first, lastDbSecond));
            select.bind(++at, std::string_view(time));
        }
        if (m_owners == nullptr) return;
        const std::string owners = recordList(*m_owners);
        select.bind(++at, std::string_view(owners));
    }

    ASSession& m_session;
    const QORExportPosition& m_position;
    const ExportTable& m_table;
    const std::vector<std::string>* m_owners;
    const bool m_isSqlite;
};

}  // namespace

struct QORRecordExport::Impl {
    Impl(QORExportPosition from, const QORRowAccess& access)
        : position(std::move(from)), placement(QORServers::instance().refresh()), kinds(position.kinds()) {
        QORRdbmsTran tran(ASAccess::Read);
        if (!keepsRecordChanges(*tran))
            throw QORException(errNothingToExport,
                               "the database is another program's, or of an older version and only read: there is "
                               "nothing in it that can be exported",
                               exportSource, __LINE__);
        if (!position.kind) position.kind = kinds.front();
        if (position.server.empty()) position.server = firstServer();
        if (!position.server.empty() && placement->find(position.server) == nullptr)
            throw QORException(errBadRequest,
                               "the position is on server " + position.server +
                                   ", which keeps no records any more; begin the export anew",
                               exportSource, __LINE__);
        readOwners(access);
        if (!position.begun && isCounted(access)) countAll(*tran, access);
    }

    std::string next() {
        if (ended) return {};
        if (!std::exchange(position.begun, true)) return positionLine();
        do {
            const std::string lines = piece();
            if (!lines.empty()) return lines + positionLine();
        } while (advance());
        ended = true;
        return std::string(exportEndBegin) + position.countsText() + "}\n";
    }

    QORExportPosition position;
    bool ended = false;

private:
    std::string positionLine() const { return std::string(exportPositionBegin) + position.text() + "}\n"; }

    void readOwners(const QORRowAccess& access) {
        const QOREID& only = position.question.environment;
        if (access.isFull() && !only.isValid()) return;
        owners.emplace();
        if (only.isValid()) {
            if (access.sees(only)) owners->push_back(only.toString());
            return;
        }
        for (const QOREID& eid : access.owners())
            owners->push_back(eid.toString());
    }

    /// Whether how many they are is known without looking at each.
    bool isCounted(const QORRowAccess& access) const {
        return access.isFull() && !owners && !position.question.from && !position.question.to && placement->none();
    }
    void countAll(ASSession& session, const QORRowAccess& access) {
        position.of = 0;
        for (const QORRecordKind kind : kinds)
            *position.of += static_cast<std::uint64_t>(recordState(session, changeKindOf(kind), access).records);
    }

    std::string piece() {
        if (owners && owners->empty()) return {};
        std::string lines;
        if (position.server.empty()) {
            lines = pieceOf(QORRdbms::instance());
        } else {
            QORServers::instance().run(*placement->find(position.server),
                                       [&](QORRdbms& database) { lines = pieceOf(database); });
        }
        return lines;
    }

    std::string pieceOf(QORRdbms& database) {
        QORRdbmsTran tran(database, ASAccess::Read);
        const ExportPage page = ExportPageSelect(*tran, position, owners ? &*owners : nullptr).read();
        if (page.ids.empty()) return {};
        const RecordLines records = readRecordLines(*tran, *position.kind, page.ids, nullptr);
        std::string lines;
        for (const std::string& id : page.ids) {
            const auto record = records.find(id);
            if (record == records.end()) continue;
            lines += record->second.text;
            ++position.counts[static_cast<std::size_t>(*position.kind)];
            if (record->second.lacksDocument) ++position.unreadable;
        }
        position.after = page.last;
        return lines;
    }

    /// Empty where home has them itself, as it has environments in any case.
    std::string firstServer() const {
        const bool isSpread = !placement->none() && *position.kind != QORRecordKind::Environment;
        return isSpread ? placement->servers().front().name : std::string();
    }

    /// To the next server, or else to the next kind. \returns false behind the last
    bool advance() {
        position.after.clear();
        const std::vector<QORServer>& servers = placement->servers();
        auto server = std::find_if(servers.begin(), servers.end(),
                                   [&](const QORServer& one) { return one.name == position.server; });
        if (server != servers.end() && ++server != servers.end()) {
            position.server = server->name;
            return true;
        }
        const auto kind = std::find(kinds.begin(), kinds.end(), *position.kind);
        if (kind == kinds.end() || kind + 1 == kinds.end()) return false;
        position.kind = *(kind + 1);
        position.server = firstServer();
        return true;
    }

    const std::shared_ptr<const QORPlacement> placement;
    const std::vector<QORRecordKind> kinds;
    std::optional<std::vector<std::string>> owners;  ///< whose records alone; nothing: all
};

QORRecordExport::QORRecordExport(QORExportPosition position, const QORRowAccess& access)
    : m_impl(std::make_unique<Impl>(std::move(position), access)) {}
QORRecordExport::~QORRecordExport() = default;

std::string QORRecordExport::next() {
    return m_impl->next();
}

const QORExportPosition& QORRecordExport::position() const noexcept {
    return m_impl->position;
}

}  // namespace QOR
