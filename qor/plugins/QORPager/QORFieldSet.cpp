#include "QORPager/QORFieldSet.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "QORLibLocal/QORVocabulary.h"
#include "QORPager/QORBuiltInFields.h"
#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFieldGetters.h"
#include "QORPager/QORPagerVocabulary.h"
#include "QORPager/QORSources.h"

namespace QOR {

namespace {

/// Whether a name begins with the prefix of an entry.
struct InfoPrefixCompare {
    std::string_view name;
    template <class Entry>
    bool operator()(const Entry& entry) const {
        return name.starts_with(entry.first);
    }
};

std::string textOf(const QORVocIterator& entry, QORTag id) {
    std::string text;
    static_cast<void>(entry.getValue(text, id));
    return text;
}

/// The field that an entry declares; none when it lacks a name or a path.
std::optional<QORField> declaredField(const QORVocIterator& entry, const QORPtr<QORAccessProviderPrototype>& provider) {
    std::string name;
    std::string path;
    if (entry.getID(name) != 0 || entry.getValue(path, tag::source) != 0) return std::nullopt;
    std::string cacheName;
    TCursorType cursorType = TCursorType::Env;
    QORFieldGetter getter = getFieldValueByPath;
    if (entry.getValue(cacheName, tag::cache) == 0) {
        cursorType = TCursorType::Info;
    } else if (path.starts_with(virtualConfigPath)) {
        getter = getENVValueByPath;
        path.erase(0, virtualConfigPath.size());
    }
    const bool multi = entry.hasAttribute("multi");
    return QORField(std::move(name), cursorType, typeFromString(textOf(entry, tag::type)), getter, provider,
                    multi ? FieldStructType::Multi : FieldStructType::Single, std::move(path),
                    textOf(entry, tag::value), std::move(cacheName));
}

}  // namespace

QORFieldSet::QORFieldSet() = default;
QORFieldSet::~QORFieldSet() = default;

void QORFieldSet::init(QORPtr<QORAccessProviderPrototype> accessProvider) {
    m_demanded.clear();
    m_demandedBytes = 0;
    m_fields.clear();
    m_accessProvider = std::move(accessProvider);
    addBuiltIns();
    readFieldsFromVoc();
}

void QORFieldSet::addBuiltIns() {
    for (const QORBuiltInField& field : builtInFields()) {
        m_fields.emplace(std::string(field.name), field.cursorType, field.valueType, field.getter,
                         field.providerBound ? m_accessProvider : QORPtr<QORAccessProviderPrototype>(),
                         field.structType, std::string(field.path), std::string(), std::string());
    }
}

void QORFieldSet::readFieldsFromVoc() {
    const QORPtr<const QORVocMap> vocabulary = vocCacheLocal()->getVocabulary();
    QORVocIterator entry;
    if (vocabulary == nullptr || vocabulary->readCategory(fieldsCategory, entry) != 0) return;
    if (entry.firstParameter() != 0) return;
    do {
        if (std::optional<QORField> field = declaredField(entry, m_accessProvider)) m_fields.insert(std::move(*field));
    } while (entry.nextParameter() == 0);
}

int QORFieldSet::registerPrefix(std::string prefix, TCursorType cursorType, std::string cacheName) {
    m_prefixes.insert_or_assign(std::move(prefix), InfoPrefixDescription{cursorType, std::move(cacheName)});
    return 0;
}

void QORFieldSet::registerPrefixes() {
    for (const QORSource& source : pagerSources()) {
        if (!source.parameterPrefix.empty() && !source.prefixIsConfigured)
            registerPrefix(std::string(source.parameterPrefix), source.cursorType, "");
    }
}

void QORFieldSet::registerCaches(const CacheInfoMap& caches) {
    for (const auto& [id, cache] : caches) {
        if (!cache.info_prefix.empty()) registerPrefix(cache.info_prefix, TCursorType::Info, id);
    }
}

void QORFieldSet::declareIn(TExpressionEvaluation& filter) const {
    for (const QORField& field : m_fields)
        filter.declareIdentifier(field.name, field.valueType, field.cursorType == TCursorType::Env);
}

QORFieldSet::Prefixes::const_iterator QORFieldSet::findPrefix(std::string_view name) const {
    return std::find_if(m_prefixes.begin(), m_prefixes.end(), InfoPrefixCompare{name});
}

QORFieldSet::Position QORFieldSet::checkPrefix(std::string_view name) {
    const auto prefix = findPrefix(name);
    if (prefix == m_prefixes.end()) return end();
    std::string path(name.substr(prefix->first.size()));
    std::replace(path.begin(), path.end(), '.', '/');
    const std::size_t before = m_fields.size();
    const Position position =
        addInfoField(std::string(name), prefix->second.cursorType, std::move(path), prefix->second.cacheName);
    if (m_fields.size() == before) return position;
    m_demanded.push_back(position);
    m_demandedBytes += name.size();
    return position;
}

QORFieldSet::Position QORFieldSet::addInfoField(std::string name, TCursorType cursorType, std::string path,
                                                std::string cacheName) {
    return m_fields
        .emplace(std::move(name), cursorType, TValueType::String, getFieldValueParameter, m_accessProvider,
                 FieldStructType::Single, std::move(path), std::string(), std::move(cacheName))
        .first;
}

std::vector<std::string> QORFieldSet::takeDemanded() {
    std::vector<std::string> names;
    names.reserve(m_demanded.size());
    for (const Position position : m_demanded)
        names.push_back(std::move(m_fields.extract(position).value().name));
    m_demanded = {};
    m_demandedBytes = 0;
    return names;
}

}  // namespace QOR
