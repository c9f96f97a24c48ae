#include "QORCommon/QORPercent.h"

#include "QORCommon/QORAscii.h"

namespace QOR {

std::string percentEscaped(std::string_view text, std::string_view plain) {
    static constexpr char digits[] = "0123456789ABCDEF";
    std::string escaped;
    for (const char ch : text) {
        if (isAlphaChar(ch) || isDigitChar(ch) || plain.find(ch) != std::string_view::npos) {
            escaped += ch;
            continue;
        }
        const auto byte = static_cast<unsigned char>(ch);
        escaped.append({'%', digits[byte >> 4], digits[byte & 15]});
    }
    return escaped;
}

}  // namespace QOR
