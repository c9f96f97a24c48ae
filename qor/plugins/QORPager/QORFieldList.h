/// \file
/// The fields of "pager" as the host lists them.
#pragma once

#include <vector>

#include "QORFunctionality/QOROpFactory.h"
#include "QORPager/QORFieldSet.h"

namespace QOR {

/// The fields of the set by name, then its prefixes by source.
std::vector<QOROpField> listFields(const QORFieldSet& fields);

/// Those that an operator has with the vocabulary as it is now. Any thread.
std::vector<QOROpField> listConfiguredFields();

}  // namespace QOR
