/// \file
/// A mistake in a row condition, and how it is shown to the person who typed it.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>

namespace QOR {

/// What is wrong and where. The message says what was expected; it does not repeat the text.
class WhereError : public std::runtime_error {
public:
    /// \param offset byte offset of the place in the text; the text's length stands for its end
    WhereError(std::size_t offset, const std::string& message) : std::runtime_error(message), m_offset(offset) {}
    std::size_t offset() const noexcept { return m_offset; }

private:
    std::size_t m_offset;
};

/// The message with its position (characters counted from 1), the line that holds the place, and a caret beneath it:
///
///     expected a column or a value, found ")" at character 5
///       a = ) and b = 2
///           ^
///
/// Tabs and control characters are shown as blanks, lines longer than `width` columns are cut around the place. Each
/// line ends in a line end.
std::string describeWhereError(std::string_view text, const WhereError& error, std::size_t width = 78);

}  // namespace QOR
