/// \file
/// Texts on a terminal: how wide they are, how they are made harmless, how they are cut.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace QOR {

/// Columns that a text takes on a terminal. Bytes that are not UTF-8 count 1 each.
std::size_t textWidth(std::string_view text);

/// Appends the text with everything that would disturb a terminal or hide from the reader made visible: "\n", "\t",
/// "\x1b", "\u{202e}", bytes that are not UTF-8 as "\xff".
void appendVisible(std::string_view text, std::string& out);

/// The text cut to at most `width` columns, its last one an ellipsis where something was cut. \pre width > 0
std::string cutToWidth(std::string_view text, std::size_t width);

/// The text between the columns `from` and `from + width`, as far as whole characters allow.
std::string sliceByWidth(std::string_view text, std::size_t from, std::size_t width);

/// Columns of the terminal that stands behind the descriptor (COLUMNS where it is set); 0 when it is no terminal.
std::size_t terminalWidth(int descriptor);

}  // namespace QOR
