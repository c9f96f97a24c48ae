/// \file
/// What an agent says of records that it was sent.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "forward/ForwardConnection.h"

namespace QOR {

/// What has become of a request with records.
struct ForwardOutcome {
    enum class What {
        Taken,     ///< all but those that are refused, durably
        Refused,   ///< nothing, because of the record in `refused`
        TooLarge,  ///< nothing: less at once
        Failed,    ///< nothing that can be told; later, perhaps
    };
    What what = What::Failed;
    std::vector<std::pair<std::size_t, std::string>> refused{};  ///< lines, from 1, and the reason
    std::string reason{};                                        ///< of a failure
};

/// \param lines that were sent
ForwardOutcome outcomeOf(const ForwardReply& reply, std::size_t lines);

}  // namespace QOR
