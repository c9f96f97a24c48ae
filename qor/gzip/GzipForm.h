/// \file
/// What zlib is told for gzip's form.
#pragma once

namespace QOR {

/// The window's bits as zlib counts them: the largest, and gzip's head and end around what is packed.
inline constexpr int gzipWindow = 15 + 16;

}  // namespace QOR
