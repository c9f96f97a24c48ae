#include "QORPager/Operators/QORPagerOperator.h"

#include <cassert>
#include <iterator>
#include <limits>
#include <utility>

#include "QORFunctionality/QORAccess.h"
#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/Operators/Pager/QORPagerErrors.h"

namespace QOR {

namespace {

constexpr std::pair<int, const char*> Map_PagerErrors_Array[] = {
    {pagerDatabaseError, "Pager error: database error \"%s\""},
    {pagerUnknownField, "Pager error: unknown field \"%s\""},
    {pagerParsingError, "Pager parsing error: %s"},
    {pagerEvaluatingError, "Pager evaluating error: %s"},
    {0, ""},
};

}  // namespace

// Defined before the factory: the order of definition is the order of initialisation.
QORErrorTable PagerErrors(std::begin(Map_PagerErrors_Array), std::end(Map_PagerErrors_Array));

QORPtr<QOROpFactory> factoryQORPagerOperatorPrototype =
    newOperatorFactory<QORPagerOperatorPrototype, 10, 20, 4, true>("pager", 272, 100);

namespace {

/// Of rows, after a request has ended.
constexpr int everyRow = std::numeric_limits<std::int32_t>::max();

/// Bytes of a compiled filter that may stay until the next one is compiled.
constexpr std::size_t mostKeptFilter = std::size_t{256} << 10;

/// One entry of the caches' category; none when it lacks an identifier or a name.
std::optional<std::pair<std::string, CacheInfo>> readCache(const QORVocIterator& entry) {
    std::string id;
    CacheInfo cache;
    if (entry.getID(id) != 0 || entry.getValue(cache.name, tag::source) != 0) return std::nullopt;
    static_cast<void>(entry.getString("info_prefix", cache.info_prefix));
    static_cast<void>(entry.getString("info_path", cache.info_path));
    static_cast<void>(entry.getInt("sync_timeout", cache.sync_timeout));
    static_cast<void>(entry.getInt("security_operation", cache.security_operation));
    return std::pair(std::move(id), std::move(cache));
}

}  // namespace

QORPagerOperatorPrototype::QORPagerOperatorPrototype()
    : m_limitSize(everyRow), m_limitOffset(0), m_evaluator(std::in_place) {
    static const MethodDescriptor table[] = {
        method("select", &QORPagerOperatorPrototype::select, 100, 0),
        {"", nullptr, 0, 0},
    };
    registerMethods(table);
    m_fieldSet.registerPrefix("pager.op_log.parameter.", TCursorType::OpLog, "");
    m_fieldSet.registerPrefix("pager.event_log.parameter.", TCursorType::EventLog, "");
}

QORPagerOperatorPrototype::~QORPagerOperatorPrototype() = default;

void QORPagerOperatorPrototype::init() {
    QOROperatorAsyncPrototype::init();
    readCachesFromVoc(m_caches);
    m_fieldSet.init(QOROpSyncAccessPrototype::createInstance("", this));
    initIdentifiers();
    for (const auto& [key, cache] : m_caches) {
        if (!cache.info_prefix.empty()) m_fieldSet.registerPrefix(cache.info_prefix, TCursorType::Info, key);
    }
}

void QORPagerOperatorPrototype::readCachesFromVoc(CacheInfoMap& caches) {
    const QORPtr<const QORVocMap> vocabulary = vocCacheLocal()->getVocabulary();
    QORVocIterator entry;
    if (vocabulary == nullptr || vocabulary->readCategory("pager_caches", entry) != 0) return;
    if (entry.firstParameter() != 0) return;
    do {
        if (auto cache = readCache(entry)) caches.insert_or_assign(std::move(cache->first), std::move(cache->second));
    } while (entry.nextParameter() == 0);
}

void QORPagerOperatorPrototype::initIdentifiers() {
    for (const QORField& field : m_fieldSet) {
        const bool special = field.cursorType == TCursorType::Env;
        switch (field.valueType) {
            case TValueType::Boolean:
                m_evaluator->setIdentifier(field.name, true, special);
                break;
            case TValueType::Integer:
                m_evaluator->setIdentifier(field.name, 0, special);
                break;
            case TValueType::String:
            case TValueType::Date:
            case TValueType::IPAddress:
            case TValueType::Time:
                m_evaluator->setIdentifier(field.name, "", special);
                break;
            default:
                assert(false);
        }
    }
}

void QORPagerOperatorPrototype::resetEvaluator() {
    m_evaluator.emplace();
    initIdentifiers();
}

void QORPagerOperatorPrototype::stopCallback() {
    m_limitSize = everyRow;
    m_limitOffset = 0;
    m_sortOrder.clear();
    m_selectFields.clear();
    m_whereFields.clear();
    m_fieldIndex = QORFieldIndex();
    m_envList.reset();
    m_access.reset();
    m_inPlaceholderList.clear();
    m_where = std::string();
    m_whereGiven = false;
    if (m_evaluator->expressionMemory() > mostKeptFilter) m_evaluator->forgetExpression();
}

/// The filter knows the names of the set, so that it starts anew with other ones.
void QORPagerOperatorPrototype::useNamesOf(const QORClientContextPtr& identity) {
    if (m_knownNames.use(identity, m_fieldSet)) resetEvaluator();
}

void QORPagerOperatorPrototype::disconnect(QORAccesserPrototype* accesser) {
    stopCallback();
    m_knownNames.clear();
    m_fieldSet.init(nullptr);
    resetEvaluator();
    QOROperatorAsyncPrototype::disconnect(accesser);
}

}  // namespace QOR
