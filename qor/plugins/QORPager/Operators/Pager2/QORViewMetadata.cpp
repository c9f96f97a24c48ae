#include "QORPager/Operators/Pager2/QORViewMetadata.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORSpreadViews.h"
#include "QORDBSchema/QORStoredColumns.h"
#include "QORDBSchema/SchemaTable.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORPager/Operators/Pager2/QORPreparedSelect.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR {

namespace {

constexpr std::array<std::pair<std::string_view, ColumnType>, 17> typeNames{{
    {"char", ColumnType::Char},
    {"varchar", ColumnType::VarChar},
    {"nvarchar", ColumnType::VarChar},
    {"datetime", ColumnType::DateTime},
    {"float", ColumnType::Double},
    {"decimal", ColumnType::Double},
    {"double", ColumnType::Double},
    {"bigint", ColumnType::BigInt},
    {"int", ColumnType::Int},
    {"smallint", ColumnType::Int},
    {"tinyint", ColumnType::Int},
    {"bit", ColumnType::Int},
    {"uniqueidentifier", ColumnType::Guid},
    {"text", ColumnType::Blob},
    {"image", ColumnType::Blob},
    {"longblob", ColumnType::Blob},
    {"binary", ColumnType::Blob},
}};

constexpr const char* operationPrefix = "securityOperation_";
/// Operation identifiers that the host's security knows run from 1 to this one.
constexpr long lastOperationId = 2000008;

/// The host's own views: the columns that are never null, of which the first tells rows apart, and what these are.
struct OwnView {
    std::string_view name;
    std::array<std::string_view, 4> neverNull;
    QORChangeKind records;
};
constexpr OwnView ownViews[] = {
    {"vEnvironment", {"eid", "state", "transition", "updated"}, QORChangeKind::Environment},
    {"vOpLog", {"id", "status", "time"}, QORChangeKind::Operation},
    {"vEventLog", {"id", "time"}, QORChangeKind::Event},
    {"vBackupInfo", {"id", "time", "size", "type"}, QORChangeKind::Backup},
};

/// The per-process caches and their locks.
struct ViewCaches {
    std::mutex metadataMutex;
    std::shared_ptr<const MetaTablesMap> metadata;  // guarded by metadataMutex; null until loaded
    std::mutex domainMutex;
    std::map<std::string, ASDomainPtr, std::less<>> domains;  // guarded by domainMutex
};

ViewCaches& caches() {
    static ViewCaches instance;
    return instance;
}

bool isTextType(ColumnType type) {
    return type == ColumnType::VarChar || type == ColumnType::Char;
}

ColumnType typeOfColumn(const std::string& view, const std::string& column, const std::string& typeName) {
    if (const auto known = columnTypeFromName(typeName)) return *known;
    logMessage(1, pagerLogModule, pager2SourcePath, "getMetaTablesMap",
               "%s.%s unknown column type '%s' - treating as string...", view.c_str(), column.c_str(),
               typeName.c_str());
    return ColumnType::VarChar;
}

void addColumn(MetaTablesMap& views, const SchemaTable::MetaData& row) {
    const std::string view = row.viewName->Str();
    const std::string lowered = toLowerText(view);
    const std::string column = row.name->Str();
    const std::string type = toLowerText(row.type->Str());
    MetaColumn meta;
    meta.type = typeOfColumn(lowered, column, type);
    if (isTextType(meta.type)) meta.length = static_cast<std::uint32_t>(std::max(row.length->value(), 0));
    MetaColumnsMap& columns = views[lowered];
    if (columns.viewName.empty()) columns.viewName = view;
    columns.columns.emplace(column, meta);
    if (type == "decimal") columns.storages.emplace(column, ASStorage::Decimal);
}

void knowOwnViews(MetaTablesMap& views, bool tellsChanges) {
    for (const OwnView& own : ownViews) {
        const auto found = views.find(toLowerText(own.name));
        if (found == views.end() || found->second.viewName != own.name) continue;
        found->second.key = own.neverNull.front();
        for (const std::string_view name : own.neverNull) {
            const auto column = found->second.columns.find(name);
            if (column != found->second.columns.end()) column->second.isNeverNull = true;
        }
        if (tellsChanges) found->second.records = own.records;
    }
}

void readViewsInto(MetaTablesMap& views) {
    QORRdbmsTran transaction(ASAccess::Read);
    const SchemaTable schema(*transaction);
    ASCursor cursor(*transaction);
    selectAllAttributes(cursor.Filter().Project(), schema);
    while (cursor.Fetch())
        addColumn(views, schema.metaData);
    for (auto& [name, storages] : columnStorages(*transaction))
        views[toLowerText(name)].storages.merge(storages);
    if (QORDBSchema::inspect(*transaction).kind == QORSchemaState::Kind::Ours)
        knowOwnViews(views, keepsRecordChanges(*transaction));
}

// Each view on its own: of one that the engine fails on, nothing is known, but of the others all the same.
std::shared_ptr<const MetaTablesMap> loadViews() {
    auto views = std::make_shared<MetaTablesMap>();
    readViewsInto(*views);
    if (!SelectStmnt::isSecurityNeeded()) return views;
    SelectStmnt::validateSecurableViews(*views);
    for (auto& [name, view] : *views) {
        std::vector<std::string> columns;
        for (const auto& [column, meta] : view.columns)
            columns.push_back(column);
        QORRdbmsTran transaction(ASAccess::Read);
        view.reading = storedColumns(*transaction, view.viewName, columns);
    }
    return views;
}

/// The view's security operation as its columns name it, 0 when none does.
int operationIdOf(const MetaColumnsMap& view) {
    const std::string_view prefix = operationPrefix;
    for (auto column = view.columns.lower_bound(prefix); column != view.columns.end(); ++column) {
        if (column->first.compare(0, prefix.size(), prefix) != 0) break;
        const long number = std::strtol(column->first.c_str() + prefix.size(), nullptr, 10);
        if (number >= 1 && number <= lastOperationId) return static_cast<int>(number);
    }
    return 0;
}

/// Whether the object columns securableObjId0, securableObjId1, ... make the view secure.
bool areNumberedObjectColumnsValid(const std::string& name, const MetaColumnsMap& view) {
    bool valid = true;
    int number = 0;
    for (;; ++number) {
        const auto column = view.columns.find(securableObjectColumn + std::to_string(number));
        if (column == view.columns.end()) break;
        if (column->second.type == ColumnType::Guid) continue;
        logMessage(4, pagerLogModule, pager2SourcePath, "validateSecurableViews",
                   "'%s%d' field type is not a GUID - DB view '%s' is not secure.", securableObjectColumn, number,
                   name.c_str());
        valid = false;
    }
    if (number > 0) return valid;
    logMessage(4, pagerLogModule, pager2SourcePath, "validateSecurableViews",
               "Neither '%s' nor '%s<N>' fields are found - DB view '%s' is not secure.", securableObjectColumn,
               securableObjectColumn, name.c_str());
    return false;
}

bool areObjectColumnsValid(const std::string& name, const MetaColumnsMap& view) {
    const auto single = view.columns.find(securableObjectColumn);
    if (single == view.columns.end()) return areNumberedObjectColumnsValid(name, view);
    if (single->second.type == ColumnType::Guid) return true;
    logMessage(4, pagerLogModule, pager2SourcePath, "validateSecurableViews",
               "'%s' field type is not a GUID - DB view '%s' is not secure.", securableObjectColumn, name.c_str());
    return false;
}

/// With what was learned of the view's columns; nothing before.
ASDomainPtr newDomain(ViewCaches& cache, const std::string& view) {
    const std::lock_guard<std::mutex> lock(cache.metadataMutex);
    QORSpreadViews* const spread = &QORSpreadViews::instance();
    if (!cache.metadata) return ASDomain::view(view, {}, {}, false, spread);
    const auto found = cache.metadata->find(toLowerText(view));
    if (found == cache.metadata->end()) return ASDomain::view(view, {}, {}, false, spread);
    const MetaColumnsMap& known = found->second;
    return ASDomain::view(view, known.reading.names, known.storages, known.reading.handsOutOnly, spread);
}

std::int64_t timeOf(const std::string& text) {
    const auto seconds = parseTime(text);
    if (!seconds) {
        throwException(errBadRequest, "\"" + text + "\" is not a date or time", pager2SourcePath, __LINE__);
    }
    return *seconds;
}

Guid guidOf(const std::string& text) {
    const auto guid = Guid::parse(text);
    if (!guid) throwException(errBadRequest, "\"" + text + "\" is not a GUID", pager2SourcePath, __LINE__);
    return *guid;
}

template <class Data, class Convert>
ASDataPtr make(const std::string* text, Convert convert) {
    if (text == nullptr) return std::make_shared<Data>();
    return std::make_shared<Data>(convert(*text));
}

template <class Data>
ASDataPtr makeText(const std::string* text, std::size_t length) {
    if (text == nullptr) return std::make_shared<Data>(length + 1);
    return std::make_shared<Data>(length + 1, *text);
}

}  // namespace

std::optional<ColumnType> columnTypeFromName(std::string_view typeName) {
    const auto* const found = std::find_if(typeNames.begin(), typeNames.end(),
                                           [&](const auto& candidate) { return candidate.first == typeName; });
    if (found == typeNames.end()) return std::nullopt;
    return found->second;
}

std::shared_ptr<const MetaTablesMap> SelectStmnt::getMetaTablesMap() {
    ViewCaches& cache = caches();
    {
        const std::lock_guard<std::mutex> lock(cache.metadataMutex);
        if (cache.metadata) return cache.metadata;
    }
    // The database is read without the lock: several threads may load at once, and the first to finish publishes.
    auto loaded = loadViews();
    const std::lock_guard<std::mutex> lock(cache.metadataMutex);
    if (cache.metadata) return cache.metadata;
    // A database without views is asked again by the next request.
    if (!loaded->empty()) cache.metadata = loaded;
    return loaded;
}

bool SelectStmnt::areViewsKnown() {
    ViewCaches& cache = caches();
    const std::lock_guard<std::mutex> lock(cache.metadataMutex);
    return cache.metadata != nullptr;
}

void SelectStmnt::validateSecurableViews(MetaTablesMap& views) {
    for (auto& [name, view] : views) {
        view.securityOperationId = operationIdOf(view);
        if (view.securityOperationId == 0) {
            logMessage(4, pagerLogModule, pager2SourcePath, "validateSecurableViews",
                       "No field like '%s<N>' is found - DB view '%s' is not secure.", operationPrefix, name.c_str());
        } else if (!areObjectColumnsValid(name, view)) {
            view.securityOperationId = 0;
        }
    }
}

bool SelectStmnt::isSecurityNeeded() {
    return !QORRowAccess::current().isFull();
}

ASDomainPtr SelectStmnt::getDomain(const std::string& view) {
    ViewCaches& cache = caches();
    {
        const std::lock_guard<std::mutex> lock(cache.domainMutex);
        const auto found = cache.domains.find(view);
        if (found != cache.domains.end()) return found->second;
    }
    auto made = newDomain(cache, view);
    const std::lock_guard<std::mutex> lock(cache.domainMutex);
    return cache.domains.emplace(view, std::move(made)).first->second;
}

ColumnType SelectStmnt::clipNumericType(ColumnType type) {
    switch (type) {
        case ColumnType::Int:
        case ColumnType::Double:
        case ColumnType::BigInt:
            return type;
        default:
            return ColumnType::Double;
    }
}

ASDataPtr SelectStmnt::interpret(ColumnType type, const std::string* text, std::size_t length) {
    switch (type) {
        case ColumnType::VarChar:
            return makeText<ASVStr>(text, length);
        case ColumnType::Char:
            return makeText<ASStr>(text, length);
        case ColumnType::Int:
            return make<ASInt>(text, [](const std::string& value) { return strToInt(value); });
        case ColumnType::BigInt:
            return make<ASInt64>(text, [](const std::string& value) { return strToLonglong(value); });
        case ColumnType::Double:
            if (text == nullptr) return std::make_shared<ASDouble>();
            return std::make_shared<ASDouble>(strToDouble(*text), *text);
        case ColumnType::Guid:
            return make<ASGuid>(text, guidOf);
        case ColumnType::Blob:
            return make<ASRealBlob>(
                text, [&](const std::string& value) { return RealBlob(value.data(), std::min(length, value.size())); });
        case ColumnType::DateTime:
            return make<ASTime>(text, timeOf);
    }
    throwException(errFailure, "unsupported data type", pager2SourcePath, __LINE__);
}

void test::forgetMetadata() {
    PreparedSelect::forgetAll();
    ViewCaches& cache = caches();
    const std::scoped_lock lock(cache.metadataMutex, cache.domainMutex);
    cache.metadata.reset();
    cache.domains.clear();
}

}  // namespace QOR
