#include "QORQuery/QORQueryLexer.h"

#include <algorithm>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORQuery/QORQueryError.h"

namespace QOR {
namespace {

constexpr bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
constexpr bool isAscii(char c) {
    return static_cast<unsigned char>(c) < 0x80;
}
constexpr bool isWordStart(char c) {
    return isAlphaChar(c) || c == '_' || !isAscii(c);
}
constexpr bool isWordPart(char c) {
    return isWordStart(c) || isDigitChar(c) || c == '$';
}

/// Longer ones first.
constexpr std::string_view symbols[] = {"<>", "!=", "<=", ">=", "=", "<", ">", "(", ")", ",", ".", "+", "-"};

constexpr std::string_view reservedWords[] = {"and", "or",   "not",    "like", "in",    "between",
                                              "is",  "null", "select", "from", "where", "escape"};

std::string quoted(std::string_view text, char quote) {
    std::string out(1, quote);
    for (const char c : text)
        out.append(c == quote ? 2 : 1, c);
    return out += quote;
}

/// The bytes of the character at `position`: what is no token is shown whole.
std::string_view characterAt(std::string_view text, std::size_t position) {
    std::size_t end = position + 1;
    while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
        ++end;
    return text.substr(position, end - position);
}

std::string adviceFor(std::string_view text, std::size_t position) {
    const std::string_view rest = text.substr(position);
    if (rest.starts_with("==")) return "\"==\" is not an operator; equality is written \"=\"";
    if (rest.starts_with("&&")) return "\"&&\" is not an operator; it is written \"and\"";
    if (rest.starts_with("||")) return "\"||\" is not an operator; \"or\" joins conditions";
    if (rest.front() == '!') return "\"!\" is not an operator; it is written \"not\"";
    return quoteText(characterAt(text, position)) + " has no meaning here";
}

}  // namespace

bool QORQueryToken::isWord(std::string_view keyword) const {
    return kind == QORQueryTokenKind::Word && isSameWord(spelled, keyword);
}

QORQueryLexer::QORQueryLexer(std::string_view text) : m_text(text) {
    read();
}

QORQueryToken QORQueryLexer::take() {
    QORQueryToken taken = std::move(m_token);
    m_token = {};
    read();
    return taken;
}

bool QORQueryLexer::isFollowedBy(char character) const noexcept {
    const auto next = std::find_if_not(m_text.begin() + static_cast<std::ptrdiff_t>(m_position), m_text.end(), isBlank);
    return next != m_text.end() && *next == character;
}

void QORQueryLexer::read() {
    while (m_position < m_text.size() && isBlank(m_text[m_position]))
        ++m_position;
    m_token.offset = m_position;
    if (m_position == m_text.size()) return finish(QORQueryTokenKind::End, m_position);
    const char c = m_text[m_position];
    const bool startsFraction = c == '.' && m_position + 1 < m_text.size() && isDigitChar(m_text[m_position + 1]);
    // A point directly behind a name belongs to "view.column", even where a digit follows.
    const bool afterName = m_position > 0 && (isWordPart(m_text[m_position - 1]) || m_text[m_position - 1] == '"');
    if (isWordStart(c)) return readWord();
    if (isDigitChar(c) || (startsFraction && !afterName)) return readNumber();
    if (c == '\'') return readQuoted(c, QORQueryTokenKind::Text);
    if (c == '"') return readQuoted(c, QORQueryTokenKind::Quoted);
    readSymbol();
}

void QORQueryLexer::finish(QORQueryTokenKind kind, std::size_t end) {
    m_token.kind = kind;
    m_token.spelled = m_text.substr(m_token.offset, end - m_token.offset);
    if (m_token.text.empty() && kind != QORQueryTokenKind::Text) m_token.text = m_token.spelled;
    m_position = end;
}

void QORQueryLexer::readWord() {
    std::size_t end = m_position;
    while (end < m_text.size() && isWordPart(m_text[end]))
        ++end;
    finish(QORQueryTokenKind::Word, end);
}

void QORQueryLexer::readNumber() {
    std::size_t end = m_position;
    const auto digits = [&] {
        const std::size_t begin = end;
        while (end < m_text.size() && isDigitChar(m_text[end]))
            ++end;
        return end > begin;
    };
    bool good = digits();
    if (end < m_text.size() && m_text[end] == '.') {
        ++end;
        good = digits();
    }
    if (good && end < m_text.size() && toLowerChar(m_text[end]) == 'e') {
        ++end;
        if (end < m_text.size() && (m_text[end] == '+' || m_text[end] == '-')) ++end;
        good = digits();
    }
    if (good && (end == m_text.size() || (!isWordPart(m_text[end]) && m_text[end] != '.')))
        return finish(QORQueryTokenKind::Number, end);
    while (end < m_text.size() && (isWordPart(m_text[end]) || m_text[end] == '.'))
        ++end;
    const std::string_view spelled = m_text.substr(m_token.offset, end - m_token.offset);
    if (parseDuration(spelled)) return finish(QORQueryTokenKind::Duration, end);
    throw QORQueryError(
        m_token.offset,
        quoteText(spelled) + " is neither a number nor a duration such as 7d; a text is written in single quotes");
}

void QORQueryLexer::readQuoted(char quote, QORQueryTokenKind kind) {
    std::string& text = m_token.text;
    for (std::size_t from = m_position + 1;;) {
        const std::size_t end = m_text.find(quote, from);
        if (end == std::string_view::npos)
            throw QORQueryError(m_token.offset, kind == QORQueryTokenKind::Text
                                                    ? "the text that begins here has no closing single quote"
                                                    : "the name that begins here has no closing double quote");
        text.append(m_text, from, end - from);
        if (end + 1 < m_text.size() && m_text[end + 1] == quote) {
            text += quote;
            from = end + 2;
            continue;
        }
        if (kind == QORQueryTokenKind::Quoted && text.empty()) throw QORQueryError(m_token.offset, "the name is empty");
        return finish(kind, end + 1);
    }
}

void QORQueryLexer::readSymbol() {
    const std::string_view rest = m_text.substr(m_position);
    if (!rest.starts_with("=="))
        for (const std::string_view symbol : symbols)
            if (rest.starts_with(symbol)) return finish(QORQueryTokenKind::Symbol, m_position + symbol.size());
    throw QORQueryError(m_position, adviceFor(m_text, m_position));
}

bool isReservedWord(std::string_view word) noexcept {
    return std::any_of(std::begin(reservedWords), std::end(reservedWords),
                       [&](std::string_view reserved) { return isSameWord(word, reserved); });
}

std::string spellName(std::string_view name) {
    const bool isWord = isWordStart(name.front()) && std::all_of(name.begin(), name.end(), isWordPart);
    return isWord && !isReservedWord(name) ? std::string(name) : quoted(name, '"');
}

std::string spellText(std::string_view text) {
    return quoted(text, '\'');
}

bool isSpelledNumber(std::string_view text) noexcept {
    if (text.starts_with('-')) text.remove_prefix(1);
    const std::size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    const std::string_view fraction = point == std::string_view::npos ? "0" : text.substr(point + 1);
    const auto areDigits = [](std::string_view digits) {
        return !digits.empty() && std::all_of(digits.begin(), digits.end(), isDigitChar);
    };
    return areDigits(whole) && areDigits(fraction);
}

std::string describeToken(const QORQueryToken& token) {
    if (token.kind == QORQueryTokenKind::End) return "the end of the text";
    if (token.kind == QORQueryTokenKind::Text) return "the text " + quoteText(token.text, 40);
    if (token.kind == QORQueryTokenKind::Quoted) return "the name " + quoteText(token.text, 40);
    return quoteText(token.spelled, 40);
}

}  // namespace QOR
