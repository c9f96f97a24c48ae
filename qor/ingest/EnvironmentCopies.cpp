#include "ingest/EnvironmentCopies.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORText.h"
#include "QORDBSchema/QORSchemaRows.h"

namespace QOR {
namespace {

/// Environments that are read, and stored, by one statement.
constexpr std::int64_t atOnce = 500;

constexpr std::string_view changedSince =
    "SELECT environments FROM qor_environment_change WHERE n > ? ORDER BY n NULLS FIRST";

/// What has changed; whole: all of them, and there are no others.
struct Changes {
    bool whole = false;
    std::string eids;  ///< a JSON array without its end; empty for none
};

void appendEid(std::string_view eid, std::string& eids) {
    eids += eids.empty() ? '[' : ',';
    appendJsonString(eid, eids);
}

/// The latest changes alone are kept.
Changes changesSince(ASSession& home, std::int64_t since) {
    Changes changes;
    const std::int64_t oldest = readNumber(home, "SELECT coalesce(min(n), 0) FROM qor_environment_change");
    changes.whole = since < 0 || since < oldest;
    if (!changes.whole) {
        ASStatement& select = home.prepare(changedSince);
        select.bind(1, since).execute();
        while (select.fetch()) {
            changes.whole = changes.whole || select.isNull(1);
            std::string_view eids = select.isNull(1) ? std::string_view() : select.text(1);
            while (!eids.empty()) {
                const std::string_view eid = eids.substr(0, eids.find(' '));
                eids.remove_prefix(std::min(eid.size() + 1, eids.size()));
                appendEid(eid, changes.eids);
            }
        }
        select.close();
    }
    return changes;
}

struct Copied {
    std::string_view table;
    std::string_view order;
};
/// Those that refer to others behind them.
constexpr std::array tables{Copied{"qor_environment", "eid"},
                            Copied{"qor_environment_address", "eid, source, position"}};

/// All columns but what the database numbers for itself.
std::string columnsOf(ASSession& session, std::string_view table) {
    ASStatement& select = session.prepare(
        "SELECT string_agg(quote_ident(attname), ', ' ORDER BY attnum) FROM pg_attribute "
        "WHERE attrelid = to_regclass(?) AND attnum > 0 AND NOT attisdropped AND attidentity = ''");
    select.bind(1, table).execute();
    std::string columns(select.fetch() ? select.text(1) : std::string_view());
    select.close();
    return columns;
}

class Copy {
public:
    Copy(ASSession& home, ASSession& server) : m_home(home), m_server(server) {}

    void run(const Changes& changes) {
        if (!changes.whole && changes.eids.empty()) return;
        const std::string eids = changes.whole ? std::string("[]") : changes.eids + ']';
        remove(changes.whole, eids);
        for (const Copied& one : tables)
            copy(one, changes.whole, eids);
    }

private:
    void remove(bool whole, std::string_view eids) {
        if (whole) return m_server.execute("DELETE FROM qor_environment");
        m_server
            .prepare(
                "DELETE FROM qor_environment WHERE eid IN "
                "(SELECT CAST(value AS uuid) FROM json_array_elements_text(CAST(? AS json)))")
            .bind(1, eids)
            .execute();
    }
    void copy(const Copied& one, bool whole, std::string_view eids) {
        const std::string table(one.table);
        const std::string columns = columnsOf(m_server, one.table);
        const std::string insert = "INSERT INTO " + table + " (" + columns + ") SELECT " + columns +
                                   " FROM json_populate_recordset(CAST(NULL AS " + table + "), CAST(? AS json))";
        ASStatement& select = m_home.prepare(
            "SELECT CAST(json_agg(r) AS text) FROM (SELECT t.*, (row_number() OVER (ORDER BY " +
            std::string(one.order) + ") - 1) / " + std::to_string(atOnce) + " AS qor_block FROM " + table + " t" +
            (whole ? std::string(" WHERE CAST(? AS text) IS NOT NULL")
                   : std::string(" WHERE eid IN "
                                 "(SELECT CAST(value AS uuid) FROM json_array_elements_text(CAST(? AS json)))")) +
            ") r GROUP BY qor_block ORDER BY qor_block");
        select.bind(1, eids).execute();
        while (select.fetch())
            m_server.prepare(insert).bind(1, select.text(1)).execute();
        select.close();
    }

    ASSession& m_home;
    ASSession& m_server;
};

}  // namespace

void copyEnvironments(const QORServer& to) {
    QORRdbmsTran home(ASAccess::Read);
    const std::int64_t now = readNumber(*home, "SELECT coalesce(max(n), 0) FROM qor_change");
    QORServers::instance().run(to, [&](QORRdbms& database) {
        const auto known = [](ASSession& session, std::string_view lock) {
            return readNumber(session, "SELECT n FROM qor_followed" + std::string(lock));
        };
        {
            QORRdbmsTran look(database, ASAccess::ReadOne);
            if (known(*look, "") >= now) return;
        }
        database.write([&](ASSession& server) {
            const std::int64_t since = known(server, " FOR UPDATE");
            if (since >= now) return;  // another agent has been quicker
            Copy(*home, server).run(changesSince(*home, since));
            server.prepare("UPDATE qor_followed SET n = ?").bind(1, now).execute();
        });
    });
}

}  // namespace QOR
