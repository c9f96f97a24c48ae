/// \file
/// Pages of the operation log with their totals, as operator "pager" reads them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>
#include <vector>

#include "QORFunctionality/QORAccess.h"
#include "QORLibAgent/QORLogs.h"
#include "support/Figures.h"

namespace QOR::bench {

inline constexpr int forever = std::numeric_limits<int>::max();

struct Question {
    const char* name;
    unsigned owners;  ///< whose records the client may see, environments from 0 on; 0 for full access
    QOREnvSelection envs;
    int from;
    int to;
};

inline std::size_t askTotal(const Question& question) {
    QOROpLogResult result;
    check(
        QOROpLogAgent().getOps(result, question.envs, nullptr, "", "", 0, 0, forever, question.from, question.to) == 0,
        getErrorMessage());
    return result.size();
}

/// The page as the source of the operation log reads it. \returns the identifiers
inline std::vector<std::string> askPage(const Question& question, std::size_t offset) {
    QOROpLogResult result;
    check(
        QOROpLogAgent().getOps(result, question.envs, nullptr, "", "", 0, 0, forever, question.from, question.to) == 0,
        getErrorMessage());
    std::vector<std::string> ids;
    for (std::size_t i = offset; i < std::min(offset + 20, result.size()); ++i)
        ids.push_back(result.at(i).id);
    return ids;
}

}  // namespace QOR::bench
