#include "QORCommon/QORUtf8.h"

#include "QORCommon/QORText.h"

namespace QOR {

std::string toUtf8(std::string_view text) {
    constexpr std::string_view replacement = "\xef\xbf\xbd";
    std::string good;
    for (;;) {
        const std::size_t prefix = utf8Prefix(text);
        good += text.substr(0, prefix);
        if (prefix == text.size()) return good;
        good += replacement;
        text.remove_prefix(prefix + 1);
    }
}

}  // namespace QOR
