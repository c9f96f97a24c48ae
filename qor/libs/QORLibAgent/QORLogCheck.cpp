#include "QORLibAgent/QORLogCheck.h"

#include <set>
#include <span>
#include <string_view>

namespace QOR {
namespace {

/// One form of scopes: which counters are of it, where its records are, and all its scopes as the records have them.
struct CheckedForm {
    std::string_view scopes;   ///< a condition on c.scope
    std::string_view records;  ///< the records of c.scope
    std::string_view scope;    ///< of a record
    std::string_view all;      ///< the records that have such a scope
    std::string_view groups;   ///< of one scope each
};

constexpr CheckedForm operationForms[] = {
    {"c.scope = ''", "qor_operation r WHERE 1", "''", "qor_operation WHERE 1", ""},
    {"length(c.scope) = 36", "qor_operation r WHERE r.eid = c.scope", "eid", "qor_operation WHERE length(eid) = 36",
     " GROUP BY eid"},
    {"length(c.scope) = 37",
     "qor_operation_environment r WHERE r.eid = substr(c.scope, 2) AND r.eid IS DISTINCT FROM r.own", "'>' || eid",
     "qor_operation_environment WHERE eid IS DISTINCT FROM own AND length(eid) = 36", " GROUP BY eid"},
    {"length(c.scope) = 73",
     "qor_operation_environment r WHERE r.eid = substr(c.scope, 38) AND r.own = substr(c.scope, 1, 36) "
     "AND r.eid <> r.own",
     "own || '>' || eid", "qor_operation_environment WHERE eid <> own AND length(eid) = 36 AND length(own) = 36",
     " GROUP BY eid, own"},
    // No record has another one.
    {"length(c.scope) NOT IN (0, 36, 37, 73)", "qor_operation r WHERE 0", "''", "qor_operation WHERE 0", " GROUP BY 1"},
};
constexpr CheckedForm eventForms[] = {
    {"substr(c.scope, 1, 1) = '/'", "qor_event r WHERE r.category = substr(c.scope, 2)", "'/' || category",
     "qor_event WHERE category <> ''", " GROUP BY category"},
    {"substr(c.scope, 1, 1) <> '/'",
     "qor_event r WHERE r.category = substr(c.scope, 38) AND r.eid = substr(c.scope, 1, 36)", "eid || '/' || category",
     "qor_event WHERE category <> '' AND length(eid) = 36", " GROUP BY category, eid"},
};

void addScopes(ASSession& session, const std::string& sql, std::set<std::string>& scopes) {
    ASStatement& select = session.prepare(sql);
    select.execute();
    while (select.fetch())
        scopes.emplace(select.text(1));
    select.close();
}

/// Buckets that are not split hold as many records as they say; those of all together are all records.
void addWrongCounts(ASSession& session, const std::string& counters, const CheckedForm& form, bool timesAreReadable,
                    std::set<std::string>& scopes) {
    const std::string of(form.scopes);
    const std::string readable = timesAreReadable ? "" : " AND time = datetime(time)";
    addScopes(session,
              "SELECT DISTINCT c.scope FROM " + counters + " c WHERE c.split = 0 AND " + of +
                  " AND c.n <> (SELECT count(*) FROM " + std::string(form.records) + readable +
                  " AND r.time BETWEEN coalesce(datetime(c.bucket << c.level, 'unixepoch'), '0000') AND "
                  "coalesce(datetime(((c.bucket + 1) << c.level) - 1, 'unixepoch'), '9999-12-31 23:59:59'))",
              scopes);
    addScopes(session,
              "SELECT t.scope FROM (SELECT " + std::string(form.scope) + " AS scope, count(*) AS n FROM " +
                  std::string(form.all) + readable + std::string(form.groups) +
                  ") t WHERE t.n <> coalesce((SELECT sum(c.n) FROM " + counters +
                  " c WHERE c.scope = t.scope AND c.level = 24), 0)",
              scopes);
}

/// A bucket that is split holds what its parts hold, a part lies in a bucket that is split, and none is empty.
void addWrongParts(ASSession& session, const std::string& counters, std::set<std::string>& scopes) {
    addScopes(session,
              "SELECT DISTINCT c.scope FROM " + counters +
                  " c WHERE c.n <= 0 OR c.split NOT IN (0, 1) OR c.level NOT IN (24, 20, 16, 12, 8, 4, 0)",
              scopes);
    addScopes(session,
              "SELECT DISTINCT c.scope FROM " + counters +
                  " c WHERE c.split = 1 AND c.n <> (SELECT "
                  "coalesce(sum(p.n), 0) FROM " +
                  counters +
                  " p WHERE p.scope = c.scope AND p.level = c.level - 4 "
                  "AND p.bucket BETWEEN c.bucket << 4 AND (c.bucket << 4) + 15)",
              scopes);
    addScopes(session,
              "SELECT DISTINCT c.scope FROM " + counters + " c WHERE c.level < 24 AND NOT EXISTS (SELECT 1 FROM " +
                  counters +
                  " p WHERE p.scope = c.scope AND p.level = c.level + 4 AND p.bucket = c.bucket >> 4 "
                  "AND p.split = 1)",
              scopes);
}

// The database counts all records anew, level by level, and compares: it has the memory that sorting them takes.
constexpr std::string_view operationScopes =
    "SELECT '' AS scope, extract(epoch FROM time)::bigint AS s FROM qor_operation "
    "UNION ALL SELECT eid::text, extract(epoch FROM time)::bigint FROM qor_operation WHERE eid IS NOT NULL "
    "UNION ALL SELECT '>' || eid::text, extract(epoch FROM time)::bigint FROM qor_operation_environment "
    "WHERE eid IS DISTINCT FROM own "
    "UNION ALL SELECT own::text || '>' || eid::text, extract(epoch FROM time)::bigint FROM qor_operation_environment "
    "WHERE eid <> own";
constexpr std::string_view eventScopes =
    "SELECT '/' || category AS scope, extract(epoch FROM time)::bigint AS s FROM qor_event WHERE category <> '' "
    "UNION ALL SELECT eid::text || '/' || category, extract(epoch FROM time)::bigint FROM qor_event "
    "WHERE category <> '' AND eid IS NOT NULL";

std::vector<std::string> findInPostgres(ASSession& session, QORLogKind kind) {
    const bool operations = kind == QORLogKind::Operations;
    const std::string counters = operations ? "qor_operation_count" : "qor_event_count";
    std::set<std::string> scopes;
    addScopes(session,
              "SELECT DISTINCT coalesce(c.scope, r.scope) FROM " + counters +
                  " c FULL JOIN (SELECT t.scope, l.level, t.s >> l.level AS bucket, count(*) AS n FROM (" +
                  std::string(operations ? operationScopes : eventScopes) +
                  ") t CROSS JOIN generate_series(0, 24, 4) AS l (level) GROUP BY 1, 2, 3) r "
                  "ON r.scope = c.scope AND r.level = c.level AND r.bucket = c.bucket "
                  "WHERE c.n <> r.n OR r.n IS NULL OR (c.n IS NULL AND r.level = 24)",
              scopes);
    addWrongParts(session, counters, scopes);
    return {scopes.begin(), scopes.end()};
}

constexpr std::string_view inStep =
    "(SELECT 1 FROM qor_operation o WHERE o.seq = qor_operation_environment.operation "
    "AND o.time = qor_operation_environment.time AND o.eid IS NOT DISTINCT FROM qor_operation_environment.own)";

}  // namespace

std::vector<std::string> findMiscountedScopes(ASSession& session, QORLogKind kind) {
    if (session.engine() != ASEngine::SQLite) return findInPostgres(session, kind);
    const bool operations = kind == QORLogKind::Operations;
    const std::string counters = operations ? "qor_operation_count" : "qor_event_count";
    const std::span<const CheckedForm> forms =
        operations ? std::span<const CheckedForm>(operationForms) : std::span<const CheckedForm>(eventForms);
    const bool timesAreReadable = countUnreadableTimes(session, kind) == 0;
    std::set<std::string> scopes;
    for (const CheckedForm& form : forms)
        addWrongCounts(session, counters, form, timesAreReadable, scopes);
    addWrongParts(session, counters, scopes);
    return {scopes.begin(), scopes.end()};
}

std::uint64_t countStrayTouched(ASSession& session) {
    ASStatement& select =
        session.prepare("SELECT count(*) FROM qor_operation_environment WHERE NOT EXISTS " + std::string(inStep));
    select.execute();
    const std::int64_t found = select.fetch() ? select.integer(1) : 0;
    select.close();
    return static_cast<std::uint64_t>(found);
}

void mendStrayTouched(ASSession& session) {
    session.execute(
        "DELETE FROM qor_operation_environment WHERE NOT EXISTS "
        "(SELECT 1 FROM qor_operation o WHERE o.seq = operation)");
    session.execute(
        "UPDATE qor_operation_environment SET time = (SELECT time FROM qor_operation WHERE seq = operation), "
        "own = (SELECT o.eid FROM qor_operation o WHERE o.seq = operation) WHERE NOT EXISTS " +
        std::string(inStep));
}

std::uint64_t countUnreadableTimes(ASSession& session, QORLogKind kind) {
    if (session.engine() != ASEngine::SQLite) return 0;  // a column of times holds nothing else
    ASStatement& select = session.prepare("SELECT count(*) FROM " +
                                          std::string(kind == QORLogKind::Operations ? "qor_operation" : "qor_event") +
                                          " WHERE time IS NOT datetime(time)");
    select.execute();
    const std::int64_t found = select.fetch() ? select.integer(1) : 0;
    select.close();
    return static_cast<std::uint64_t>(found);
}

}  // namespace QOR
