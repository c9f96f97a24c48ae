/// \file
/// Reading messages by the names of their elements, as configured fields do. All functions take any cursor; they
/// return 0 on success and non-zero, with outputs unchanged, on failure, and move nothing but what they say.
///
/// A value is named by the element that holds it, a child of the current one (or a path to it); the empty name is the
/// current element's own value.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORMessageIterator.h"

namespace QOR {

/// The name of the current element; fails on the root and for a tag without a name.
QOR_API int getNodeName(const QORMessageIterator& at, std::string& out);
/// Moves to the next sibling that bears the current element's name.
QOR_API int nextSameName(QORMessageIterator& at);

QOR_API bool existsNamed(const QORMessageIterator& at, std::string_view name);
QOR_API int readText(const QORMessageIterator& at, std::string_view name, std::string& out);
/// A text that holds bytes in base64; fails when it is not that.
QOR_API int readBase64Text(const QORMessageIterator& at, std::string_view name, std::string& out);
/// Seconds since the epoch: a whole number, or a text for parseTime.
QOR_API int readTime(const QORMessageIterator& at, std::string_view name, std::int64_t& out);
/// 1, or "true" in any case, is true; 0, or "false", is false; so is any other number true and any other text false.
QOR_API int readBoolean(const QORMessageIterator& at, std::string_view name, bool& out);

/// How serializeMessage() writes. One form exists: XML without a declaration, not indented.
inline constexpr int messageFormatXml = 40500;

/// The current element with everything below it (of the root: all elements) as text.
QOR_API int serializeMessage(const QORMessageIterator& at, int format, std::string& out);
/// The same in the usual form.
inline int serializeMessage(const QORMessageIterator& at, std::string& out) {
    return serializeMessage(at, messageFormatXml, out);
}

}  // namespace QOR
