/// \file
/// What the values of an answer's column are, for whoever shows them.
#pragma once

#include <cstdint>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "QORQuery/QORQueryField.h"

namespace QOR {

/// An answer tells all values but bytes as texts; the kind says what such a text is.
enum class QORColumnKind : std::uint8_t {
    Text,
    Integer,     ///< a whole number of at most 64 bits
    Number,      ///< a decimal or floating-point number, or the word for what is none
    Time,        ///< UTC, "2024-05-01T10:15:00+0000"
    Identifier,  ///< a GUID
    Bytes,
};

/// The kind's word: "text", "integer", "number", "time", "guid", "bytes".
QOR_API std::string_view wordOf(QORColumnKind kind) noexcept;

/// \param type as declared, for example "datetime" or "nvarchar(64)"; what is not known holds texts
QOR_API QORColumnKind columnKindOf(std::string_view type);

/// Of a field over a column of that type: counts are whole numbers, averages numbers; sums, least and greatest values
/// are whole where the column is, numbers elsewhere.
QOR_API QORColumnKind columnKindOf(const QORQueryField& field, std::string_view type);

}  // namespace QOR
