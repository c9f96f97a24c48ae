#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/QORSchemaSteps.h"
#include "QORDBSchema/QORStoredDocuments.h"

namespace QOR {
namespace {

// Earlier versions stored documents of backups with the length of another one: with a part of that one behind them, or
// without their own end. record is what identifies a record in its table: seq, or the eid of an environment.
#define QOR_FORGET(name, event, table, part, key)                                             \
    "CREATE TRIGGER " name " AFTER " event " ON " table                                       \
    " BEGIN DELETE FROM qor_unreadable_document WHERE source = '" table "' AND part = '" part \
    "' AND record = OLD." key "; END"

constexpr const char* documentSchemaStatements[] = {
    R"sql(CREATE TABLE qor_unreadable_document (
    source nvarchar(64) NOT NULL,
    part nvarchar(64) NOT NULL,
    record NOT NULL,
    PRIMARY KEY (source, part, record)
) WITHOUT ROWID)sql",
    QOR_FORGET("qor_config_replaced", "UPDATE OF config", "qor_environment", "config", "eid"),
    QOR_FORGET("qor_virtual_config_replaced", "UPDATE OF virtual_config", "qor_environment", "virtual_config", "eid"),
    "CREATE TRIGGER qor_environment_documents_removed AFTER DELETE ON qor_environment BEGIN DELETE FROM "
    "qor_unreadable_document WHERE source = 'qor_environment' AND part IN ('config', 'virtual_config') AND record = "
    "OLD.eid; END",
    QOR_FORGET("qor_message_replaced", "UPDATE OF message", "qor_operation", "message", "seq"),
    QOR_FORGET("qor_message_removed", "DELETE", "qor_operation", "message", "seq"),
    QOR_FORGET("qor_event_info_replaced", "UPDATE OF info", "qor_event", "info", "seq"),
    QOR_FORGET("qor_event_info_removed", "DELETE", "qor_event", "info", "seq"),
    QOR_FORGET("qor_backup_info_replaced", "UPDATE OF info", "qor_backup", "info", "seq"),
    QOR_FORGET("qor_backup_info_removed", "DELETE", "qor_backup", "info", "seq"),
};

#undef QOR_FORGET

void mendDocuments(ASSession& session) {
    QORDocumentCheck check(QORDocumentCheck::Mode::Mend);
    while (check.step(session)) {
    }
    for (const QORDocumentCheck::Column& column : check.columns()) {
        if (column.trimmed == 0) continue;
        logMessage(1, "QORDBSchema", QOR_SOURCE_PATH, __func__,
                   "%s.%s: cut off what stood behind %llu of %llu documents", column.table.c_str(),
                   column.column.c_str(), static_cast<unsigned long long>(column.trimmed),
                   static_cast<unsigned long long>(column.read));
    }
}

}  // namespace

const QORSchemaStep documentSchema{documentSchemaStatements, &mendDocuments};

}  // namespace QOR
