#include "filter/FilterNames.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORNearestName.h"
#include "QORPager/QORFilterNames.h"
#include "QORPager/QORSources.h"

namespace QOR {
namespace {

std::string_view typeName(TValueType type) noexcept {
    switch (type) {
        case TValueType::Boolean:
            return "boolean";
        case TValueType::Integer:
            return "integer";
        case TValueType::Time:
            return "time";
        default:
            return "text";
    }
}

std::string describe(TValueType type, TCursorType cursorType) {
    return std::string(typeName(type)).append(", ").append(sourceOf(cursorType).title);
}

}  // namespace

// The operator's own steps at its start, but for the host that its fields ask to resolve what records refer to.
FilterNames::FilterNames(const QORPtr<const QORVocMap>& vocabulary) {
    m_fields.registerPrefixes();
    if (vocabulary == nullptr) {
        for (const QORSource& source : pagerSources()) {
            if (source.prefixIsConfigured)
                m_fields.registerPrefix(std::string(source.parameterPrefix), source.cursorType, "");
        }
    }
    vocCacheLocal()->setVocabulary(vocabulary);
    m_fields.init(nullptr);
    CacheInfoMap caches;
    readCachesFromVoc(caches);
    m_fields.registerCaches(caches);
}

const QORField* FilterNames::find(std::string_view name) const {
    const auto exact = m_fields.find(name);
    if (exact != m_fields.end()) return &*exact;
    const auto found = std::find_if(m_fields.begin(), m_fields.end(),
                                    [name](const QORField& field) { return isSameWord(field.name, name); });
    return found == m_fields.end() ? nullptr : &*found;
}

const std::string* FilterNames::findPrefix(std::string_view name) const {
    for (const auto& [prefix, description] : m_fields.prefixes()) {
        if (isSameWord(prefix, name.substr(0, prefix.size()))) return &prefix;
    }
    return nullptr;
}

void FilterNames::declare(TExpressionEvaluation& evaluator, std::string_view text) const {
    m_fields.declareIn(evaluator);
    forEachName(text, [&](std::string_view name) {
        if (find(name) == nullptr && findPrefix(name) != nullptr)
            evaluator.declareIdentifier(name, TValueType::String, false);
    });
}

std::string FilterNames::describe(std::string_view name) const {
    if (isSameWord(name, "true") || isSameWord(name, "false")) return "boolean constant";
    if (const QORField* const field = find(name)) return QOR::describe(field->valueType, field->cursorType);
    const std::string* const prefix = findPrefix(name);
    return prefix == nullptr ? std::string()
                             : QOR::describe(TValueType::String, m_fields.prefixes().at(*prefix).cursorType);
}

std::vector<std::string_view> FilterNames::nearest(std::string_view name) const {
    std::vector<std::string_view> names;
    for (const QORField& field : m_fields)
        names.emplace_back(field.name);
    names.insert(names.end(), {"true", "false"});
    return nearestNames(name, names);
}

std::vector<std::string_view> FilterNames::likewise(std::string_view name) const {
    const auto lastPart = [](std::string_view whole) { return whole.substr(whole.rfind('.') + 1); };
    std::vector<std::string_view> names;
    for (const QORField& field : m_fields)
        if (isSameWord(lastPart(field.name), lastPart(name))) names.emplace_back(field.name);
    return names;
}

std::map<std::string, QORColumnKind, std::less<>> FilterNames::kindsOf(const std::vector<std::string>& names) const {
    std::map<std::string, QORColumnKind, std::less<>> kinds;
    for (const std::string& name : names) {
        const QORField* const field = find(name);
        if (field == nullptr || field->isMulty()) continue;
        if (field->valueType == TValueType::Integer) kinds[name] = QORColumnKind::Integer;
        if (field->valueType == TValueType::Time) kinds[name] = QORColumnKind::Time;
        if (field->valueType == TValueType::String && name.ends_with("eid")) kinds[name] = QORColumnKind::Identifier;
    }
    return kinds;
}

std::string FilterNames::spell(std::string_view name) const {
    if (const QORField* const field = find(name)) return field->name;
    // Parameters that a source looks for by name are known whole; of others the prefix is.
    for (const QORSource& source : pagerSources()) {
        for (const QORSourceConstant& constant : source.constants)
            if (source.isParameter(constant.name) && isSameWord(constant.name, name)) return std::string(constant.name);
    }
    const std::string* const prefix = findPrefix(name);
    return prefix == nullptr ? std::string(name) : *prefix + std::string(name.substr(prefix->size()));
}

}  // namespace QOR
