#include "QORPager/QORFieldList.h"

#include "QORPager/QORSources.h"

namespace QOR {

std::vector<QOROpField> listFields(const QORFieldSet& fields) {
    std::vector<QOROpField> list;
    for (const QORField& field : fields) {
        const QORSource& source = sourceOf(field.cursorType);
        list.push_back(
            {field.name, source.records, source.title, typeToString(field.valueType), field.isMulty(), false});
    }
    for (const QORSource& source : pagerSources()) {
        for (const auto& [prefix, description] : fields.prefixes())
            if (description.cursorType == source.cursorType)
                list.push_back({prefix, source.records, source.title, typeToString(TValueType::String), false, true});
    }
    return list;
}

// The operator's own steps at its start.
std::vector<QOROpField> listConfiguredFields() {
    QORFieldSet fields;
    fields.registerPrefixes();
    CacheInfoMap caches;
    readCachesFromVoc(caches);
    fields.init(nullptr);
    fields.registerCaches(caches);
    return listFields(fields);
}

}  // namespace QOR
