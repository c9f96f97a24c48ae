/// \file
/// Messages as XML: an element is `<name>text</name>`, or `<tag id="1234">` where its tag has no name that XML takes;
/// binary values and texts that XML cannot carry are base64 with the attribute encoding="base64".
#pragma once

#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORMessage.h"

namespace QOR {

struct QORXmlOptions {
    bool declaration = false;  ///< begin with the XML declaration
    bool indent = false;       ///< a line an element, two blanks a level; texts are left as they are
    /// The names of the element's own message; without them its elements of such names are written by number.
    const QORMessageNames* names = nullptr;
};

/// Appends the XML form of the element, or of a root's children one after the other.
QOR_API void writeXml(const QORMessageNode& node, std::string& out, const QORXmlOptions& options = {});

/// Reads one XML element and appends it below the root of `out`. Document types and entities beyond XML's five are
/// refused. \throws QORException 400 naming what is wrong and the byte offset where
QOR_API void readXml(std::string_view xml, QORMessage& out);

}  // namespace QOR
