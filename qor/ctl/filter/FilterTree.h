/// \file
/// Trees of filters as drawings.
#pragma once

#include <string>

#include "QORPager/QORExpressionTree.h"

namespace QOR {

class FilterNames;

/// Draws the tree, an operator above its operands, the left one first; names with what they are. Levels below the
/// deepest that fits a screen are left out and counted. Each line ends in a line end.
std::string drawTree(const TNode& tree, const FilterNames& names);

/// A constant as a person writes it: numbers as they are, texts in quotes, made harmless for a terminal.
std::string writeConstant(const TToken& token);

}  // namespace QOR
