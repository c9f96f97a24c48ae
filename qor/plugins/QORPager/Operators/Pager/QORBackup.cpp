#include "QORPager/Operators/Pager/QORBackup.h"

#include <array>
#include <memory>
#include <set>
#include <utility>

#include "QORDBSchema/QORSpreadViews.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORPager/Operators/QORAccessCondition.h"
#include "QORPager/QORFieldGetters.h"
#include "QORPager/QORSources.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR {

namespace {

/// Bytes that a document takes when it is read, for each of its text.
constexpr std::size_t memoryOfDocumentByte = 4;

/// How the value of a field is read from a backup, by the field's name without the source's prefix.
struct ValueRow {
    std::string_view name;
    std::string (*read)(const QORBackup&);
};
constexpr std::array<ValueRow, 6> values{{
    {"id", [](const QORBackup& backup) { return backup.id; }},
    {"type", [](const QORBackup& backup) { return std::to_string(backup.type); }},
    {"size", [](const QORBackup& backup) { return std::to_string(backup.size); }},
    {"description", [](const QORBackup& backup) { return backup.description; }},
    {"eid", [](const QORBackup& backup) { return fieldText(backup.eid); }},
    {"info.title", [](const QORBackup& backup) { return backup.getEnvTitle(); }},
}};

}  // namespace

std::string QORBackup::getEnvTitle() const {
    const QORInfo* const title = info.getParameter("title");
    return title == nullptr ? std::string() : title->toString();
}

QORBackupTable::QORBackupTable() : ASTable(ASDomain::view("vBackupInfo", {}, {}, false, &QORSpreadViews::instance())) {}

ASOrder QORBackupTable::order() const {
    ASOrder keys = -ASOrder(time);
    keys << ASOrder(id);
    return keys;
}

QORBackup makeQORBackupInfo(const QORBackupTable& table) {
    QORBackup backup;
    const std::string document = table.info->isNull() ? std::string() : table.info->Str();
    backup.memory.add(sizeof(QORBackup) + memoryOfDocumentByte * document.size() + table.description->Str().size(),
                      "the list of backups");
    if (!table.time->isNull()) backup.time = table.time->value();
    if (!table.size->isNull()) backup.size = static_cast<std::uint64_t>(table.size->value());
    if (!table.type->isNull()) backup.type = table.type->value();
    backup.id = table.id->Str();
    if (!document.empty()) static_cast<void>(backup.info.deserializeFromString(document));
    if (!table.eid->isNull()) backup.eid = QOREID(table.eid->value());
    backup.description = table.description->Str();
    if (!table.storageEid->isNull()) backup.storage_eid = QOREID(table.storageEid->value());
    return backup;
}

void getBackups(const QORBackupTable& table, const ASComparison& condition, std::vector<QORBackup>& backups,
                const QOREID& storageEid) {
    ASComparison all = condition;
    if (storageEid.isValid()) all = std::move(all) && (table.storageEid.attribute() == ASGuid(storageEid));
    all = std::move(all) && accessCondition(QORRowAccess::current(), {table.eid});
    QORRdbms::instance().read(ASAccess::ReadOne, [&](ASSession& session) {
        ASCursor cursor(session);
        table.selectAll(cursor.Filter().Project());
        if (!all.empty()) cursor.Filter().Set(all);
        cursor.Order(table.order());
        while (cursor.Fetch())
            backups.push_back(makeQORBackupInfo(table));
    });
}

std::string getBackupValue(const QORBackup& backup, std::string_view name) {
    const std::string_view prefix = sourceOf(TCursorType::Info).namePrefix;
    if (!name.starts_with(prefix)) return {};
    for (const ValueRow& row : values) {
        if (row.name == name.substr(prefix.size())) return row.read(backup);
    }
    return {};
}

}  // namespace QOR
