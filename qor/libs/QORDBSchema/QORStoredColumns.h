/// \file
/// Which columns of a view are read without computing anything.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

/// What is known of reading a view.
struct QORStoredColumns {
    /// Columns that are stored in a table or are constants, so that reading one cannot fail whatever the row holds, nor
    /// can comparing it with a literal.
    std::set<std::string, std::less<>> names;
    /// Whether the engine computes nothing at all for whoever selects from the view, so that nothing there could write.
    bool handsOutOnly = false;
};

/// An expression of the view, a generated column and whatever else the engine computes may fail, and is left out; so is
/// a column of which the engine does not tell. Where the engine cannot even say what it would do, nothing is known, and
/// the transaction may be one that nothing more can be done in.
/// \param columns names of all columns of the view
QOR_API QORStoredColumns storedColumns(ASSession& session, const std::string& view,
                                       const std::vector<std::string>& columns);

}  // namespace QOR
