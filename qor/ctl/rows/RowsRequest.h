/// \file
/// From the options of `qorctl rows` to a request of the operator "pager".
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORMessage/QORNotation.h"
#include "select/TimeBounds.h"

namespace QOR {

/// What the person asked for, as typed.
struct RowsOptions {
    std::string
        source{};  ///< the records that are asked for, beside which names may be short; empty: the fields say it
    std::vector<std::string> fields;
    std::optional<std::string> where;
    std::vector<std::string> sort;          ///< a field, behind '-' for descending order
    std::int64_t limit = 0;                 ///< rows of the page, 0 for all
    std::int64_t offset = 0;                ///< rows before the page
    std::optional<std::int64_t> timeout{};  ///< seconds within which the answer must come
    bool count = false;
    bool narrow = false;              ///< rows are those that the source finds, not those for which the filter holds
    std::vector<std::string> client;  ///< as SelectOptions::client
    TimeBounds bounds{};
};

/// \throws CtlError BadUsage naming the option that cannot be meant
QORRequestEnvelope makeRowsRequest(const RowsOptions& options);

}  // namespace QOR
