#include "QORPager/QORPagerVocabulary.h"

#include <array>

#include "QORPager/QORFieldTypes.h"

namespace QOR {

std::span<const QORVocCategoryRule> pagerVocabulary() noexcept {
    using Kind = QORVocValueRule::Kind;
    static const std::array<QORVocValueRule, 4> fieldValues{{
        {.key = "source", .required = true},
        {.key = "value"},
        {.key = "type", .kind = Kind::Word, .words = typeWords()},
        {.key = "cache", .kind = Kind::Reference, .refersTo = cachesCategory},
    }};
    static constexpr std::array<std::string_view, 2> fieldMarks{"multi", "base64"};
    static constexpr std::array<QORVocValueRule, 5> cacheValues{{
        {.key = "source", .required = true},
        {.key = "info_prefix", .kind = Kind::Unique},
        {.key = "info_path"},
        {.key = "sync_timeout", .kind = Kind::Integer},
        {.key = "security_operation", .kind = Kind::Integer},
    }};
    static const std::array<QORVocCategoryRule, 2> rules{{
        {fieldsCategory, fieldValues, fieldMarks},
        {cachesCategory, cacheValues, {}},
    }};
    return rules;
}

}  // namespace QOR
