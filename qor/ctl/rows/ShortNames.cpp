#include "rows/ShortNames.h"

#include <algorithm>

#include "QORPager/QORExpressionTables.h"
#include "QORPager/QORFilterNames.h"

namespace QOR {
namespace {

constexpr std::string_view beginning = "pager.";

std::string prefixOf(const QORSource& source) {
    return std::string(source.namePrefix) + (source.namePrefix.ends_with('.') ? "" : ".");
}

}  // namespace

const QORSource* findSource(std::string_view records) {
    const auto sources = pagerSources();
    const auto found = std::find_if(sources.begin(), sources.end(),
                                    [&](const QORSource& source) { return source.records == records; });
    return found == sources.end() ? nullptr : &*found;
}

const QORSource* sourceOfFields(const std::vector<std::string>& fields) {
    const auto isOf = [](const std::string& field, const QORSource& source) {
        return field.starts_with(source.namePrefix);
    };
    const QORSource* withoutRows = nullptr;
    for (const std::string& field : fields) {
        for (const QORSource& source : pagerSources())
            if (source.hasRows && isOf(field, source)) return &source;
    }
    for (const QORSource& source : pagerSources()) {
        const auto isField = [&](const std::string& field) { return isOf(field, source); };
        if (!source.hasRows && std::all_of(fields.begin(), fields.end(), isField)) withoutRows = &source;
    }
    return withoutRows;
}

std::string ShortNames::find(std::string_view name) const {
    if (m_names.isField(name) || name.starts_with(beginning)) return std::string(name);
    std::string own = prefixOf(m_source) + std::string(name);
    if (m_names.isField(own)) return own;
    std::string beside = std::string(beginning) + std::string(name);
    if (m_names.isField(beside)) return beside;
    const bool isParameter = !m_source.parameterPrefix.empty() && name.find('.') != std::string_view::npos;
    return isParameter ? std::string(m_source.parameterPrefix) + std::string(name) : std::string();
}

std::string ShortNames::whole(std::string_view name) const {
    const std::string found = find(name);
    return found.empty() ? prefixOf(m_source) + std::string(name) : found;
}

std::string ShortNames::shortest(std::string_view name) const {
    for (const std::string& prefix : {prefixOf(m_source), std::string(beginning)}) {
        if (!name.starts_with(prefix)) continue;
        const std::string_view rest = name.substr(prefix.size());
        if (find(rest) == name) return std::string(rest);
    }
    return std::string(name);
}

std::string ShortNames::inFilter(std::string_view filter) const {
    std::string spelled;
    std::size_t copied = 0;
    forEachName(filter, [&](std::string_view name) {
        if (findOperator(name) != nullptr || findFunction(name) != nullptr) return;
        const std::string found = find(name);
        if (found.empty()) return;
        const auto at = static_cast<std::size_t>(name.data() - filter.data());
        spelled.append(filter.substr(copied, at - copied)).append(found);
        copied = at + name.size();
    });
    return spelled.append(filter.substr(copied));
}

}  // namespace QOR
