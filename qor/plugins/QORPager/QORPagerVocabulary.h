/// \file
/// What operator "pager" reads from the configuration vocabulary.
#pragma once

#include <span>
#include <string_view>

#include "QORLibLocal/QORVocabularyRules.h"

namespace QOR {

/// The category of fields beyond the built-in ones, and that of the caches that other fields come from.
inline constexpr std::string_view fieldsCategory = "pager_fields";
inline constexpr std::string_view cachesCategory = "pager_caches";

/// The rules of both. The values' names are those by which QORFieldSet and readCachesFromVoc() ask for them.
std::span<const QORVocCategoryRule> pagerVocabulary() noexcept;

}  // namespace QOR
