#include "complete/LiveNames.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORPager/QORFieldList.h"
#include "QORPager/QORSources.h"
#include "backend/AgentChoice.h"
#include "filter/FilterNames.h"

namespace QOR {

Backend& LiveNames::backend() {
    if (m_backend) return *m_backend;
    m_beforeAsking();
    m_backend = makeBackend(chosenConnection(m_connection), BackendUse::Inspect);
    return *m_backend;
}

std::vector<NamedThing> LiveNames::views() {
    std::vector<NamedThing> names;
    for (const QORViewColumn& column : backend().views())
        if (names.empty() || names.back().name != column.view)
            names.push_back({column.view, std::string(viewMeaning(column.view))});
    return names;
}

std::vector<NamedThing> LiveNames::columns(const std::string& view) {
    std::vector<NamedThing> names;
    for (const QORViewColumn& column : backend().views())
        if (isSameWord(column.view, view))
            names.push_back({column.column, std::string(viewColumnMeaning(column.view, column.column))});
    return names;
}

std::vector<NamedThing> LiveNames::fields() {
    const FilterNames names(backend().vocabulary());
    std::vector<NamedThing> fields;
    for (const QOROpField& field : listFields(names.fields()))
        fields.push_back({field.name, std::string(field.title)});
    return fields;
}

std::vector<NamedThing> LiveNames::shortFields(const std::string& records) {
    std::vector<NamedThing> names = fields();
    for (const QORSource& source : pagerSources()) {
        if (source.records != records) continue;
        const std::string prefix = std::string(source.namePrefix) + ".";
        std::erase_if(names, [&](const NamedThing& field) { return !field.name.starts_with(prefix); });
        for (NamedThing& field : names)
            field.name.erase(0, prefix.size());
        return names;
    }
    return names;
}

std::vector<NamedThing> LiveNames::identities() {
    std::vector<NamedThing> names;
    for (const auto& identity : backend().identities().identities)
        names.push_back({identity.name, {}});
    return names;
}

}  // namespace QOR
