/// \file
/// Dates in filters: literals compared with the time fields of the logs become seconds.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace QOR {

/// Replaces every single-quoted date/time literal that stands beside the time field of a log,
/// with nothing between them but blanks and comparison characters, by its seconds since the epoch, so that the filter
/// compares integers. \returns false, the text being of no use then, when such a literal is no time (str2time) or
/// negative, and when a bare number stands in its place
bool transformDateTime(std::string& where);

/// Where in the filter that was given stands what stands at a place of what transformDateTime() made of it; of a
/// literal that was replaced, where it begins. Places are byte offsets.
std::size_t placeBeforeTransform(std::string_view given, std::string_view transformed, std::size_t place) noexcept;

/// The same for one field.
bool doTransformDateTime(std::string& text, const std::string& name);

}  // namespace QOR
