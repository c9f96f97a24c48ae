/// \file
/// Internal: what has to be known about a piece of SQL that stands as text.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

/// Whether the text is one literal, name, number or call, which may stand beside an operator without brackets.
bool isSingleTerm(std::string_view sql) noexcept;

/// Whether the text is quoted literals only, joined with commas.
bool isLiteralList(std::string_view sql) noexcept;

/// The items of a list that isLiteralList(), one behind the other; empty where one of them has another length than
/// `size` or holds a quote.
std::string joinedItems(std::string_view list, std::size_t size);

/// The bytes of a text that is one quoted literal, or a call upon calls of functions that keep the length of one; empty
/// for any other text.
std::optional<std::size_t> literalLength(std::string_view sql) noexcept;

/// The text that one quoted literal stands for; empty for anything else.
std::optional<std::string> literalText(std::string_view sql);

/// The items of a list, each a literal, a name or a call, that are joined with commas.
std::vector<std::string_view> listItems(std::string_view sql);

/// A pattern of LIKE whose escape character is the backslash, and that matches what `pattern` matches with `escape`
/// (0: none); empty when that is nothing, because it ends where an escaped character should follow.
std::optional<std::string> backslashPattern(std::string_view pattern, char escape);

/// How many entries of its stack the engine's parser holds at most while it reads the text, as an upper bound for
/// what this layer writes.
std::size_t parserDepthOf(std::string_view sql) noexcept;

}  // namespace QOR
