#include "QORQuery/QORCondition.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORQuery/QORQueryError.h"
#include "QORQuery/QORQueryField.h"
#include "QORQuery/QORQueryLexer.h"
#include "QORQuery/QORQueryTree.h"

namespace QOR {
namespace {

using Id = QORQueryTree::Id;
using Literal = QORConditionPlace::Literal;

struct ComparisonSign {
    std::string_view sign;
    QORTag tag;
};
constexpr ComparisonSign comparisonSigns[] = {
    {"=", tag::eq}, {"<>", tag::ne}, {"!=", tag::ne}, {"<", tag::lt}, {"<=", tag::le}, {">", tag::gt}, {">=", tag::ge},
};

bool isReserved(const QORQueryToken& token) {
    return token.kind == QORQueryTokenKind::Word && isReservedWord(token.text);
}

/// Reads by operator precedence with a stack of its own, so that parentheses and nots may be as deep as memory
/// allows. Only nested selects are read by recursion; `nestedSelects` bounds them.
class Parser {
public:
    Parser(std::string_view text, const QORConditionOptions& options)
        : m_lexer(text), m_options(options), m_view(options.view) {}

    Id readWhole() {
        const Id condition = readCondition();
        if (peek().kind != QORQueryTokenKind::End) unexpected("\"and\", \"or\" or the end of the text");
        return condition;
    }
    const QORQueryTree& tree() const { return m_tree; }
    /// The places of the condition and of all that is below it. Its height bounds how deep this goes.
    void tellPlaces(Id id) const {
        const auto found = m_places.find(id);
        m_options.places->push_back(found == m_places.end() ? QORConditionPlace() : found->second);
        for (Id child = m_tree.firstChild(id); child != QORQueryTree::none; child = m_tree.nextSibling(child))
            tellPlaces(child);
    }

private:
    static constexpr unsigned nestedSelects = 24;

    struct Item {
        Id id;
        bool isCondition;
    };
    struct Pending {
        enum Kind { Or, And, Not, Parenthesis } kind;
        std::size_t offset;
        Id left;
    };
    using Stack = std::vector<Pending>;

    // ---- tokens -------------------------------------------------------------------------------------------------
    const QORQueryToken& peek() const { return m_lexer.peek(); }
    bool takeWord(std::string_view word) {
        if (!peek().isWord(word)) return false;
        m_lexer.take();
        return true;
    }
    bool takeSymbol(std::string_view symbol) {
        if (!peek().isSymbol(symbol)) return false;
        m_lexer.take();
        return true;
    }
    [[noreturn]] void unexpected(const std::string& expected) const {
        throw QORQueryError(peek().offset, "expected " + expected + ", found " + describeToken(peek()),
                            {std::string(peek().spelled), expected, {}});
    }
    void needWord(std::string_view word) {
        if (!takeWord(word)) unexpected("\"" + std::string(word) + "\"");
    }
    void needSymbol(std::string_view symbol) {
        if (!takeSymbol(symbol)) unexpected("\"" + std::string(symbol) + "\"");
    }

    /// The columns of a view that is named. \returns null where nobody asks whether there is one
    const std::vector<std::string>* needView(const std::string& view, std::size_t offset) const {
        if (!m_options.columns) return nullptr;
        const std::vector<std::string>* const columns = m_options.columns(view);
        if (columns == nullptr)
            throw QORQueryError(offset, "there is no view " + quoteText(view), {view, "a view", {}});
        return columns;
    }
    void needColumn(const std::string& view, const std::string& column, std::size_t offset) const {
        const std::vector<std::string>* const columns = needView(view, offset);
        if (columns == nullptr || std::find(columns->begin(), columns->end(), column) != columns->end()) return;
        const std::vector<std::string_view> names(columns->begin(), columns->end());
        const std::vector<std::string_view> near = nearestNames(column, names);
        throw QORQueryError(offset, "view " + quoteText(view) + " has no column " + quoteText(column),
                            {column, "a column of " + view, near.empty() ? std::string() : std::string(near.front())});
    }

    // ---- building -----------------------------------------------------------------------------------------------
    Id checked(Id id, std::size_t offset) const {
        if (m_tree.height(id) > m_options.levels)
            throw QORQueryError(offset, "the condition is nested too deeply here; a request takes " +
                                            std::to_string(m_options.levels) + " levels");
        return id;
    }
    Id build(QORTag tag, std::initializer_list<Id> children, std::size_t offset) {
        const Id id = m_tree.node(tag);
        for (const Id child : children)
            m_tree.append(id, child);
        return checked(id, offset);
    }
    Id negate(Id condition, std::size_t offset) {
        if (m_tree.tag(condition) == tag::logicalNot) return m_tree.firstChild(condition);
        return build(tag::logicalNot, {condition}, offset);
    }
    Id join(QORTag tag, Id left, Id right, std::size_t offset) {
        Id chain = left;
        if (m_tree.tag(left) != tag) chain = build(tag, {left}, offset);
        if (m_tree.tag(right) == tag)
            m_tree.adopt(chain, right);
        else
            m_tree.append(chain, right);
        return checked(chain, offset);
    }

    // ---- conditions ---------------------------------------------------------------------------------------------
    Id readCondition();
    Item readTerm(Stack& stack);
    Id readComparison(Id left, bool inParenthesis);
    Id readNegatable(Id left, bool inParenthesis);
    Id readLike(Id left, std::size_t offset);
    Id readBetween(Id left, std::size_t offset);
    Id readIn(Id left, std::size_t offset);
    Id readIs(Id left, std::size_t offset);
    Id reduce(Stack& stack, Id condition, Pending::Kind lowest);
    Id readSelect();
    Id readOutputField(std::string& column, std::string& qualifier);
    void readOrder(Id select, const std::string& view);
    void readLimit(Id select);
    std::string readWholeNumber();

    // ---- stored forms -------------------------------------------------------------------------------------------
    Id relate(Id condition);
    Id store(Id condition);
    std::string stored(std::string_view type, Id literal) const;
    template <class Of>
    Id bring(Id condition, Of formOf);
    bool isRelative(Id literal) const;
    std::string timeOf(Id literal) const;
    std::string timeFromNow(std::int64_t seconds, std::size_t offset) const;
    bool isLiteral(Id id) const { return m_tree.tag(id) == tag::value; }
    std::string typeOf(Id operand) const;
    std::string typeOfColumn(const std::string& field) const;
    std::string typeOfSelect(Id select) const;
    Id literal(std::string text, std::size_t offset, Literal spelled);
    Id placed(Id id, QORConditionPlace place);

    // ---- operands -----------------------------------------------------------------------------------------------
    Id readOperand();
    Id readPrimary();
    Id readNumber();
    Id readNow();
    Id readCurrentEid();
    Id readField();
    Id readFunctions(bool allowParentheses);
    bool isFunctionNext() const;
    std::string readName(const char* what);

    QORQueryLexer m_lexer;
    const QORConditionOptions& m_options;
    std::string m_view;                        ///< of the innermost select
    std::map<Id, std::size_t> m_literals;      ///< where each stands in the text
    std::map<Id, std::int64_t> m_durations;    ///< of these, those that were spelled as durations: their seconds
    std::map<Id, QORConditionPlace> m_places;  ///< empty where nobody asks for them
    unsigned m_nesting = 0;
    QORQueryTree m_tree;
};

/// Combines what stands on the stack above `lowest` with the condition to its right.
Id Parser::reduce(Stack& stack, Id condition, Pending::Kind lowest) {
    while (!stack.empty() && stack.back().kind != Pending::Parenthesis && stack.back().kind >= lowest) {
        const Pending pending = stack.back();
        stack.pop_back();
        if (pending.kind == Pending::Not)
            condition = negate(condition, pending.offset);
        else
            condition = join(pending.kind == Pending::And ? tag::logicalAnd : tag::logicalOr, pending.left, condition,
                             pending.offset);
    }
    return condition;
}

/// A term with the nots and opening parentheses before it, which go to the stack.
Parser::Item Parser::readTerm(Stack& stack) {
    for (;;) {
        const std::size_t offset = peek().offset;
        if (takeWord("not"))
            stack.push_back({Pending::Not, offset, QORQueryTree::none});
        else if (takeSymbol("("))
            stack.push_back({Pending::Parenthesis, offset, QORQueryTree::none});
        else
            return {readPrimary(), false};
    }
}

Id Parser::readCondition() {
    Stack stack;
    Item item = readTerm(stack);
    for (;;) {
        const bool closable = !stack.empty() && stack.back().kind == Pending::Parenthesis;
        if (!item.isCondition && closable && takeSymbol(")")) {
            stack.pop_back();  // an operand in parentheses
            continue;
        }
        if (!item.isCondition) {
            item = {readComparison(item.id, closable), true};
            continue;
        }
        const std::size_t offset = peek().offset;
        if (takeWord("and")) {
            stack.push_back({Pending::And, offset, reduce(stack, item.id, Pending::And)});
            item = readTerm(stack);
        } else if (takeWord("or")) {
            stack.push_back({Pending::Or, offset, reduce(stack, item.id, Pending::Or)});
            item = readTerm(stack);
        } else {
            item.id = reduce(stack, item.id, Pending::Or);
            if (stack.empty()) return item.id;
            if (peek().kind == QORQueryTokenKind::End)
                throw QORQueryError(stack.back().offset, "the parenthesis that opens here is never closed");
            if (!takeSymbol(")")) unexpected("\"and\", \"or\" or \")\"");
            stack.pop_back();
        }
    }
}

Id Parser::readComparison(Id left, bool inParenthesis) {
    const QORQueryToken& next = peek();
    const std::size_t offset = next.offset;
    for (const ComparisonSign& comparison : comparisonSigns) {
        if (!takeSymbol(comparison.sign)) continue;
        if (peek().isWord("null"))
            throw QORQueryError(peek().offset, "nothing equals null; write \"is null\" or \"is not null\"");
        return relate(build(comparison.tag, {left, readOperand()}, offset));
    }
    if (next.isSymbol("+") || next.isSymbol("-"))
        throw QORQueryError(offset, "a condition does not calculate; expected a comparison");
    if (takeWord("is")) return readIs(left, offset);
    return readNegatable(left, inParenthesis);
}

Id Parser::readNegatable(Id left, bool inParenthesis) {
    const std::size_t notOffset = peek().offset;
    const bool negated = takeWord("not");
    const std::size_t offset = peek().offset;
    Id condition = QORQueryTree::none;
    if (takeWord("like"))
        condition = readLike(left, offset);
    else if (takeWord("between"))
        condition = readBetween(left, offset);
    else if (takeWord("in"))
        condition = readIn(left, offset);
    else if (negated)
        unexpected("\"like\", \"in\" or \"between\" after \"not\"");
    else
        unexpected(std::string("a comparison (=, <>, <, <=, >, >=, like, in, between, is)") +
                   (inParenthesis ? " or \")\"" : ""));
    return negated ? negate(condition, notOffset) : condition;
}

Id Parser::readLike(Id left, std::size_t offset) {
    const Id pattern = readOperand();
    if (!takeWord("escape")) return build(tag::like, {left, pattern}, offset);
    const bool isText = peek().kind == QORQueryTokenKind::Text;
    if (!isText || peek().text.size() != 1 || static_cast<unsigned char>(peek().text[0]) >= 0x80)
        unexpected("one ASCII character in single quotes");
    return build(tag::like, {left, pattern, m_tree.leaf(tag::escape, m_lexer.take().text)}, offset);
}

Id Parser::readBetween(Id left, std::size_t offset) {
    const Id low = readOperand();
    needWord("and");
    const Id high = readOperand();
    return store(build(tag::between, {left, low, high}, offset));
}

Id Parser::readIs(Id left, std::size_t offset) {
    const bool negated = takeWord("not");
    if (!takeWord("null")) unexpected(negated ? "\"null\"" : "\"null\" or \"not null\"");
    const Id condition = build(tag::isNull, {left}, offset);
    return negated ? negate(condition, offset) : condition;
}

Id Parser::readIn(Id left, std::size_t offset) {
    const Id condition = build(tag::in, {left}, offset);
    const std::size_t open = peek().offset;
    if (!takeSymbol("(")) unexpected("\"(\" and a list");
    do {
        m_tree.append(condition, peek().isWord("select") ? readSelect() : readOperand());
    } while (takeSymbol(","));
    if (peek().kind == QORQueryTokenKind::End) throw QORQueryError(open, "the list that opens here is never closed");
    if (!takeSymbol(")")) unexpected("\",\" or \")\"");
    return store(checked(condition, offset));
}

// ---- stored forms -----------------------------------------------------------------------------------------------

/// Has the literals among the operands of a condition take the form that `formOf` gives for the type of the first
/// operand that has one.
template <class Of>
Id Parser::bring(Id condition, Of formOf) {
    const Id first = m_tree.firstChild(condition);
    std::string type = typeOf(first);
    if (isLiteral(first)) {
        for (Id id = first; type.empty() && id != QORQueryTree::none; id = m_tree.nextSibling(id))
            type = typeOf(id);
    }
    for (Id id = first; id != QORQueryTree::none; id = m_tree.nextSibling(id)) {
        if (isLiteral(id)) m_tree.setText(id, formOf(type, id));
    }
    return condition;
}

/// Beside a column of times, what tells a time from now becomes that time. Where it is known what there is, a literal
/// that is no value of the column beside it is a mistake of the text, as it is of the request.
Id Parser::relate(Id condition) {
    bool any = false;
    for (Id id = m_tree.firstChild(condition); id != QORQueryTree::none; id = m_tree.nextSibling(id))
        any = any || isRelative(id) || (m_options.columns && isLiteral(id));
    if (!any || !m_options.types) return condition;
    return bring(condition, [this](std::string_view type, Id id) {
        if (isTimeType(type) && isRelative(id)) return timeOf(id);
        if (m_options.columns) stored(type, id);
        return m_tree.text(id);
    });
}

/// \throws QORQueryError at a literal that is no value of such a column
std::string Parser::stored(std::string_view type, Id literal) const {
    try {
        return storedForm(type, m_tree.text(literal));
    } catch (const QORException& error) {
        throw QORQueryError(m_literals.at(literal), error.message(), {.found = m_tree.text(literal)});
    }
}

/// Brings the literals into the form in which the column beside them stores its values.
Id Parser::store(Id condition) {
    bool any = false;
    for (Id id = m_tree.firstChild(condition); id != QORQueryTree::none; id = m_tree.nextSibling(id))
        any = any || isLiteral(id);
    if (!any || !m_options.types) return condition;
    return bring(condition, [this](std::string_view type, Id id) {
        return isTimeType(type) && isRelative(id) ? timeOf(id) : stored(type, id);
    });
}

bool Parser::isRelative(Id literal) const {
    if (!isLiteral(literal)) return false;
    return m_durations.contains(literal) || parseRelativeTime(m_tree.text(literal), m_options.now);
}

std::string Parser::timeOf(Id literal) const {
    const auto duration = m_durations.find(literal);
    if (duration == m_durations.end()) return time2dbstr(*parseRelativeTime(m_tree.text(literal), m_options.now));
    return timeFromNow(duration->second, m_literals.at(literal));
}

/// A time so many seconds from now.
std::string Parser::timeFromNow(std::int64_t seconds, std::size_t offset) const {
    const std::int64_t time = m_options.now + seconds;
    if (time < firstDbSecond || time > lastDbSecond)
        throw QORQueryError(offset, "this time is before the year 0 or after the year 9999");
    return time2dbstr(time);
}

/// The declared type of a column or of a nested select's; empty for what is compared as a text.
std::string Parser::typeOf(Id operand) const {
    if (m_tree.tag(operand) == tag::field) return typeOfColumn(m_tree.text(operand));
    return m_tree.tag(operand) == tag::select ? typeOfSelect(operand) : std::string();
}

std::string Parser::typeOfColumn(const std::string& field) const {
    const std::size_t point = field.find('.');
    return point == std::string::npos ? m_options.types(m_view, field)
                                      : m_options.types(field.substr(0, point), field.substr(point + 1));
}

std::string Parser::typeOfSelect(Id select) const {
    const Id view = m_tree.firstChild(select);
    const Id field = m_tree.nextSibling(view);
    const Id function = m_tree.firstChild(field);
    if (function == QORQueryTree::none) return m_options.types(m_tree.text(view), m_tree.text(field));
    const Id name = m_tree.firstChild(function);
    const std::string& aggregate = m_tree.text(name);
    if (aggregate == "count") return "bigint";
    if (aggregate == "average") return "double";
    return m_options.types(m_tree.text(view), m_tree.text(m_tree.nextSibling(name)));
}

Id Parser::literal(std::string text, std::size_t offset, Literal spelled) {
    const Id id = m_tree.leaf(tag::value, std::move(text));
    m_literals[id] = offset;
    return placed(id, {offset, spelled, m_tree.text(id)});
}

Id Parser::placed(Id id, QORConditionPlace place) {
    if (m_options.places != nullptr) m_places[id] = std::move(place);
    return id;
}

// ---- nested selects ---------------------------------------------------------------------------------------------

Id Parser::readSelect() {
    const std::size_t offset = m_lexer.take().offset;
    if (++m_nesting > nestedSelects) throw QORQueryError(offset, "selects are nested too deeply here");
    const bool distinct = takeWord("distinct");
    std::string column;
    std::string qualifier;
    const std::size_t fieldOffset = peek().offset;
    const Id field = readOutputField(column, qualifier);
    if (peek().isSymbol(",")) throw QORQueryError(peek().offset, "a select in a list has one column");
    needWord("from");
    const std::size_t viewOffset = peek().offset;
    std::string view = readName("a view");
    needView(view, viewOffset);
    needColumn(view, column, fieldOffset);
    if (!qualifier.empty() && !isSameWord(qualifier, view))
        throw QORQueryError(
            fieldOffset, quoteText(qualifier) + " is not the view that this select reads, which is " + quoteText(view));
    const Id select = build(tag::select, {m_tree.leaf(tag::view, view), field}, offset);
    if (distinct) m_tree.append(select, m_tree.node(tag::distinct));
    if (takeWord("where")) {
        std::swap(m_view, view);
        m_tree.append(select, build(tag::where, {readCondition()}, offset));
        std::swap(m_view, view);
    }
    if (takeWord("order")) readOrder(select, view);
    if (takeWord("limit")) readLimit(select);
    if (!peek().isSymbol(",") && !peek().isSymbol(")")) unexpected("\")\" at the end of the nested select");
    --m_nesting;
    return checked(select, offset);
}

Id Parser::readOutputField(std::string& column, std::string& qualifier) {
    if (peek().isSymbol("*")) throw QORQueryError(peek().offset, "a select in a list has one column");
    const bool isFunction = peek().kind == QORQueryTokenKind::Word && m_lexer.isFollowedBy('(');
    std::string function;
    if (isFunction) {
        function = m_lexer.take().text;
        needSymbol("(");
    }
    column = readName("a column");
    if (takeSymbol(".")) {
        qualifier = std::move(column);
        column = readName("a column");
    }
    if (!isFunction) return m_tree.leaf(tag::field, column);
    needSymbol(")");
    const Id inner = m_tree.node(tag::function);
    m_tree.append(inner, m_tree.leaf(tag::name, aggregateName(function)));
    m_tree.append(inner, m_tree.leaf(tag::field, column));
    return build(tag::field, {inner}, 0);
}

void Parser::readOrder(Id select, const std::string& view) {
    needWord("by");
    do {
        const Id sort = m_tree.node(tag::sort);
        const std::size_t offset = peek().offset;
        std::string column = readName("a column");
        needColumn(view, column, offset);
        m_tree.append(sort, m_tree.leaf(tag::field, std::move(column)));
        if (takeWord("desc"))
            m_tree.append(sort, m_tree.node(tag::descending));
        else
            takeWord("asc");
        m_tree.append(select, sort);
    } while (takeSymbol(","));
}

void Parser::readLimit(Id select) {
    const Id limit = m_tree.node(tag::limit);
    m_tree.append(limit, m_tree.leaf(tag::size, readWholeNumber()));
    if (takeWord("offset")) m_tree.append(limit, m_tree.leaf(tag::offset, readWholeNumber()));
    m_tree.append(select, limit);
}

std::string Parser::readWholeNumber() {
    const QORQueryToken& next = peek();
    // A leading zero would be taken for octal by some and for nothing by others.
    const bool isPlain = next.text.size() == 1 || !next.text.starts_with('0');
    if (next.kind != QORQueryTokenKind::Number || !isPlain || !parseInt32(next.text)) unexpected("a number of rows");
    return m_lexer.take().text;
}

// ---- operands ---------------------------------------------------------------------------------------------------

bool Parser::isFunctionNext() const {
    return peek().kind == QORQueryTokenKind::Word && m_lexer.isFollowedBy('(');
}

/// An operand that may stand in parentheses.
Id Parser::readOperand() {
    return readFunctions(true);
}

/// An operand without parentheses around it: those may turn out to hold a condition.
Id Parser::readPrimary() {
    return readFunctions(false);
}

/// Functions and parentheses around a column or a value. Each goes to a list until the operand within is read.
Id Parser::readFunctions(bool allowParentheses) {
    struct Wrapper {
        std::string function;  ///< empty for a parenthesis alone
        std::size_t offset;
    };
    std::vector<Wrapper> wrappers;
    for (;;) {
        const std::size_t offset = peek().offset;
        if ((allowParentheses || !wrappers.empty()) && takeSymbol("(")) {
            wrappers.push_back({"", offset});
        } else if (isFunctionNext() && !isReserved(peek())) {
            if (peek().isWord("now") || peek().isWord("current_eid")) break;
            if (!peek().isWord("upper") && !peek().isWord("lower"))
                throw QORQueryError(
                    offset, "a condition knows the functions upper(), lower(), now() and current_eid() only, found " +
                                describeToken(peek()));
            wrappers.push_back({m_lexer.take().isWord("upper") ? "upper" : "lower", offset});
            needSymbol("(");
        } else {
            break;
        }
    }
    const std::size_t begin = peek().offset;
    Id operand =
        peek().kind == QORQueryTokenKind::Text ? literal(m_lexer.take().text, begin, Literal::Text) : readNumber();
    if (operand == QORQueryTree::none && isFunctionNext()) {
        if (peek().isWord("now")) operand = readNow();
        if (peek().isWord("current_eid")) operand = readCurrentEid();
    }
    if (operand == QORQueryTree::none) operand = readField();
    for (; !wrappers.empty(); wrappers.pop_back()) {
        if (peek().kind == QORQueryTokenKind::End)
            throw QORQueryError(wrappers.back().offset, "the parenthesis of this operand is never closed");
        needSymbol(")");
        const Wrapper& wrapper = wrappers.back();
        if (!wrapper.function.empty())
            operand = placed(build(tag::function, {m_tree.leaf(tag::name, wrapper.function), operand}, wrapper.offset),
                             {wrapper.offset});
    }
    return operand;
}

/// A number or a duration with its sign; none when neither begins here.
Id Parser::readNumber() {
    const std::size_t offset = peek().offset;
    const auto isNumber = [this] {
        return peek().kind == QORQueryTokenKind::Number || peek().kind == QORQueryTokenKind::Duration;
    };
    std::string sign;
    bool isSigned = false;
    if (peek().isSymbol("-") || peek().isSymbol("+")) {
        sign = m_lexer.take().text == "-" ? "-" : "";
        isSigned = true;
        if (!isNumber()) unexpected("a number after the sign");
    }
    if (!isNumber()) return QORQueryTree::none;
    const QORQueryToken number = m_lexer.take();
    if (number.kind == QORQueryTokenKind::Number)
        return literal(sign + (number.text.starts_with('.') ? "0" : "") + number.text, offset, Literal::Number);
    const std::int64_t seconds = (sign.empty() ? 1 : -1) * *parseDuration(number.text);
    const Id id = literal(std::to_string(seconds), offset, Literal::Computed);
    if (isSigned) m_durations[id] = seconds;
    return id;
}

/// now(), and durations behind it.
Id Parser::readNow() {
    const std::size_t offset = m_lexer.take().offset;
    needSymbol("(");
    needSymbol(")");
    std::int64_t seconds = 0;
    while (peek().isSymbol("+") || peek().isSymbol("-")) {
        const bool before = m_lexer.take().text == "-";
        if (peek().kind != QORQueryTokenKind::Duration) unexpected("a duration such as 7d, 12h or 30m");
        const std::int64_t duration = *parseDuration(m_lexer.take().text);
        seconds += before ? -duration : duration;
        timeFromNow(seconds, offset);
    }
    return literal(timeFromNow(seconds, offset), offset, Literal::Computed);
}

Id Parser::readCurrentEid() {
    const std::size_t offset = m_lexer.take().offset;
    needSymbol("(");
    needSymbol(")");
    if (m_options.currentEid.empty())
        throw QORQueryError(offset, "who asks stands for no environment, so that current_eid() is none");
    return literal(m_options.currentEid, offset, Literal::Computed);
}

Id Parser::readField() {
    const std::size_t offset = peek().offset;
    if (peek().isWord("select")) throw QORQueryError(offset, "a nested select can stand only in the list of \"in\"");
    std::string first = readName("a column or a value");
    if (takeSymbol(".")) {
        if (first.find('.') != std::string::npos)
            throw QORQueryError(offset, "a view whose name holds a point cannot qualify a column");
        std::string column = readName("a column");
        if (peek().isSymbol("."))
            throw QORQueryError(peek().offset, "a column is named as \"column\" or \"view.column\"");
        needColumn(first, column, offset);
        return placed(m_tree.leaf(tag::field, first + "." + column), {offset});
    }
    needColumn(m_view, first, offset);
    // The first point of a field's text ends the view's name, so a column that holds one is named with its view.
    if (first.find('.') == std::string::npos) return placed(m_tree.leaf(tag::field, std::move(first)), {offset});
    if (m_view.find('.') != std::string::npos)
        throw QORQueryError(offset,
                            "a column whose name holds a point cannot be named, since that of its view holds one too");
    return placed(m_tree.leaf(tag::field, m_view + "." + first), {offset});
}

std::string Parser::readName(const char* what) {
    const QORQueryToken& next = peek();
    if (next.kind == QORQueryTokenKind::Quoted) return m_lexer.take().text;
    if (next.kind != QORQueryTokenKind::Word) unexpected(what);
    if (isReserved(next))
        throw QORQueryError(next.offset, "expected " + std::string(what) + ", found the word " + describeToken(next) +
                                             "; a name spelled like it stands in double quotes");
    return m_lexer.take().text;
}

}  // namespace

void parseCondition(std::string_view text, const QORConditionOptions& options, const QORBinaryIterator& out) {
    Parser parser(text, options);
    const Id condition = parser.readWhole();
    parser.tree().write(condition, out);
    if (options.places != nullptr) parser.tellPlaces(condition);
}

}  // namespace QOR
