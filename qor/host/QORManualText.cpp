#include "host/QORManualText.h"

namespace QOR {

std::string manualText(std::string_view text) {
    std::string escaped;
    bool isLineBegin = true;
    for (const char c : text) {
        if (isLineBegin && (c == '.' || c == '\'')) escaped += "\\&";
        if (c == '\\')
            escaped += "\\e";
        else if (c == '-')
            escaped += "\\-";
        else
            escaped += c;
        isLineBegin = c == '\n';
    }
    return escaped;
}

std::string manualEntry(std::string_view term, std::string_view meaning) {
    return ".TP\n.B " + manualText(term) + "\n" + manualText(meaning) + "\n";
}

}  // namespace QOR
