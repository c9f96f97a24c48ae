#include "QORPager/Operators/Pager/QORBackup.h"

#include <algorithm>
#include <array>
#include <memory>
#include <set>
#include <utility>

#include "QORCommon/QORTime.h"
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
constexpr std::array<ValueRow, 3> foundBy{{
    {"storage_eid", [](const QORBackup& backup) { return fieldText(backup.storage_eid); }},
    {"info.name", [](const QORBackup& backup) { return backup.name; }},
    {"info.hostname", [](const QORBackup& backup) { return backup.hostname; }},
}};
constexpr std::string_view parameterPrefix = "info.";

template <class Rows>
const ValueRow* findValue(const Rows& rows, std::string_view name) {
    const auto found = std::find_if(rows.begin(), rows.end(), [name](const ValueRow& row) { return row.name == name; });
    return found == rows.end() ? nullptr : &*found;
}

/// What stands behind the source's prefix; "" for a name without it.
std::string_view plainName(std::string_view name) {
    const std::string_view prefix = sourceOf(TCursorType::Info).namePrefix;
    return name.starts_with(prefix) ? name.substr(prefix.size()) : std::string_view();
}

}  // namespace

QORBackupArg::~QORBackupArg() = default;

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
    backup.name = table.name->Str();
    backup.hostname = table.hostname->Str();
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
    const ValueRow* const row = findValue(values, plainName(name));
    return row == nullptr ? std::string() : row->read(backup);
}

std::string getStoredValue(const QORBackup& backup, const QORField& field) {
    if (field.valueType == TValueType::Time) return time2str(backup.time);
    const std::string_view name = plainName(field.name);
    const ValueRow* row = findValue(values, name);
    if (row == nullptr) row = findValue(foundBy, name);
    if (row != nullptr) return row->read(backup);
    if (!name.starts_with(parameterPrefix)) return {};
    std::string path(name.substr(parameterPrefix.size()));
    std::replace(path.begin(), path.end(), '.', '/');
    return backup.info.getParameterByPath(path);
}

}  // namespace QOR
