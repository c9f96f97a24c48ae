/// \file
/// What a text has to be to stand in XML, and how it is written there.
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

/// Whether an element can bear the name: ASCII letters, digits, '_', '-' and '.', none of the last three in front but
/// '_', and not beginning with "xml", which is XML's own. What more XML allows is not worth its table.
QOR_API bool isXmlName(std::string_view name) noexcept;

/// Whether XML 1.0 can carry the text: UTF-8 without control characters (but tabs and line ends), U+FFFE and U+FFFF.
QOR_API bool isXmlText(std::string_view text) noexcept;

/// The text as one that XML can carry, where it is none: bytes that are not UTF-8, U+FFFE and U+FFFF become U+FFFD,
/// control characters are shown as "\\x1b".
QOR_API std::string toXmlText(std::string_view text);

/// Where a text stands.
enum class QORXmlPlace {
    Element,    ///< quotes, tabs and line feeds as they are
    Attribute,  ///< in double quotes
};

/// Appends the text so that a reader gets it back as it was. \pre isXmlText()
QOR_API void appendXmlText(std::string_view text, QORXmlPlace place, std::string& out);

}  // namespace QOR
