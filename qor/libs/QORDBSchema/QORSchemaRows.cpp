#include "QORDBSchema/QORSchemaRows.h"

#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

std::vector<QORSchemaRow> readRows(ASSession& session, std::string_view sql, unsigned columns) {
    std::vector<QORSchemaRow> rows;
    ASStatement& select = session.prepare(sql);
    select.execute();
    while (select.fetch()) {
        QORSchemaRow& row = rows.emplace_back();
        for (unsigned column = 1; column <= columns; ++column)
            row.emplace_back(select.text(column));
    }
    select.close();
    return rows;
}

std::string readCell(ASSession& session, std::string_view sql) {
    const auto rows = readRows(session, sql, 1);
    return rows.empty() ? std::string() : rows.front().front();
}

std::int64_t readNumber(ASSession& session, std::string_view sql) {
    ASStatement& select = session.prepare(sql);
    select.execute();
    const std::int64_t number = select.fetch() ? select.integer(1) : 0;
    select.close();
    return number;
}

}  // namespace QOR
