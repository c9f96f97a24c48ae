/// \file
/// How many rows a question has, without them.
#pragma once

#include <cstdint>
#include <optional>

#include "backend/Backend.h"
#include "output/RowPrinter.h"
#include "select/SelectRequest.h"

namespace QOR {

/// As far as that can be told in no time. \param now \param types as makeSelectRequest() takes them \throws CtlError as
/// makeSelectRequest(), NoConnection
std::optional<RowCounts> countRows(Backend& backend, SelectOptions options, std::int64_t now,
                                   const QORColumnTypes& types);

}  // namespace QOR
