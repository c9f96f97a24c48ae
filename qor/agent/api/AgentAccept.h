/// \file
/// Which type an answer has, of those that a client takes.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

#include "agent/http/HttpTypes.h"

namespace QOR {

/// The place of the offered type that the request likes best by its Accept fields, the first among equals; nothing
/// when it likes none. A request without the field takes the first.
std::optional<std::size_t> acceptedType(const HttpRequest& request, std::span<const std::string_view> offered);

/// The type that a field names, without its parameters: "application/json".
std::string_view mediaTypeOf(std::string_view value) noexcept;

/// Without the blanks around it.
std::string_view trimmed(std::string_view text) noexcept;

}  // namespace QOR
