/// \file
/// Internal: a value on its way to the database, as a parameter or as a literal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace QOR {

struct ASDialect;

/// Times and GUIDs travel as texts in the form in which the database keeps them.
struct ASValue {
    enum class Kind : std::uint8_t { Null, Integer, Real, Text, Binary };

    Kind kind = Kind::Null;
    std::int64_t integer = 0;
    double real = 0;
    std::string text;  ///< of a Real, as somebody wrote it; empty: nobody did

    static ASValue ofText(std::string_view text);
    static ASValue ofInteger(std::int64_t value);

    /// \throws AException for a text with a NUL byte, which no engine takes everywhere
    void appendLiteral(std::string& out, const ASDialect& dialect) const;
};

/// \throws AException for a text with a NUL byte
void refuseNul(std::string_view text);
/// \throws AException for a text that the engine cannot take as a parameter
void refuseUntakeable(std::string_view text, const ASDialect& dialect);

/// Appends `"name"` or `'text'` with the quotes inside doubled. \throws AException for a NUL byte
void appendQuoted(std::string& out, std::string_view text, char quote);

}  // namespace QOR
