/// \file
/// Which columns of a view are read without computing anything.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

/// The columns of the view that are stored in a table or are constants: reading one from a row cannot fail, whatever
/// the row holds. An expression of the view, a generated column and whatever else the engine computes may fail, and
/// is left out; so is a column of which the engine does not tell.
/// \param columns names of columns of the view \returns a part of them; none for an engine that is not SQLite
QOR_API std::set<std::string, std::less<>> storedColumns(ASSession& session, const std::string& view,
                                                         const std::vector<std::string>& columns);

}  // namespace QOR
