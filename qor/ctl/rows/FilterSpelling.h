/// \file
/// Names of fields in a filter, spelled as the operator knows them.
#pragma once

#include <string>
#include <string_view>

#include "QORLibLocal/QORVocabulary.h"

namespace QOR {

/// True when a filter names fields in another case than the usual one, so that spellNames() may change it.
bool mayBeMisspelled(std::string_view filter);

/// The filter language finds names in any case, but sources take conditions, and dates are understood, only beside
/// names that are spelled exactly. Gives names that match a field, or the beginning of fields made on demand, in any
/// case the field's own spelling; quoted texts and everything else stay.
/// \param vocabulary what the operator's configuration declares
std::string spellNames(std::string_view filter, const QORPtr<const QORVocMap>& vocabulary);

}  // namespace QOR
