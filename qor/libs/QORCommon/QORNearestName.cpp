#include "QORCommon/QORNearestName.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>
#include <utility>

#include "QORCommon/QORAscii.h"

namespace QOR {
namespace {

constexpr std::size_t mostSuggestions = 3;
constexpr std::size_t longestName = 200;  ///< longer names resemble none

/// Changes of one character, and swaps of two neighbours, that lead from one text to the other.
std::size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> before(to.size() + 1);
    std::vector<std::size_t> last(to.size() + 1);
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t change = from[i - 1] == to[j - 1] ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + change});
            const bool swapped = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (swapped) row[j] = std::min(row[j], before[j - 2] + 1);
        }
        before.swap(last);
        last.swap(row);
    }
    return last[to.size()];
}

/// How far a name is from one that was written. Leaving the beginning of a path out counts little.
std::size_t distance(std::string_view written, std::string_view name) {
    const std::string lower = toLowerText(name);
    std::size_t nearest = editDistance(written, lower);
    for (std::size_t dot = lower.find('.'); dot != std::string::npos; dot = lower.find('.', dot + 1))
        nearest = std::min(nearest, editDistance(written, std::string_view(lower).substr(dot + 1)) + 1);
    return nearest;
}

}  // namespace

std::vector<std::string_view> nearestNames(std::string_view written, std::span<const std::string_view> names) {
    if (written.size() > longestName) return {};
    const std::string lower = toLowerText(written);
    const std::size_t most = 1 + lower.size() / 3;
    std::vector<std::pair<std::size_t, std::string_view>> candidates;
    for (const std::string_view name : names) {
        if (name.size() > longestName) continue;
        const std::size_t far = distance(lower, name);
        if (far <= most) candidates.emplace_back(far, name);
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string_view> nearest;
    for (const auto& [far, name] : candidates) {
        // Much better ones make the others noise.
        if (nearest.size() == mostSuggestions || far > candidates.front().first + 1) break;
        nearest.push_back(name);
    }
    return nearest;
}

std::string adviseOnName(std::string_view written, std::span<const std::string_view> names) {
    std::string advice;
    for (const std::string_view near : nearestNames(written, names))
        advice.append(advice.empty() ? " (did you mean " : " or ").append(near);
    return advice.empty() ? advice : advice + "?)";
}

}  // namespace QOR
