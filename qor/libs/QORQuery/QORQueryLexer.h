/// \file
/// The words of a row condition.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

enum class QORQueryTokenKind : std::uint8_t {
    End,
    Word,      ///< a bare name or keyword
    Quoted,    ///< a name in double quotes
    Text,      ///< a text in single quotes
    Number,    ///< digits, with fraction and exponent, without sign
    Duration,  ///< as parseDuration() reads it
    Symbol,    ///< an operator or a punctuation mark
};

struct QORQueryToken {
    QORQueryTokenKind kind = QORQueryTokenKind::End;
    std::size_t offset = 0;    ///< bytes before it
    std::string_view spelled;  ///< as it stands in the text, quotes included
    std::string text;          ///< what it means: quotes removed and undoubled

    bool isSymbol(std::string_view symbol) const { return kind == QORQueryTokenKind::Symbol && spelled == symbol; }
    /// A bare word compared without regard to the case of ASCII letters; `keyword` is in lower case.
    bool isWord(std::string_view keyword) const;
    std::size_t end() const { return offset + spelled.size(); }
};

/// Cuts a text into tokens, one token of look-ahead and one beyond. The text must outlive the lexer and its tokens.
class QOR_API QORQueryLexer {
public:
    explicit QORQueryLexer(std::string_view text);

    /// The token that stands next.
    const QORQueryToken& peek() const noexcept { return m_token; }
    /// Takes it and reads the one after it. \throws QORQueryError for what is no token
    QORQueryToken take();
    /// True when the byte that follows the token that stands next, blanks aside, is `character`.
    bool isFollowedBy(char character) const noexcept;
    std::string_view text() const noexcept { return m_text; }

private:
    void read();
    void readWord();
    void readNumber();
    void readQuoted(char quote, QORQueryTokenKind kind);
    void readSymbol();
    void finish(QORQueryTokenKind kind, std::size_t end);

    std::string_view m_text;
    std::size_t m_position = 0;
    QORQueryToken m_token;
};

/// Whether a word is no name unless it stands in double quotes.
bool isReservedWord(std::string_view word) noexcept;
/// A name as the lexer reads it back: as it stands, or in double quotes. \pre not empty
std::string spellName(std::string_view name);
/// A text in single quotes.
std::string spellText(std::string_view text);
/// Whether a text is read back from its own spelling as one number.
bool isSpelledNumber(std::string_view text) noexcept;

/// How a token is named in a message: `"and"`, or the end of the text.
std::string describeToken(const QORQueryToken& token);

}  // namespace QOR
