// The lexer: the operations of the parser that cut the text into tokens, one at a time.
#include "QORPager/QORExpressionEvaluationParser.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {

bool TExpressionEvaluationParser::isValidNameChar(char ch) noexcept {
    return isAlphaChar(ch) || isDigitChar(ch) || ch == '_' || ch == '.';
}

bool TExpressionEvaluationParser::isOperatorSpecChar(char ch) noexcept {
    constexpr std::string_view characters = "(),><=+-*/^!";
    return characters.find(ch) != std::string_view::npos;
}

bool TExpressionEvaluationParser::skipSpace() {
    while (!atEnd() && isSpaceChar(current()))
        ++m_position;
    return atEnd();
}

bool TExpressionEvaluationParser::getNextToken() {
    m_token.method = nullptr;
    m_token.text.clear();
    m_token.tokenClass = tcIdentifier;
    m_token.type = ttNone;
    m_token.priority = tpNone;
    m_token.identifier = nullptr;
    m_token.functionBracket = false;
    const bool end = skipSpace();
    m_token.position = m_position;
    if (end) return false;
    if (isDigitChar(current())) {
        m_unaryMinus = false;
        getNumber();
    } else if (isString(current())) {
        getString();
    } else if (isAlphaChar(current())) {
        m_unaryMinus = false;
        getName();
    } else if (isOperatorSpecChar(current())) {
        getOperatorSpecChar();
    } else {
        setError(etUnknownSymbol, std::string_view(m_text).substr(m_position));
    }
    return !isError();
}

void TExpressionEvaluationParser::getNumber() {
    const std::size_t begin = m_position;
    while (!atEnd() && isDigitChar(current()))
        ++m_position;
    m_token.text.assign(m_text, begin, m_position - begin);
    m_token.tokenClass = tcNumber;
}

void TExpressionEvaluationParser::getString() {
    const char delimiter = current();
    ++m_position;
    while (!atEnd()) {
        if (current() == delimiter) {
            ++m_position;
            if (atEnd() || current() != delimiter) {
                m_token.tokenClass = tcString;
                return;
            }
        }
        // A run of ordinary characters, the first of which may be the second of two delimiters.
        const std::size_t begin = m_position;
        const std::size_t end = m_text.find(delimiter, begin + 1);
        m_position = end == std::string::npos ? m_text.size() : end;
        m_token.text.append(m_text, begin, m_position - begin);
    }
    setError(etUnterminatedString, m_token.text);
}

void TExpressionEvaluationParser::getName() {
    const std::size_t begin = m_position;
    while (!atEnd() && isValidNameChar(current()))
        ++m_position;
    m_token.text.assign(m_text, begin, m_position - begin);
    m_lowerName = m_token.text;
    lowerText(m_lowerName.data(), m_lowerName.data() + m_lowerName.size());
    if (fillOperatorTokenFromName(m_lowerName, m_token)) return;
    if (!skipSpace() && current() == '(') {
        getFunction();
        return;
    }
    const auto found = m_identifiers.find(m_lowerName);
    if (found == m_identifiers.end()) {
        setError(etUndeclaredIdentifier, m_token.text);
    } else {
        m_token.identifier = &found->second;
    }
}

void TExpressionEvaluationParser::getFunction() {
    const TFunctionInfo* const function = findFunction(m_lowerName);
    if (function == nullptr) {
        setError(etUnknownFunction, m_token.text);
        return;
    }
    if (function->argumentCount > 0) {
        m_openCalls.push_back({function});
        m_pendingFunction = true;
    } else if (!getEmptyArguments()) {
        return;
    }
    m_token.method = function->method;
    m_token.tokenClass = tcOperator;
    m_token.type = ttFunction;
    m_token.priority = tpFunction;
}

bool TExpressionEvaluationParser::getEmptyArguments() {
    ++m_position;
    if (skipSpace()) {
        setError(etUnexpectedLeftBracket);
        return false;
    }
    if (current() != ')') {
        setError(etFunctionArguments, "Function \"" + m_token.text + "\" takes no arguments");
        return false;
    }
    ++m_position;
    return true;
}

void TExpressionEvaluationParser::getOperatorSpecChar() {
    const std::size_t begin = m_position++;
    const char first = m_text[begin];
    const char next = atEnd() ? '\0' : current();
    const bool takesNext = next == '=' ? first == '!' || first == '>' || first == '<' : first == '<' && next == '>';
    if (takesNext) ++m_position;
    m_token.text.assign(m_text, begin, m_position - begin);
    if (first == '-' && m_unaryMinus) m_token.text = "-u";
    if (!fillOperatorTokenFromName(m_token.text, m_token)) {
        setError(etUnknownSymbol, std::string_view(m_text).substr(begin));
    }
}

bool TExpressionEvaluationParser::fillOperatorTokenFromName(std::string_view name, TToken& token) {
    const TOperatorTokenFromName* const entry = findOperator(name);
    if (entry == nullptr) return false;
    token.tokenClass = entry->tokenClass;
    token.type = entry->type;
    token.priority = entry->priority;
    token.method = entry->method;
    m_unaryMinus = entry->unaryMinusFollows;
    return true;
}

}  // namespace QOR
