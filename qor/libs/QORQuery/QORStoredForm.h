/// \file
/// The form in which a column's values are stored, for literals that a request compares as they are spelled.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// The declared type of a view's column; empty when view or column is not known. The view's name may be in any case.
using QORColumnTypes = std::function<std::string(std::string_view view, std::string_view column)>;

/// A literal as a column of that type stores it: times as `2024-05-01 00:00:00`, GUIDs in lower case with hyphens,
/// numbers in their shortest form. Texts, and types that are not known, leave it as it is.
/// \param type as declared, for example "datetime" or "nvarchar(64)"
/// \throws QORException 400 for a text that is no such value, with the message that an equation of the two would have
QOR_API std::string storedForm(std::string_view type, const std::string& literal);

/// A type in lower case, without its length.
QOR_API std::string typeName(std::string_view type);

/// Whether values of that type are times.
QOR_API bool isTimeType(std::string_view type);

}  // namespace QOR
