#include "rows/FilterSpelling.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORPager/QORFilterNames.h"
#include "filter/FilterNames.h"

namespace QOR {

bool mayBeMisspelled(std::string_view filter) {
    bool found = false;
    forEachName(filter, [&](std::string_view name) {
        const bool isField = name.find('.') != std::string_view::npos;
        found = found || (isField && std::any_of(name.begin(), name.end(), [](char c) { return toLowerChar(c) != c; }));
    });
    return found;
}

std::string spellNames(std::string_view filter, const QORPtr<const QORVocMap>& vocabulary) {
    const FilterNames known(vocabulary);
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
