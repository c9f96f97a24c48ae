/// \file
/// Traps in a filter: what the language allows and hardly anybody means.
#pragma once

#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "QORPager/QORFieldTypes.h"
#include "QORQuery/QORConditionLint.h"

namespace QOR {

/// The type of a field that has one value in each row; nothing for other names.
using QORSingleTypes = std::function<std::optional<TValueType>(std::string_view name)>;

/// In the order of their places. Codes, beside those of lintCondition(): `inner_wildcard`, a `%` of a pattern that is
/// none because it stands neither first nor last. A filter that cannot be read has none: its error says what is wrong.
std::vector<QORConditionWarning> lintFilter(std::string_view filter, const QORSingleTypes& types);

}  // namespace QOR
