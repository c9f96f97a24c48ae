#include "ingest/collectors/GoneEnvironment.h"

#include "ingest/RecordLines.h"
#include "ingest/collectors/EnvironmentLife.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

std::optional<QOREnvironmentRecord> goneEnvironment(const QOREID& eid, const QOREID& machine) {
    QORRdbmsTran tran(ASAccess::ReadOne);
    const RecordLines lines = readRecordLines(*tran, QORRecordKind::Environment, {eid.toString()}, nullptr);
    if (lines.empty()) return std::nullopt;
    auto record = std::get<QOREnvironmentRecord>(QORRecordParser().parse(lines.begin()->second.text));
    if (record.parentEid != machine) return std::nullopt;
    record.state = numberOf(EnvironmentLife::Gone);
    record.transition = 0;
    return record;
}

}  // namespace QOR
