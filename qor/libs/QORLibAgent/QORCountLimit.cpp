#include "QORLibAgent/QORCountLimit.h"

#include "QORCommon/QORNumbers.h"

namespace QOR {

std::optional<QORCountLimit> QORCountLimit::read(std::string_view text) {
    if (text == "none") return QORCountLimit{Kind::Nothing};
    if (text == "capped") return QORCountLimit{Kind::Capped};
    if (text == "exact") return QORCountLimit{Kind::Exact};
    constexpr std::string_view unit = "ms";
    constexpr std::int64_t longest = 3'600'000;
    if (!text.ends_with(unit)) return std::nullopt;
    const auto number = parseInt64(text.substr(0, text.size() - unit.size()));
    if (!number || *number < 1 || *number > longest) return std::nullopt;
    return QORCountLimit{Kind::Timed, std::chrono::milliseconds(*number)};
}

}  // namespace QOR
