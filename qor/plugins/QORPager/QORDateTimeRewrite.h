/// \file
/// Dates in filters: literals compared with the time fields of the logs become seconds.
#pragma once

#include <string>

namespace QOR {

/// Replaces every single-quoted date/time literal that stands beside the time field of a log,
/// with nothing between them but blanks and comparison characters, by its seconds since the epoch, so that the filter
/// compares integers. \returns false, the text being of no use then, when such a literal is no time (str2time) or
/// negative, and when a bare number stands in its place
bool transformDateTime(std::string& where);

/// The same for one field.
bool doTransformDateTime(std::string& text, const std::string& name);

}  // namespace QOR
