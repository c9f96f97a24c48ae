#include "QORPager/QORExpressionEvaluationParser.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

/// The name whose comparison by "in" is the language's one special construct, and what it is renamed to there.
constexpr std::string_view eidName = "pager.env.eid";
constexpr std::string_view placeholderSuffix = ".InPlaceholder";

}  // namespace

TExpressionEvaluationParser::TExpressionEvaluationParser(TErrorType& errorCode, std::string& errorDetail)
    : m_errorCode(errorCode), m_errorDetail(errorDetail) {}

TExpressionEvaluationParser::~TExpressionEvaluationParser() = default;

void TExpressionEvaluationParser::setExpression(std::string_view text) {
    m_text.assign(text);
    m_parsed = false;
    ++m_version;
    dropTrees();
}

bool TExpressionEvaluationParser::setIdentifier(std::string_view name, TBaseValue* value, bool special) {
    if (name.empty() || !std::all_of(name.begin(), name.end(), isValidNameChar)) return false;
    std::string key = toLowerText(name);
    if (special) m_specialIdentifiers.insert(key);
    TIdentifierValue& bound = m_identifiers[std::move(key)];
    if (bound != nullptr && bound->type() != value->type()) ++m_version;
    bound.reset(value);
    return true;
}

bool TExpressionEvaluationParser::setIdentifierFromString(std::string_view name, std::string_view text) {
    return setFromText(bindingHandle(name), text);
}

TIdentifierHandle TExpressionEvaluationParser::bindingHandle(std::string_view name) noexcept {
    const auto found = m_identifiers.find(name);
    return found == m_identifiers.end() ? TIdentifierHandle() : TIdentifierHandle(&found->second);
}

bool TExpressionEvaluationParser::setOther(TIdentifierHandle handle, std::string_view text) {
    if (!handle) return true;
    TBaseValue* const value = handle.m_value->get();
    if (value->type() != TValueType::Boolean) return value->setValueFromString(std::string(text));
    static_cast<TBooleanValue*>(value)->assign(TBooleanValue::isTrueText(text));
    return false;
}

void TExpressionEvaluationParser::clearIdentifiersMap() {
    dropTrees();
    m_postfix.clear();
    m_parsed = false;
    ++m_version;
    m_identifiers.clear();
}

bool TExpressionEvaluationParser::wasIdentifierUsed(std::string_view name) const {
    return m_usedIdentifiers.contains(name);
}

void TExpressionEvaluationParser::setError(TErrorType code) {
    m_errorCode = code;
    m_errorPosition = m_token.position;
}

void TExpressionEvaluationParser::setError(TErrorType code, std::string_view detail) {
    setError(code);
    m_errorDetail.assign(detail);
}

void TExpressionEvaluationParser::clearError() {
    m_errorCode = etNoErrors;
    m_errorDetail.clear();
}

bool TExpressionEvaluationParser::parse() {
    return m_parsed || doParse();
}

void TExpressionEvaluationParser::changeComparedConstants(
    const std::function<void(const TToken& name, TToken& constant)>& change) {
    const auto isConstant = [](const TToken& token) {
        return token.tokenClass == tcString || token.tokenClass == tcNumber;
    };
    // An operand that is a single token stands right before its operator, or before the other operand that is one.
    for (std::size_t at = 2; at < m_postfix.size(); ++at) {
        if (m_postfix[at].tokenClass != tcOperator || !isComparison(m_postfix[at].type)) continue;
        TToken& left = m_postfix[at - 2];
        TToken& right = m_postfix[at - 1];
        if (left.tokenClass == tcIdentifier && isConstant(right)) change(left, right);
        if (right.tokenClass == tcIdentifier && isConstant(left)) change(right, left);
    }
    ++m_version;
}

std::string TExpressionEvaluationParser::getPostfix() {
    doParse();
    std::string text;
    for (const TToken& token : m_postfix)
        text.append(token.text).append(1, ' ');
    return text;
}

bool TExpressionEvaluationParser::doParse() {
    startParse();
    while (getNextToken()) {
        countToken();
        if (!takeToken()) return false;
    }
    return !isError() && finishParse();
}

/// Tokens are counted many at a time: a filter that people write is below the first time.
void TExpressionEvaluationParser::countToken() {
    constexpr std::size_t many = 1024;
    if (++m_tokenCount % many != 0) return;
    try {
        m_memory.add(many * memoryOfToken, "the filter");
    } catch (...) {
        forgetExpression();
        throw;
    }
}

void TExpressionEvaluationParser::forgetExpression() {
    setExpression({});
    startParse();
    std::string().swap(m_text);
    std::deque<TToken>().swap(m_postfix);
    std::vector<TToken>().swap(m_operators);
    std::vector<TFunctionArgumentsCheck>().swap(m_openCalls);
    m_token = {};
}

void TExpressionEvaluationParser::startParse() {
    m_memory.release();
    m_tokenCount = 0;
    dropTrees();
    ++m_version;
    m_parsed = false;
    m_postfix.clear();
    m_usedIdentifiers.clear();
    m_openCalls.clear();
    m_operators.clear();
    m_pendingFunction = false;
    m_previousType = ttNone;
    m_eidCount = 0;
    m_unaryMinus = true;
    m_position = 0;
    clearError();
}

bool TExpressionEvaluationParser::takeToken() {
    assert(m_token.tokenClass <= tcOperator);
    const TTokenType type = m_token.type;
    bool taken = true;
    if (m_token.tokenClass == tcOperator) {
        taken = takeOperator();
    } else if (m_token.tokenClass == tcBracket) {
        taken = takeBracket();
    } else {
        takeOperand();
    }
    m_previousType = type;
    return taken;
}

void TExpressionEvaluationParser::takeOperand() {
    if (m_token.tokenClass == tcIdentifier) {
        m_usedIdentifiers.insert(m_token.text);
        if (m_token.text == eidName) ++m_eidCount;
    }
    m_postfix.push_back(std::move(m_token));
}

bool TExpressionEvaluationParser::takeBracket() {
    if (m_token.type == ttComma) return takeComma();
    if (m_token.type == ttRightBracket) return takeRightBracket();
    m_token.functionBracket = std::exchange(m_pendingFunction, false);
    m_operators.push_back(std::move(m_token));
    return true;
}

bool TExpressionEvaluationParser::takeComma() {
    if (!m_openCalls.empty()) {
        ++m_openCalls.back().argumentCount;
        if (popToLeftBracket()) return true;
    }
    setError(etUnexpectedComma);
    return false;
}

bool TExpressionEvaluationParser::takeRightBracket() {
    if (!popToLeftBracket()) {
        setError(etUnexpectedRightBracket);
        return false;
    }
    if (m_operators.back().functionBracket && !checkFunctionArguments()) return false;
    m_operators.pop_back();
    return true;
}

bool TExpressionEvaluationParser::checkFunctionArguments() {
    const TFunctionArgumentsCheck& call = m_openCalls.back();
    const int expected = call.function->argumentCount;
    if (call.argumentCount != expected || m_previousType == ttLeftBracket) {
        setError(etFunctionArguments, "Function \"" + std::string(call.function->name) + "\" takes " +
                                          std::to_string(expected) + " argument(s)");
        return false;
    }
    m_openCalls.pop_back();
    return true;
}

bool TExpressionEvaluationParser::popToLeftBracket() {
    while (!m_operators.empty()) {
        if (m_operators.back().type == ttLeftBracket) return true;
        popToPostfix();
    }
    return false;
}

void TExpressionEvaluationParser::popToPostfix() {
    m_postfix.push_back(std::move(m_operators.back()));
    m_operators.pop_back();
}

bool TExpressionEvaluationParser::takeOperator() {
    while (!m_operators.empty() && m_operators.back().priority >= m_token.priority)
        popToPostfix();
    const bool in = m_token.type == ttIn;
    m_operators.push_back(std::move(m_token));
    return !in || takeInConstruct();
}

bool TExpressionEvaluationParser::finishParse() {
    while (!m_operators.empty()) {
        if (m_operators.back().type == ttLeftBracket) {
            m_token.position = m_operators.back().position;
            setError(etUnexpectedLeftBracket);
            return false;
        }
        popToPostfix();
    }
    if (m_postfix.empty()) {
        setError(etEmptyExpression);
        return false;
    }
    m_parsed = true;
    return true;
}

bool TExpressionEvaluationParser::takeInConstruct() {
    TToken unit;
    if (!readInConstruct(unit)) {
        setError(etParse, "incorrect <in> expression");
        return false;
    }
    TToken& left = m_postfix.back();
    if (m_eidCount == 1) {
        --m_eidCount;
        m_usedIdentifiers.erase(std::string(eidName));
    }
    left.text += placeholderSuffix;
    m_usedIdentifiers.insert(left.text);
    m_postfix.push_back(std::move(unit));
    return true;
}

bool TExpressionEvaluationParser::readInConstruct(TToken& unit) {
    if (!readBracket(ttLeftBracket) || !readWord(ttUnit, "unit")) return false;
    if (!getNextToken() || m_token.tokenClass != tcString) return false;
    if (m_postfix.empty() || m_postfix.back().text != eidName) return false;
    unit = std::move(m_token);
    return readBracket(ttComma) && readWord(ttRecursive, "recursive") && readBracket(ttRightBracket);
}

bool TExpressionEvaluationParser::readBracket(TTokenType type) {
    return getNextToken() && m_token.type == type;
}

bool TExpressionEvaluationParser::readWord(TTokenType type, std::string_view word) {
    return getNextToken() && m_token.type == type && m_token.text == word;
}

void TExpressionEvaluationParser::dropTrees() {
    for (TreeSlot* slot : {&m_tree, &m_specialTree, &m_notSpecialTree})
        *slot = {};
}

const TNode* TExpressionEvaluationParser::buildTree() {
    if (m_tree.built) return m_tree.root.get();
    if (!parse()) return nullptr;
    const TToken* offending = nullptr;
    m_tree.root = TNode::build(m_postfix, m_specialIdentifiers, offending);
    if (m_tree.root == nullptr) {
        m_token.position = offending->position;
        setError(etOperatorExpected);
        return nullptr;
    }
    m_tree.built = true;
    return m_tree.root.get();
}

const TNode* TExpressionEvaluationParser::buildPart(TreeSlot& slot, bool special) {
    if (slot.built) return slot.root.get();
    const TNode* const tree = buildTree();
    if (tree == nullptr) return nullptr;
    const bool has = special ? tree->includesSpecialIdentifier() : tree->includesNotSpecialIdentifier();
    if (has) slot.root = tree->getSpecialTree(special);
    slot.built = true;
    return slot.root.get();
}

const TNode* TExpressionEvaluationParser::buildTreeSpecial() {
    return buildPart(m_specialTree, true);
}
const TNode* TExpressionEvaluationParser::buildTreeNotSpecial() {
    return buildPart(m_notSpecialTree, false);
}

std::string TExpressionEvaluationParser::textOf(const TNode* tree) {
    return tree == nullptr ? std::string("Error") : removeUnnecessaryParenthesis(tree->getInfix());
}

std::string TExpressionEvaluationParser::getInfix() {
    return textOf(buildTree());
}
std::string TExpressionEvaluationParser::getInfixSpecial() {
    return textOf(buildTreeSpecial());
}
std::string TExpressionEvaluationParser::getInfixNotSpecial() {
    return textOf(buildTreeNotSpecial());
}

std::string TExpressionEvaluationParser::removeUnnecessaryParenthesis(std::string text) {
    if (!text.starts_with('(')) return text;
    text.pop_back();
    if (!text.empty()) text.erase(0, 1);
    return text;
}

bool TExpressionEvaluationParser::onlySpecial() {
    const TNode* const tree = buildTree();
    return tree != nullptr && tree->onlySpecial(true);
}

bool TExpressionEvaluationParser::onlyNotSpecial() {
    const TNode* const tree = buildTree();
    return tree != nullptr && tree->onlySpecial(false);
}

std::string TExpressionEvaluationParser::extractConstByIdentifierAndOperation(std::string_view name, TTokenType type,
                                                                              bool& found) {
    const TNode* const tree = buildTree();
    const TToken* const constant = tree == nullptr ? nullptr : tree->extractConstByIdentifierAndOperation(name, type);
    found = constant != nullptr;
    return found ? constant->text : std::string();
}

}  // namespace QOR
