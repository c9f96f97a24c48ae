#include "rows/FilterSpelling.h"

#include <algorithm>
#include <set>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORPager/QORFieldSet.h"
#include "QORPager/QORFilterNames.h"

namespace QOR {
namespace {

/// Fields made on demand that sources look for by name.
constexpr std::string_view demandedNames[] = {
    "pager.op_log.parameter.env.eid", "pager.event_log.parameter.env.eid",
    "pager.backup.info.name",         "pager.backup.info.hostname",
    "pager.backup.info.veid",         "pager.backup.info.ip",
};

/// What the operator knows by name.
class KnownNames {
public:
    explicit KnownNames(const QORPtr<const QORVocMap>& vocabulary) {
        vocCacheLocal()->setVocabulary(vocabulary);
        QORFieldSet fields;
        fields.init(nullptr);
        for (const QORField& field : fields)
            m_names.insert(field.name);
        m_names.insert(std::begin(demandedNames), std::end(demandedNames));
        m_prefixes = {"pager.op_log.parameter.", "pager.event_log.parameter."};
        addCaches(*vocabulary);
    }

    std::string spell(std::string_view name) const {
        if (m_names.contains(std::string(name))) return std::string(name);
        for (const std::string& known : m_names)
            if (isSameWord(known, name)) return known;
        for (const std::string& prefix : m_prefixes)
            if (isSameWord(prefix, name.substr(0, prefix.size())))
                return prefix + std::string(name.substr(prefix.size()));
        return std::string(name);
    }

private:
    void addCaches(const QORVocMap& vocabulary) {
        QORVocIterator entry;
        if (vocabulary.readCategory("pager_caches", entry) != 0 || entry.firstParameter() != 0) return;
        do {
            std::string prefix;
            if (entry.getString("info_prefix", prefix) == 0 && !prefix.empty()) m_prefixes.push_back(prefix);
        } while (entry.nextParameter() == 0);
    }

    std::set<std::string> m_names;
    std::vector<std::string> m_prefixes;
};

}  // namespace

bool mayBeMisspelled(std::string_view filter) {
    bool found = false;
    forEachName(filter, [&](std::string_view name) {
        const bool isField = name.find('.') != std::string_view::npos;
        found = found || (isField && std::any_of(name.begin(), name.end(), [](char c) { return toLowerChar(c) != c; }));
    });
    return found;
}

std::string spellNames(std::string_view filter, const QORPtr<const QORVocMap>& vocabulary) {
    const KnownNames known(vocabulary);
    std::string spelled;
    std::size_t copied = 0;
    forEachName(filter, [&](std::string_view name) {
        const auto at = static_cast<std::size_t>(name.data() - filter.data());
        spelled.append(filter.substr(copied, at - copied)).append(known.spell(name));
        copied = at + name.size();
    });
    return spelled.append(filter.substr(copied));
}

}  // namespace QOR
