#include "QORDBSchema/QORStoredDocuments.h"

#include <array>
#include <limits>
#include <string_view>
#include <utility>

#include "QORDBSchema/QORDBSchema.h"
#include "QORLibAgent/QORInfo.h"

namespace QOR {
namespace {

/// Where documents are kept. Each table has a number to walk along, and a key that stays with a record whatever the
/// engine does to that.
struct Place {
    const char* table;
    const char* column;
    const char* number;
    const char* key;
    bool bytes;  ///< else text
};

constexpr std::array<Place, 5> places{{
    {"qor_environment", "config", "rowid", "eid", false},
    {"qor_environment", "virtual_config", "rowid", "eid", false},
    {"qor_operation", "message", "seq", "seq", false},
    {"qor_event", "info", "seq", "seq", false},
    {"qor_backup", "info", "seq", "seq", true},
}};

constexpr std::int64_t recordsOfStep = 1000;
constexpr std::int64_t bytesOfStep = 4 * 1024 * 1024;
constexpr int firstVersion = 4;  ///< of the schema that has the table

/// The statement for a place: $t, $c, $n and $k stand for its table, column, number and key, $s for the key as what is
/// remembered has it, $b for the document's bytes.
std::string forPlace(ASSession& session, const Place& place, std::string_view pattern) {
    const bool sqlite = session.engine() == ASEngine::SQLite;
    const std::string column = place.column;
    const std::string key = place.key;
    const std::string bytes = sqlite        ? "CAST(" + column + " AS BLOB)"
                              : place.bytes ? column
                                            : "convert_to(" + column + ", 'UTF8')";
    std::string sql;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] != '$' || i + 1 == pattern.size()) {
            sql += pattern[i];
            continue;
        }
        const char what = pattern[++i];
        sql += what == 't'   ? place.table
               : what == 'c' ? column
               : what == 'n' ? place.number
               : what == 'k' ? key
               : what == 'b' ? bytes
               : sqlite      ? key
                             : "CAST(" + key + " AS text)";
    }
    return sql;
}

enum class Finding { Sound, Surplus, Unreadable };

struct Document {
    Finding finding = Finding::Sound;
    std::size_t length = 0;  ///< of the document itself
};

/// What a stored text is. Of anything that can be read as it stands and has nothing behind it, nothing is said.
Document look(std::string_view text) {
    QORInfo info;
    const auto length = QORInfo::documentLength(text);
    if (!length || *length == text.size()) {
        return {info.deserializeFromString(text) == 0 ? Finding::Sound : Finding::Unreadable, text.size()};
    }
    const bool readable = info.deserializeFromString(text.substr(0, *length)) == 0;
    return {readable ? Finding::Surplus : Finding::Unreadable, *length};
}

void forget(ASSession& session, const Place& place, std::int64_t after, std::int64_t last) {
    session
        .prepare(forPlace(session, place,
                          "DELETE FROM qor_unreadable_document WHERE source = '$t' AND part = '$c' AND record IN "
                          "(SELECT $s FROM $t WHERE $n > ? AND $n <= ?)"))
        .bind(1, after)
        .bind(2, last)
        .execute();
}

void remember(ASSession& session, const Place& place, std::int64_t number) {
    session
        .prepare(forPlace(session, place,
                          "INSERT INTO qor_unreadable_document (source, part, record) "
                          "SELECT '$t', '$c', $s FROM $t WHERE $n = ?"))
        .bind(1, number)
        .execute();
}

void trim(ASSession& session, const Place& place, std::int64_t number, std::size_t length) {
    const char* const text = session.engine() == ASEngine::SQLite
                                 ? "UPDATE $t SET $c = CAST(substr($b, 1, ?) AS TEXT) "
                                 : "UPDATE $t SET $c = convert_from(substr($b, 1, ?), 'UTF8') ";
    session
        .prepare(forPlace(session, place,
                          std::string(place.bytes ? "UPDATE $t SET $c = substr($c, 1, ?) " : text) + "WHERE $n = ?"))
        .bind(1, static_cast<std::int64_t>(length))
        .bind(2, number)
        .execute();
}

}  // namespace

struct QORDocumentCheck::Range {
    std::int64_t last = 0;
    bool empty = true;
};

std::optional<std::vector<QORUnreadableDocuments>> unreadableDocuments(ASSession& session) {
    if (QORDBSchema::inspect(session).version < firstVersion) return std::nullopt;
    std::vector<QORUnreadableDocuments> all;
    ASStatement& select = session.prepare(
        "SELECT source, part, count(*) FROM qor_unreadable_document GROUP BY source, part ORDER BY source, part");
    select.execute();
    while (select.fetch()) {
        all.push_back(
            {std::string(select.text(1)), std::string(select.text(2)), static_cast<std::uint64_t>(select.integer(3))});
    }
    select.close();
    return all;
}

void forgetUnreadableDocuments(ASSession& session, std::string_view table, const std::vector<std::string>& ids) {
    if (ids.empty()) return;
    if (!session.prepare("SELECT 1 FROM qor_unreadable_document LIMIT 1").hasRow()) return;
    const bool byEid = table == "qor_environment";
    ASStatement& forgetting =
        session.prepare("DELETE FROM qor_unreadable_document WHERE source = ? AND record = " +
                        (byEid ? std::string("?") : "(SELECT seq FROM " + std::string(table) + " WHERE id = ?)"));
    for (const std::string& id : ids) {
        forgetting.bind(1, table).bind(2, std::string_view(id));
        forgetting.execute(ASTriggers::Skip);  // the table has none, and who replaces documents skips theirs
    }
}

std::string describe(const std::vector<QORUnreadableDocuments>& unreadable) {
    std::string text;
    for (const QORUnreadableDocuments& column : unreadable) {
        if (!text.empty()) text += ", ";
        text += std::to_string(column.count) + " in " + column.table + '.' + column.column;
    }
    return text;
}

QORDocumentCheck::QORDocumentCheck(Mode mode) : m_mode(mode), m_last(std::numeric_limits<std::int64_t>::min()) {
    for (const Place& place : places)
        m_columns.push_back({place.table, place.column, 0, 0, 0});
}

bool QORDocumentCheck::step(ASSession& session) {
    while (m_current < places.size()) {
        const Range range = nextRange(session);
        if (!range.empty) {
            check(session, range);
            m_last = range.last;
            return true;
        }
        ++m_current;
        m_last = std::numeric_limits<std::int64_t>::min();
    }
    return false;
}

// Found by the lengths, so that what is read together has a bound.
QORDocumentCheck::Range QORDocumentCheck::nextRange(ASSession& session) const {
    ASStatement& select =
        session.prepare(forPlace(session, places[m_current],
                                 "SELECT $n, length($b) FROM $t WHERE $n > ? AND $c IS NOT NULL ORDER BY $n LIMIT ?"));
    select.bind(1, m_last).bind(2, recordsOfStep).execute();
    Range range;
    std::int64_t bytes = 0;
    while (select.fetch()) {
        bytes += select.integer(2);
        if (!range.empty && bytes > bytesOfStep) break;
        range = {select.integer(1), false};
    }
    select.close();
    return range;
}

void QORDocumentCheck::check(ASSession& session, const Range& range) {
    const Place& place = places[m_current];
    Column found = m_columns[m_current];
    std::vector<std::pair<std::int64_t, Document>> bad;
    ASStatement& select =
        session.prepare(forPlace(session, place, "SELECT $n, $b FROM $t WHERE $n > ? AND $n <= ? AND $c IS NOT NULL"));
    select.bind(1, m_last).bind(2, range.last).execute();
    while (select.fetch()) {
        ++found.read;
        const Document document = look(select.bytes(2));
        if (document.finding != Finding::Sound) bad.emplace_back(select.integer(1), document);
    }
    select.close();
    if (m_mode == Mode::Mend) forget(session, place, m_last, range.last);
    for (const auto& [number, document] : bad) {
        const bool surplus = document.finding == Finding::Surplus;
        ++(surplus ? found.trimmed : found.unreadable);
        if (m_mode == Mode::Look) continue;
        if (surplus) {
            trim(session, place, number, document.length);
        } else {
            remember(session, place, number);
        }
    }
    m_columns[m_current] = std::move(found);
}

}  // namespace QOR
