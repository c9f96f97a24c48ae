#include "filter/FilterNames.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORPager/QORFilterNames.h"
#include "QORPager/QORSources.h"

namespace QOR {
namespace {

constexpr std::size_t mostSuggestions = 3;
constexpr std::size_t longestName = 200;  ///< longer names resemble none

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

/// Changes of one character, and swaps of two neighbours, that lead from one text to the other.
std::size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> before(to.size() + 1);
    std::vector<std::size_t> last(to.size() + 1);
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t change = from[i - 1] == to[j - 1] ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + change});
            const bool swapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before.swap(last);
        last.swap(row);
    }
    return last[to.size()];
}

/// How far a declared name is from one that was written. Leaving the beginning of a path out counts little.
std::size_t distance(std::string_view written, std::string_view declared) {
    const std::string lower = toLowerText(declared);
    std::size_t nearest = editDistance(written, lower);
    for (std::size_t dot = lower.find('.'); dot != std::string::npos; dot = lower.find('.', dot + 1)) {
        nearest = std::min(nearest, editDistance(written, std::string_view(lower).substr(dot + 1)) + 1);
    }
    return nearest;
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
    if (name.size() > longestName) return {};
    const std::string written = toLowerText(name);
    const std::size_t most = 1 + written.size() / 3;
    std::vector<std::pair<std::size_t, std::string_view>> candidates;
    const auto consider = [&](std::string_view declared) {
        const std::size_t far = distance(written, declared);
        if (far <= most) candidates.emplace_back(far, declared);
    };
    for (const QORField& field : m_fields)
        consider(field.name);
    consider("true");
    consider("false");
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string_view> names;
    for (const auto& [far, declared] : candidates) {
        // Much better ones make the others noise.
        if (names.size() == mostSuggestions || far > candidates.front().first + 1) break;
        names.push_back(declared);
    }
    return names;
}

std::map<std::string, QORColumnKind, std::less<>> FilterNames::kindsOf(const std::vector<std::string>& names) const {
    std::map<std::string, QORColumnKind, std::less<>> kinds;
    for (const std::string& name : names) {
        const QORField* const field = find(name);
        if (field == nullptr || field->isMulty()) continue;
        if (field->valueType == TValueType::Integer) kinds[name] = QORColumnKind::Integer;
        if (field->valueType == TValueType::Time) kinds[name] = QORColumnKind::Time;
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
