#include "QORCommon/QORNulBytes.h"

#include <string_view>

namespace QOR {

std::string withoutNuls(std::string text) {
    constexpr std::string_view shown = "\\x00";
    for (std::size_t at = text.find('\0'); at != std::string::npos; at = text.find('\0', at + shown.size())) {
        text.replace(at, 1, shown);
    }
    return text;
}

}  // namespace QOR
