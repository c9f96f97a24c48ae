#include "agent/api/AgentAccept.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

/// The part before the separator, which is taken off.
std::string_view takePart(std::string_view& text, char separator) noexcept {
    const std::string_view part = text.substr(0, text.find(separator));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    return trimmed(part);
}

/// How well a range fits a type: 0 not at all, 3 exactly.
int fit(std::string_view range, std::string_view type) noexcept {
    if (isSameWord(range, type)) return 3;
    if (range == "*/*") return 1;
    const bool sameKind = range.ends_with("/*") && isSameWord(range.substr(0, range.size() - 1),
                                                              type.substr(0, std::min(range.size() - 1, type.size())));
    return sameKind ? 2 : 0;
}

double qualityOf(std::string_view parameters) {
    while (!parameters.empty()) {
        const std::string_view one = takePart(parameters, ';');
        if (isSameWord(one.substr(0, 2), "q=")) return parseDouble(one.substr(2)).value_or(0);
    }
    return 1;
}

/// How much a client likes one type: what the range says that fits it best.
class Liking {
public:
    void hear(std::string_view ranges, std::string_view type) {
        while (!ranges.empty()) {
            std::string_view parameters = takePart(ranges, ',');
            const int how = fit(takePart(parameters, ';'), type);
            if (how <= m_fit) continue;
            m_fit = how;
            m_quality = qualityOf(parameters);
        }
    }
    double quality() const noexcept { return m_quality; }

private:
    int m_fit = 0;
    double m_quality = 0;
};

}  // namespace

std::string_view trimmed(std::string_view text) noexcept {
    while (!text.empty() && isSpaceChar(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && isSpaceChar(text.back()))
        text.remove_suffix(1);
    return text;
}

std::optional<std::size_t> acceptedType(const HttpRequest& request, std::span<const std::string_view> offered) {
    const auto isAccept = [](const HttpField& field) { return isSameWord(field.name, "Accept"); };
    if (std::none_of(request.fields.begin(), request.fields.end(), isAccept)) return 0;
    std::optional<std::size_t> best;
    double most = 0;
    for (std::size_t place = 0; place < offered.size(); ++place) {
        Liking liking;
        for (const HttpField& field : request.fields) {
            if (isAccept(field)) liking.hear(field.value, mediaTypeOf(offered[place]));
        }
        if (liking.quality() <= most) continue;
        most = liking.quality();
        best = place;
    }
    return best;
}

std::string_view mediaTypeOf(std::string_view value) noexcept {
    return takePart(value, ';');
}

}  // namespace QOR
