#include "QORLibAgent/QORHostTables.h"

#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

bool hasColumns(ASSession& session, std::string_view table, const std::string& names, std::int64_t count) {
    ASStatement& find =
        session.prepare(session.engine() == ASEngine::SQLite
                            ? "SELECT count(*) FROM pragma_table_info(?) WHERE name IN (" + names + ")"
                            : "SELECT count(*) FROM information_schema.columns WHERE table_schema = current_schema() "
                              "AND table_name = CAST(? AS text) AND column_name IN (" +
                                  names + ")");
    find.bind(1, table).execute();
    const bool found = find.fetch() && find.integer(1) == count;
    find.close();
    return found;
}

}  // namespace QOR
