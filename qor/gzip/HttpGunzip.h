/// \file
/// Bodies of requests that were made smaller on their way.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "QORCommon/QORMemory.h"

namespace QOR {

/// The code of the exception for what is larger than it may be.
inline constexpr int errTooLarge = 413;

/// A body as it was before, which counts for the memory of the request that it belongs to.
struct HttpUnpackedBody {
    std::string text{};
    QORMemoryCharge memory{};
};

/// Undoes gzip (RFC 1952, of one member or several).
/// \param most bytes of what comes out: a few bytes may stand for any number of them
/// \throws QORException 400 for what is no whole text of gzip's, errTooLarge beyond `most`; QORMemoryExceeded
HttpUnpackedBody gunzip(std::string_view packed, std::size_t most);

}  // namespace QOR
