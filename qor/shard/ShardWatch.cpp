#include "shard/ShardWatch.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "QORDBSchema/QORSchemaRows.h"

namespace QOR {
namespace {

/// A table, and whose records its rows belong to.
struct Watched {
    const char* table;
    const char* source;
    const char* number;
};

constexpr std::array watched{
    Watched{"qor_operation", "qor_operation", "seq"},
    Watched{"qor_operation_environment", "qor_operation", "operation"},
    Watched{"qor_event", "qor_event", "seq"},
    Watched{"qor_backup", "qor_backup", "seq"},
};

constexpr const char* events[] = {"insert", "delete", "update", "truncate"};

/// No record has this number: all have gone.
constexpr std::int64_t all = 0;

std::string triggerName(const char* event) {
    return "qor_moved_" + std::string(event);
}

std::string triggerSql(const Watched& one, std::string_view event) {
    const std::string rows = event == "insert"   ? " REFERENCING NEW TABLE AS came"
                             : event == "delete" ? " REFERENCING OLD TABLE AS gone"
                             : event == "update" ? " REFERENCING OLD TABLE AS gone NEW TABLE AS came"
                                                 : "";
    return "CREATE TRIGGER " + triggerName(std::string(event).c_str()) + " AFTER " + std::string(event) + " ON " +
           one.table + rows +
           " FOR EACH STATEMENT WHEN (current_setting('qor.moving', true) IS DISTINCT FROM 'on') "
           "EXECUTE FUNCTION qor_moved_note('" +
           one.source + "', '" + one.number + "')";
}

// The columns' names differ, so the statement is put together; they are the triggers' own.
constexpr const char* noteFunction =
    "CREATE OR REPLACE FUNCTION qor_moved_note() RETURNS trigger LANGUAGE plpgsql SET search_path FROM CURRENT AS $$ "
    "BEGIN IF TG_OP = 'TRUNCATE' THEN INSERT INTO qor_moved (source, seq) VALUES (TG_ARGV[0], 0); RETURN NULL; END IF; "
    "IF TG_OP <> 'DELETE' THEN EXECUTE format('INSERT INTO qor_moved (source, seq) SELECT DISTINCT %L, %I FROM came', "
    "TG_ARGV[0], TG_ARGV[1]); END IF; "
    "IF TG_OP <> 'INSERT' THEN EXECUTE format('INSERT INTO qor_moved (source, seq) SELECT DISTINCT %L, %I FROM gone', "
    "TG_ARGV[0], TG_ARGV[1]); END IF; RETURN NULL; END $$";

}  // namespace

bool ShardWatch::isOn(ASSession& session) {
    return readCell(session,
                    "SELECT count(*) FROM pg_trigger WHERE tgname LIKE 'qor\\_moved\\_%' AND "
                    "tgrelid = CAST('qor_event' AS regclass)") != "0";
}

void ShardWatch::begin(ASSession& session) {
    session.execute(noteFunction);
    for (const Watched& one : watched) {
        for (const char* const event : events)
            session.execute(triggerSql(one, event));
    }
}

void ShardWatch::end(ASSession& session) {
    for (const Watched& one : watched) {
        for (const char* const event : events)
            session.execute("DROP TRIGGER IF EXISTS " + triggerName(event) + " ON " + one.table);
    }
    session.execute("DROP FUNCTION IF EXISTS qor_moved_note()");
    session.execute("TRUNCATE qor_moved");
}

void ShardWatch::leaveOut(ASSession& session) {
    session.execute("SELECT set_config('qor.moving', 'on', true)");
}

ShardChanges ShardWatch::read(ASSession& session) {
    ShardChanges changes;
    ASStatement& select = session.prepare("SELECT id, source, seq FROM qor_moved ORDER BY id LIMIT 10000");
    select.execute();
    while (select.fetch()) {
        changes.entries.push_back(select.integer(1));
        const std::string source(select.text(2));
        if (select.integer(3) == all) {
            changes.emptied.push_back(source);
        } else {
            changes.numbers[source].push_back(select.integer(3));
        }
    }
    select.close();
    for (auto& [source, numbers] : changes.numbers) {
        std::sort(numbers.begin(), numbers.end());
        numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    }
    return changes;
}

void ShardWatch::forget(ASSession& session, const ShardChanges& changes) {
    std::string list;
    for (const std::int64_t entry : changes.entries)
        list += (list.empty() ? "" : ",") + std::to_string(entry);
    if (list.empty()) return;
    list = '{' + list + '}';
    session.prepare("DELETE FROM qor_moved WHERE id = ANY (CAST(? AS bigint[]))")
        .bind(1, std::string_view(list))
        .execute();
}

}  // namespace QOR
