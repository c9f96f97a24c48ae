/// \file
/// What is known of the host's own views beside their columns' types: what they mean, and by which of their columns the
/// database finds and sorts rows without reading all of them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

/// What a row of the view is; empty for a view that is not the host's.
QOR_API std::string_view viewMeaning(std::string_view view) noexcept;

/// What the column holds, for people; empty for one that is not the host's. Constants of the program.
QOR_API std::string_view viewColumnMeaning(std::string_view view, std::string_view column) noexcept;

/// The columns that tell most of one of the host's views, in the order in which people read them; none for other views.
/// Constants of the program.
QOR_API std::vector<std::string_view> viewMainColumns(std::string_view view);

/// The words that the host itself stores in the column, where they are few and always the same; records that come from
/// elsewhere may have others.
QOR_API std::vector<std::string> viewColumnValues(std::string_view view, std::string_view column);

/// An index below a view.
struct QORViewIndex {
    std::string name;
    std::vector<std::string> columns;  ///< of the view, in the order of the index
};

/// The indexes below one of the host's views as the database has them, by name. None for other views, and where the
/// rows lie with several servers. \throws AException
QOR_API std::vector<QORViewIndex> viewIndexes(ASSession& session, std::string_view view);

}  // namespace QOR
