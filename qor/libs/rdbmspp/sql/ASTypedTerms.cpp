#include "rdbmspp/sql/ASTypedTerms.h"

#include <algorithm>
#include <charconv>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSqlBuilder.h"
#include "rdbmspp/sql/ASSqlText.h"

namespace QOR {

namespace {

using Node = ASComparison::Node;

/// Types whose values compare with each other.
enum class Family { Number, Text, Guid, Time, Bytes };

// As texts SQLite reads for numbers.
constexpr const char* numberPattern = R"('^\s*[-+]?(\d+\.?\d*|\.\d+)([eE][-+]?\d{1,3})?\s*$')";

// Beyond that many a list is one parameter.
constexpr std::size_t longList = 50;

Family familyOf(ASType type) {
    switch (type) {
        case ASType::Int:
        case ASType::BigInt:
        case ASType::Double:
            return Family::Number;
        case ASType::Guid:
            return Family::Guid;
        case ASType::DateTime:
            return Family::Time;
        case ASType::Blob:
            return Family::Bytes;
        default:
            return Family::Text;
    }
}

Family familyOf(const ASNestedSelect& select) {
    const ASProject::Item& first = select.select().firstSelected();
    if (!first.group) return first.attribute->isColumn() ? familyOf(first.attribute->type()) : Family::Text;
    const auto function = first.group->function();
    const bool ofTheColumn = function == ASGroupAttribute::Function::Min || function == ASGroupAttribute::Function::Max;
    return ofTheColumn ? familyOf(first.group->aggregated()->type()) : Family::Number;
}

/// Of floating point, which the engine would make of whatever stands beside it.
bool isReal(const ASAttribute& attribute) {
    return attribute.isColumn() && attribute.type() == ASType::Double && attribute.storage() != ASStorage::Decimal;
}

bool isReal(const ASNestedSelect& select) {
    const ASProject::Item& first = select.select().firstSelected();
    if (!first.group) return isReal(*first.attribute);
    const auto function = first.group->function();
    if (function == ASGroupAttribute::Function::Count) return false;
    if (function == ASGroupAttribute::Function::Average || isReal(*first.group->aggregated())) return true;
    return function == ASGroupAttribute::Function::Sum && familyOf(first.group->aggregated()->type()) == Family::Text;
}

bool isOrder(Node::Op op) {
    return op != Node::Op::Eq && op != Node::Op::Ne;
}

// The same comparison with its sides exchanged. What is true when it is not (opposite(), where conditions are written)
// is a switch of the same shape about something else.
Node::Op mirrored(Node::Op op) {
    switch (op) {
        case Node::Op::Gt:
            return Node::Op::Lt;
        case Node::Op::Ge:
            return Node::Op::Le;
        case Node::Op::Lt:
            return Node::Op::Gt;
        case Node::Op::Le:
            return Node::Op::Ge;
        default:
            return op;
    }
}

bool holds(Node::Op op, bool leftIsSmaller) {
    if (op == Node::Op::Eq) return false;
    if (op == Node::Op::Ne) return true;
    return (op == Node::Op::Lt || op == Node::Op::Le) == leftIsSmaller;
}

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); };
    while (!text.empty() && blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && blank(text.back()))
        text.remove_suffix(1);
    return text;
}

/// A text that looks like a number: digits with a point, a sign and an exponent at the most.
bool looksLikeNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789+-.eE") == std::string_view::npos &&
           text.find_first_of("0123456789") != std::string_view::npos;
}

/// A text that a column for numbers takes for one.
bool isNumber(std::string_view text) {
    const std::string_view number = trimmed(text);
    if (!looksLikeNumber(number)) return false;
    double value = 0;
    const char* const begin = number.data() + (number.front() == '+' ? 1 : 0);
    const auto result = std::from_chars(begin, number.data() + number.size(), value);
    return result.ptr == number.data() + number.size();
}

/// The number that a text begins with, as SQLite adds texts.
std::string leadingNumber(const std::string& text) {
    return "CASE WHEN " + text + " IS NOT NULL THEN COALESCE(CAST(substring(" + text +
           R"( FROM '^\s*([-+]?(?:\d+\.?\d*|\.\d+)(?:[eE][-+]?\d{1,2})?)') AS float8), 0) END)";
}

bool isStoredTime(std::string_view text) {
    constexpr std::size_t length = 19;
    return text.size() == length && text[10] == ' ' && text[16] == ':' && text >= "0001" && parseTime(text);
}

bool isStoredGuid(std::string_view text) {
    const auto guid = QORGUIDBase::parse(text);
    return guid && guid->toString() == text;
}

}  // namespace

/// One side of a comparison: a value, or what stands in a row.
struct ASTypedTerms::Side {
    Family family = Family::Text;
    const ASAttribute* attribute = nullptr;  ///< or
    const ASValue* value = nullptr;          ///< or
    std::string_view sql{};                  ///< text of an expression
    ASStorage storage = ASStorage::Usual;
    bool whole = false;  ///< a column of whole numbers
    bool real = false;   ///< of floating point
};

ASTypedTerms::Side ASTypedTerms::sideOf(const ASAttribute& attribute) {
    Side made;
    made.attribute = &attribute;
    if (attribute.isColumn()) {
        made.family = familyOf(attribute.type());
        made.storage = attribute.storage();
        made.real = isReal(attribute);
        made.whole = isWhole(attribute.type());
    } else if (attribute.nestedSelect()) {
        made.family = familyOf(*attribute.nestedSelect());
        made.real = isReal(*attribute.nestedSelect());
    } else if (const ASValue* const value = literal(attribute.name())) {
        made.attribute = nullptr;
        made.value = value;
    }
    return made;
}

/// The value of a text that is one literal, null for anything else.
const ASValue* ASTypedTerms::literal(std::string_view sql) {
    if (const auto text = literalText(sql)) return &m_builder.keep(ASValue::ofText(*text));
    if (const auto number = parseInt64(sql)) return &m_builder.keep(ASValue::ofInteger(*number));
    return nullptr;
}

void ASTypedTerms::operand(const ASAttribute& attribute) {
    if (attribute.isSelect()) {
        m_builder.append("(");
        attribute.nestedSelect() ? m_builder.nested(*attribute.nestedSelect()) : m_builder.appendRaw(attribute.name());
        return m_builder.append(")");
    }
    if (attribute.operand() != nullptr) return call(attribute);
    if (!attribute.isColumn()) return expression(attribute.name());
    const ASStorage storage = attribute.storage();
    const bool text = attribute.type() == ASType::Char || storage == ASStorage::Other;
    const char* const cast = text ? " AS text)" : storage == ASStorage::Boolean ? " AS int)" : nullptr;
    if (cast != nullptr) m_builder.append("CAST(");
    m_builder.column(attribute);
    if (cast != nullptr) m_builder.append(cast);
}

// The driver changes times that it cannot hold into others, and a number's receiver is a double, which holds fifteen
// digits of any number: one with more is marked and stays the text that it is.
void ASTypedTerms::projected(const ASAttribute& column) {
    const ASStorage storage = column.storage();
    if (column.type() == ASType::DateTime) {
        m_builder.append("CAST(");
        m_builder.column(column);
        return m_builder.append(storage == ASStorage::ZonedTime ? " AT TIME ZONE 'UTC' AS text)" : " AS text)");
    }
    if (column.type() == ASType::Double && storage == ASStorage::Decimal) {
        return m_builder.append(m_builder.dialect().exactDecimal(column.Query()));
    }
    operand(column);
}

void ASTypedTerms::term(const Node& node) {
    switch (node.kind) {
        case Node::Kind::Raw:
            m_builder.append("(");
            m_builder.appendRaw(node.value.text);
            return m_builder.append(")");
        case Node::Kind::Attributes:
            return compare(sideOf(*node.first), node.op, sideOf(*node.second));
        case Node::Kind::Value: {
            Side value;
            value.value = &node.value;
            return compare(sideOf(*node.first), node.op, value);
        }
        case Node::Kind::Values:
            return compareValues(node.value, node.op, node.other);
        case Node::Kind::LikeText:
        case Node::Kind::LikeAttribute:
            return like(node);
        case Node::Kind::Between:
            return between(node);
        case Node::Kind::In:
            return in(node);
        case Node::Kind::IsNull:
            operand(*node.first);
            return m_builder.append(" IS NULL");
        case Node::Kind::And:
        case Node::Kind::Or:
        case Node::Kind::Not:
        case Node::Kind::Guard:
            break;
    }
}

void ASTypedTerms::compare(const Side& left, Node::Op op, const Side& right) {
    if (left.value && right.value) return compareValues(*left.value, op, *right.value);
    if (left.value) return compareWithValue(right, mirrored(op), *left.value);
    if (right.value) return compareWithValue(left, op, *right.value);
    if (left.family != right.family) return compareMixed(left, op, right);
    if (left.real != right.real) {
        sideAsNumeric(left);
        m_builder.append(operatorText(op));
        return sideAsNumeric(right);
    }
    side(left);
    // Two columns may have orders of their own, between which the engine does not choose.
    if (left.family == Family::Text) m_builder.append(m_builder.dialect().byteOrder);
    m_builder.append(operatorText(op));
    side(right);
}

void ASTypedTerms::compareWithValue(const Side& left, Node::Op op, const ASValue& value) {
    if (value.kind == ASValue::Kind::Null) return m_builder.append("CAST(NULL AS boolean)");
    // Bytes are greater than all else.
    const bool bytes = value.kind == ASValue::Kind::Binary;
    if (bytes != (left.family == Family::Bytes)) return known(left, holds(op, bytes));
    switch (left.family) {
        case Family::Bytes:
            return binary(left, op, value, "bytea");
        case Family::Number:
            return compareNumber(left, op, value);
        case Family::Guid:
            return compareGuid(left, op, value);
        case Family::Time:
            return compareTime(left, op, value);
        case Family::Text:
            break;
    }
    binary(left, op, value, "text");
}

// A text is greater than every number.
void ASTypedTerms::compareNumber(const Side& left, Node::Op op, const ASValue& value) {
    const bool exact = left.whole || left.storage == ASStorage::Decimal;
    if (value.kind == ASValue::Kind::Integer) return compareWhole(left, op, value.integer);
    const bool real = value.kind == ASValue::Kind::Real;
    const bool spelled = !real || (exact && !value.text.empty());
    const std::string text = spelled ? std::string(trimmed(value.text)) : doubleToStr(value.real);
    if (value.kind == ASValue::Kind::Text) {
        if (!isNumber(text)) return known(left, holds(op, true));
        if (const auto whole = parseInt64(text)) {
            return compareWhole(left, op, *whole);
        }
        // What no double holds is beyond every number.
        if (!parseDouble(text)) return known(left, holds(op, !text.starts_with('-')));
    }
    binary(left, op, m_builder.keep(ASValue::ofText(text)), exact ? "numeric" : "float8");
}

// The engine would make a double of a whole number beside a double. One that no double is lies between two of them.
void ASTypedTerms::compareWhole(const Side& left, Node::Op op, std::int64_t value) {
    constexpr double tooMuch = 9223372036854775808.0;
    const auto nearest = static_cast<double>(value);
    const bool isDouble = nearest < tooMuch && static_cast<std::int64_t>(nearest) == value;
    if (left.whole || left.storage == ASStorage::Decimal || isDouble) {
        return binary(left, op, m_builder.keep(ASValue::ofInteger(value)), "bigint");
    }
    if (!isOrder(op)) return known(left, op == Node::Op::Ne);
    const bool above = nearest >= tooMuch || static_cast<std::int64_t>(nearest) > value;
    const bool less = op == Node::Op::Lt || op == Node::Op::Le;
    op = less ? (above ? Node::Op::Lt : Node::Op::Le) : (above ? Node::Op::Ge : Node::Op::Gt);
    binary(left, op, m_builder.keep(ASValue::ofText(doubleToStr(nearest))), "float8");
}

// Times and GUIDs stand in columns that read for a number what looks like one, and a text is greater than that.
void ASTypedTerms::compareGuid(const Side& left, Node::Op op, const ASValue& value) {
    if (value.kind != ASValue::Kind::Text || isNumber(value.text)) return known(left, holds(op, false));
    if (isStoredGuid(value.text)) return binary(left, op, value, "uuid");
    if (!isOrder(op)) return known(left, op == Node::Op::Ne);
    sideAsText(left);
    m_builder.append(operatorText(op));
    m_builder.typedValue(value, "text");
}

void ASTypedTerms::compareTime(const Side& left, Node::Op op, const ASValue& value) {
    if (value.kind != ASValue::Kind::Text || isNumber(value.text)) return known(left, holds(op, false));
    if (isStoredTime(value.text)) {
        return binary(left, op, value, left.storage == ASStorage::ZonedTime ? "timestamptz" : "timestamp");
    }
    sideAsText(left);
    m_builder.append(operatorText(op));
    m_builder.typedValue(value, "text");
}

void ASTypedTerms::compareValues(const ASValue& left, Node::Op op, const ASValue& right) {
    const bool numbers = left.kind != ASValue::Kind::Text && right.kind != ASValue::Kind::Text;
    const char* const type = numbers ? "numeric" : "text";
    m_builder.typedValue(left, type);
    if (!numbers) m_builder.append(m_builder.dialect().byteOrder);
    m_builder.append(operatorText(op));
    m_builder.typedValue(right, type);
}

void ASTypedTerms::binary(const Side& left, Node::Op op, const ASValue& value, const char* type) {
    side(left);
    // An index of another order than that of bytes still serves an equality.
    if (left.family == Family::Text && isOrder(op)) m_builder.append(m_builder.dialect().byteOrder);
    m_builder.append(operatorText(op));
    m_builder.typedValue(value, type);
}

// A text beside a number is read as one where it looks like it, and is greater elsewhere; all else compares as texts.
void ASTypedTerms::compareMixed(const Side& left, Node::Op op, const Side& right) {
    if (left.family == Family::Bytes || right.family == Family::Bytes) {
        m_builder.append("CASE WHEN ");
        side(left);
        m_builder.append(" IS NOT NULL AND ");
        side(right);
        return m_builder.append(holds(op, right.family == Family::Bytes) ? " IS NOT NULL THEN TRUE END"
                                                                         : " IS NOT NULL THEN FALSE END");
    }
    const bool numberLeft = left.family == Family::Number;
    if (left.family == Family::Text || (!numberLeft && right.family == Family::Number)) {
        return compareMixed(right, mirrored(op), left);
    }
    // Times and GUIDs stand in columns that read a text that looks like a number as one, which is less than they are.
    const bool reads = !numberLeft && right.family == Family::Text && left.attribute->isColumn();
    if (reads) {
        m_builder.append("CASE WHEN ");
        side(left);
        m_builder.append(" IS NOT NULL AND ");
        sideAsText(right);
        m_builder.append(" ~ ");
        m_builder.append(numberPattern);
        m_builder.append(holds(op, false) ? " THEN TRUE ELSE " : " THEN FALSE ELSE ");
    }
    if (!numberLeft) {
        sideAsText(left);
        m_builder.append(operatorText(op));
        sideAsText(right);
        return m_builder.append(reads ? " END" : "");
    }
    m_builder.append("CASE WHEN ");
    side(left);
    m_builder.append(" IS NULL OR ");
    side(right);
    m_builder.append(" IS NULL THEN NULL WHEN ");
    sideAsText(right);
    m_builder.append(" ~ ");
    m_builder.append(numberPattern);
    m_builder.append(" THEN ");
    sideAsNumeric(left);
    m_builder.append(operatorText(op));
    m_builder.append("CAST(");
    sideAsText(right);
    m_builder.append(" AS numeric) ELSE ");
    m_builder.append(holds(op, true) ? "TRUE END" : "FALSE END");
}

/// An answer that is the same for every row that has a value.
void ASTypedTerms::known(const Side& side, bool answer) {
    m_builder.append("CASE WHEN ");
    this->side(side);
    m_builder.append(answer ? " IS NOT NULL THEN TRUE END" : " IS NOT NULL THEN FALSE END");
}

void ASTypedTerms::side(const Side& side) {
    if (side.value) return m_builder.typedValue(*side.value, "text");
    if (side.attribute) return operand(*side.attribute);
    expression(side.sql);
}

// A number beside numbers of other kinds.
void ASTypedTerms::sideAsNumeric(const Side& side) {
    if (side.real) {
        m_builder.append(m_builder.dialect().exactNumeric(written(*side.attribute)));
    } else {
        m_builder.append("CAST(");
        this->side(side);
        m_builder.append(" AS numeric)");
    }
}

void ASTypedTerms::sideAsText(const Side& side) {
    if (side.family == Family::Text) {
        this->side(side);
    } else if (side.attribute->isColumn() && side.family == Family::Time) {
        projected(*side.attribute);
    } else if (side.attribute->isColumn() && side.real) {
        m_builder.append("(" + m_builder.dialect().realText(written(*side.attribute)) + ")");
    } else if (side.storage == ASStorage::Decimal) {
        m_builder.append("CAST(trim_scale(");
        this->side(side);
        m_builder.append(") AS text)");
    } else {
        m_builder.append("CAST(");
        this->side(side);
        m_builder.append(" AS text)");
    }
    m_builder.append(m_builder.dialect().byteOrder);
}

void ASTypedTerms::between(const Node& node) {
    const Side tested = sideOf(*node.first);
    m_builder.append("(");
    compare(tested, Node::Op::Ge, sideOf(*node.second));
    m_builder.append(" AND ");
    compare(tested, Node::Op::Le, sideOf(*node.third));
    m_builder.append(")");
}

void ASTypedTerms::in(const Node& node) {
    const Side left = sideOf(*node.first);
    if (node.second) return inSelect(left, *node.second);
    if (!node.items.empty()) return inItems(left, node.items);
    if (node.value.text.starts_with("SELECT ")) {
        side(left);
        m_builder.append(" IN (");
        m_builder.appendRaw(node.value.text);
        return m_builder.append(")");
    }
    const std::vector<std::string_view> items = listItems(node.value.text);
    if (inArray(left, items)) return;
    m_builder.append("(");
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0) m_builder.append(" OR ");
        Side item;
        item.value = literal(items[i]);
        item.sql = items[i];
        compare(left, Node::Op::Eq, item);
    }
    m_builder.append(")");
}

// What a text is looked for in is read as texts, and what is no column is not read as anything else: there '10' is
// no 10.
void ASTypedTerms::inItems(const Side& left, const std::vector<ASAttribute>& items) {
    const char* separator = "(";
    for (const ASAttribute& attribute : items) {
        m_builder.append(std::exchange(separator, " OR "));
        const Side item = sideOf(attribute);
        if (left.family != Family::Text || item.value != nullptr || item.family != Family::Number) {
            compare(left, Node::Op::Eq, item);
        } else if (left.attribute != nullptr && left.attribute->isColumn()) {
            sideAsText(left);
            m_builder.append(operatorText(Node::Op::Eq));
            sideAsText(item);
        } else {
            m_builder.append("CASE WHEN ");
            side(left);
            m_builder.append(" IS NOT NULL AND ");
            side(item);
            m_builder.append(" IS NOT NULL THEN FALSE END");
        }
    }
    m_builder.append(")");
}

// One parameter for all literals: a statement of many parameters is slow to read, and they are bounded.
bool ASTypedTerms::inArray(const Side& left, const std::vector<std::string_view>& items) {
    if (items.size() < longList || (left.family != Family::Guid && left.family != Family::Text)) return false;
    std::string array = "{";
    for (const std::string_view item : items) {
        const auto text = literalText(item);
        if (!text) return false;
        if (left.family == Family::Guid && !isStoredGuid(*text)) continue;
        array += array.size() > 1 ? ",\"" : "\"";
        for (const char c : *text) {
            if (c == '"' || c == '\\') array += '\\';
            array += c;
        }
        array += '"';
    }
    array += '}';
    side(left);
    m_builder.append(" = ANY(");
    m_builder.typedValue(m_builder.keep(ASValue::ofText(array)), left.family == Family::Guid ? "uuid[]" : "text[]");
    m_builder.append(")");
    return true;
}

void ASTypedTerms::inSelect(const Side& left, const ASAttribute& select) {
    const ASNestedSelect& nested = *select.nestedSelect();
    const Family family = left.value ? Family::Text : left.family;
    if (family == Family::Number && familyOf(nested) == Family::Number && left.real != isReal(nested)) {
        sideAsNumeric(left);
        m_builder.append(" IN (SELECT " + (isReal(nested) ? m_builder.dialect().exactNumeric("item") : "item") +
                         " FROM (");
        m_builder.nested(nested);
        return m_builder.append(") AS items(item))");
    }
    if ((family == Family::Number) != (familyOf(nested) == Family::Number)) return inSelectOfOthers(left, nested);
    if (family == familyOf(nested)) {
        side(left);
        if (family == Family::Text) m_builder.append(m_builder.dialect().byteOrder);
        m_builder.append(" IN (");
        m_builder.nested(nested);
        return m_builder.append(")");
    }
    sideAsText(left);
    m_builder.append(" IN (SELECT CAST(item AS text) FROM (");
    m_builder.nested(nested);
    m_builder.append(") AS items(item))");
}

/// The number that a text looks like, one that equals no other where it looks like none.
template <class Write>
void ASTypedTerms::numberIn(const Write& text) {
    m_builder.append("CASE WHEN ");
    text();
    m_builder.append(" ~ ");
    m_builder.append(numberPattern);
    m_builder.append(" THEN CAST(");
    text();
    m_builder.append(" AS numeric) WHEN ");
    text();
    m_builder.append(" IS NOT NULL THEN CAST('NaN' AS numeric) END");
}

// Numbers among others. What looks like a number is read as one beside a column of numbers; a text that no column holds
// is nothing that was counted or added up.
void ASTypedTerms::inSelectOfOthers(const Side& left, const ASNestedSelect& nested) {
    const bool ofColumn = !nested.select().firstSelected().group;
    const bool isColumn = left.attribute != nullptr && left.attribute->isColumn();
    if (left.family == Family::Number) {
        sideAsNumeric(left);
        m_builder.append(" IN (SELECT ");
        numberIn([this] { m_builder.append("CAST(item AS text)"); });
    } else if (left.family == Family::Text && ofColumn) {
        numberIn([&] { sideAsText(left); });
        m_builder.append(" IN (SELECT ");
        m_builder.append(isReal(nested) ? m_builder.dialect().exactNumeric("item") : "CAST(item AS numeric)");
    } else {
        sideAsText(left);
        m_builder.append(isColumn ? " IN (SELECT CAST(item AS text)"
                                  : " || '.' IN (SELECT CASE WHEN item IS NOT NULL THEN '' END");
    }
    m_builder.append(" FROM (");
    m_builder.nested(nested);
    m_builder.append(") AS items(item))");
}

void ASTypedTerms::like(const Node& node) {
    const ASAttribute* const column = node.kind == Node::Kind::LikeAttribute ? &*node.second : nullptr;
    m_builder.checkPattern(column, node.value, node.escape);
    const auto literal = column && !column->isColumn() ? literalText(column->name()) : std::nullopt;
    if (column && !literal) return likeColumn(node);
    const Side left = sideOf(*node.first);
    const auto pattern = backslashPattern(literal ? *literal : node.value.text, node.escape);
    if (!pattern) return known(left, false);
    sideAsText(left);
    m_builder.append(m_builder.dialect().like);
    m_builder.typedValue(m_builder.keep(ASValue::ofText(*pattern)), "text");
}

// A row's pattern that is longer than is taken is not known to match.
void ASTypedTerms::pattern(const Side& side) {
    if (!side.attribute->isColumn() && literalLength(side.attribute->name())) return sideAsText(side);
    m_builder.append("CASE WHEN octet_length(");
    sideAsText(side);
    m_builder.append(") <= " + std::to_string(m_builder.dialect().maxLikePattern) + " THEN ");
    sideAsText(side);
    m_builder.append(" END");
}

// A pattern that ends in the middle of an escape matches nothing; the engine would fail on the row.
void ASTypedTerms::likeColumn(const Node& node) {
    const Side column = sideOf(*node.second);
    if (node.escape == 0) {
        sideAsText(sideOf(*node.first));
        m_builder.append(m_builder.dialect().like);
        pattern(column);
        return m_builder.append(m_builder.dialect().noEscape);
    }
    const ASValue& escape = m_builder.keep(ASValue::ofText(std::string_view(&node.escape, 1)));
    m_builder.append("CASE WHEN (length(");
    sideAsText(column);
    m_builder.append(") - length(rtrim(");
    sideAsText(column);
    m_builder.append(", ");
    m_builder.typedValue(escape, "text");
    m_builder.append("))) % 2 = 0 THEN ");
    sideAsText(sideOf(*node.first));
    m_builder.append(m_builder.dialect().like);
    pattern(column);
    m_builder.append(" ESCAPE ");
    m_builder.typedValue(escape, "text");
    m_builder.append(" WHEN ");
    pattern(column);
    m_builder.append(" IS NOT NULL THEN FALSE END");
}

std::string ASTypedTerms::written(const ASAttribute& attribute) {
    ASSqlBuilder builder(m_builder.dialect(), ASPurpose::Reading);
    ASTypedTerms(builder).operand(attribute);
    if (builder.computes()) m_builder.appendRaw({});
    return std::move(builder).takeText();
}

// Sums of whole numbers and of decimals are exact, and their averages are made of those. Smallest and greatest texts
// and GUIDs have no place in a number, so that they are selected as null, but a select that is nested compares with
// them.
void ASTypedTerms::aggregate(const ASGroupAttribute& attribute, bool nested, bool projected) {
    using Function = ASGroupAttribute::Function;
    const Function function = attribute.function();
    const ASAttribute& over = *attribute.aggregated();
    const Side what = sideOf(over);
    std::string operand = written(over);
    if (function == Function::Count) return m_builder.append("count(" + operand + ")");
    const bool adds = function == Function::Sum || function == Function::Average;
    const char* const edge = function == Function::Min ? "min(" : "max(";
    if (what.family == Family::Guid || what.family == Family::Text) {
        if (adds && what.family == Family::Text) {
            return m_builder.append((function == Function::Sum ? "sum(" : "avg(") + leadingNumber(operand) + ")");
        }
        if (adds || !nested) return m_builder.append("max(CAST(NULL AS float8))");
        if (what.family == Family::Text) return m_builder.append(edge + operand + m_builder.dialect().byteOrder + ")");
        return m_builder.append("CAST(" + std::string(edge) + "CAST(" + operand + " AS text)" +
                                m_builder.dialect().byteOrder + ") AS uuid)");
    }
    if (what.family == Family::Time && (adds || !nested)) operand = m_builder.dialect().epochSeconds(operand);
    if (function == Function::Average) {
        return m_builder.append("CAST(sum(" + operand + ") AS float8) / nullif(count(" + operand + "), 0)");
    }
    const std::string sql = (function == Function::Sum ? "sum(" : edge) + operand + ")";
    const bool decimal = what.storage == ASStorage::Decimal && projected;
    m_builder.append(decimal ? m_builder.dialect().exactDecimal(sql) : sql);
}

// Calls upon calls, of a text or of what is read as one.
void ASTypedTerms::call(const ASAttribute& attribute) {
    constexpr std::size_t nameLength = 6;  // "lower("
    std::size_t calls = 0;
    const ASAttribute* inner = &attribute;
    for (; inner->operand() != nullptr; inner = inner->operand(), ++calls)
        m_builder.append(std::string_view(inner->name()).substr(0, nameLength));
    sideAsText(sideOf(*inner));
    for (; calls > 0; --calls)
        m_builder.append(")");
}

// Calls upon calls of what folds letters, around a literal or a column.
void ASTypedTerms::expression(std::string_view sql) {
    std::size_t calls = 0;
    for (bool call = true; call;) {
        call = false;
        for (const std::string_view function : {"lower(", "upper("}) {
            if (!sql.starts_with(function) || !sql.ends_with(')')) continue;
            m_builder.append(function);
            sql = sql.substr(function.size(), sql.size() - function.size() - 1);
            ++calls;
            call = true;
        }
    }
    if (const auto text = literalText(sql)) {
        m_builder.typedValue(m_builder.keep(ASValue::ofText(*text)), "text");
    } else if (sql.starts_with('"')) {
        m_builder.append("CAST(");
        m_builder.append(sql);
        m_builder.append(" AS text)");
    } else {
        m_builder.appendRaw(sql);
    }
    for (; calls > 0; --calls) {
        m_builder.append(m_builder.dialect().byteOrder);
        m_builder.append(")");
    }
}

}  // namespace QOR
