/// \file
/// The bytes of a text as libraries of C take them.
#pragma once

#include <string_view>

namespace QOR {

/// They live as long as those of the text.
inline const unsigned char* bytesOf(std::string_view text) noexcept {
    return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace QOR
