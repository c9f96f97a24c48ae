#include "ingest/CollectorPosition.h"

#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

std::string readCollectorPosition(const QOREID& machine, std::string_view collector) {
    QORRdbmsTran tran(ASAccess::ReadOne);
    ASStatement& select = tran->prepare("SELECT position FROM qor_collector_position WHERE machine = " +
                                        ASDialect::of(tran->engine()).guid("?") + " AND collector = ?");
    select.bind(1, std::string_view(machine.toString())).bind(2, collector).execute();
    std::string position = select.fetch() ? std::string(select.text(1)) : std::string();
    select.close();
    return position;
}

void storeCollectorPosition(ASSession& session, const QOREID& machine, std::string_view collector,
                            std::string_view position) {
    const std::string eid = machine.toString();
    session
        .prepare("INSERT INTO qor_collector_position (machine, collector, position) VALUES (" +
                 ASDialect::of(session.engine()).guid("?") +
                 ", ?, ?) ON CONFLICT (machine, collector) DO UPDATE SET position = excluded.position")
        .bind(1, std::string_view(eid))
        .bind(2, collector)
        .bind(3, position)
        .execute(ASTriggers::Skip);
}

}  // namespace QOR
