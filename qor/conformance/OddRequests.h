/// \file
/// Requests that make no sense, or hardly any.
#pragma once

#include <string>
#include <vector>

namespace QOR {

/// Elements in message notation, always the same: without a value, with values of every kind, too long, too deep, and
/// put together at random of what requests are made of.
const std::vector<std::string>& oddElements();

}  // namespace QOR
