#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORMessageStore.h"
#include "QORMessage/QORTags.h"
#include "QORQuery/QORCondition.h"
#include "QORQuery/QORQueryLexer.h"

namespace QOR {
namespace {

using Node = QORMessageNode;

/// How tightly a condition binds; what binds less than its place asks for stands in parentheses.
enum class Strength { Or, And, Not, Comparison };

[[noreturn]] void refuse(const Node& node, const std::string& reason) {
    throw QORException(errBadRequest,
                       "the element " + quoteText(QORTagDictionary::instance().name(node.tag)) + " " + reason);
}

std::string_view textOf(const Node& node) {
    if (node.kind != QORValueKind::Text) refuse(node, "holds no text");
    return {node.data, node.size};
}

std::string_view nameOf(const Node& node) {
    const std::string_view name = textOf(node);
    if (name.empty()) refuse(node, "holds no name");
    return name;
}

/// Prints by recursion, which the depth of messages bounds.
class Printer {
public:
    explicit Printer(QORConditionLiterals literals) : m_masks(literals == QORConditionLiterals::Masked) {}
    std::string take() { return std::move(m_out); }

    void condition(const Node& node, Strength place) {
        switch (node.tag) {
            case tag::logicalOr:
                return chain(node, " or ", Strength::Or, place);
            case tag::logicalAnd:
                return chain(node, " and ", Strength::And, place);
            case tag::logicalNot:
                return negation(node, place);
            default:
                return comparison(node, "");
        }
    }

private:
    /// \param no "not " where the comparison has a negated form and stands below a not
    void comparison(const Node& node, std::string_view no) {
        const Node& left = first(node);
        switch (node.tag) {
            case tag::like:
                return like(left, no);
            case tag::between:
                return between(left, no);
            case tag::in:
                return in(left, no);
            case tag::isNull:
                operand(left);
                m_out.append(" is ").append(no) += "null";
                return last(left);
            default:
                break;
        }
        static constexpr std::pair<QORTag, std::string_view> signs[] = {{tag::eq, " = "}, {tag::ne, " <> "},
                                                                        {tag::lt, " < "}, {tag::le, " <= "},
                                                                        {tag::gt, " > "}, {tag::ge, " >= "}};
        const auto* const sign =
            std::find_if(std::begin(signs), std::end(signs), [&](const auto& one) { return one.first == node.tag; });
        if (sign == std::end(signs)) refuse(node, "is no condition");
        operand(left);
        m_out += sign->second;
        const Node& right = following(left);
        operand(right);
        last(right);
    }

    void chain(const Node& node, std::string_view word, Strength strength, Strength place) {
        if (first(node).next == nullptr) return condition(first(node), place);
        const bool parentheses = strength < place;
        if (parentheses) m_out += '(';
        for (const Node* child = node.firstChild; child != nullptr; child = child->next) {
            if (child != node.firstChild) m_out += word;
            condition(*child, strength);
        }
        if (parentheses) m_out += ')';
    }

    void negation(const Node& node, Strength place) {
        const Node& child = first(node);
        last(child);
        if (child.tag == tag::like || child.tag == tag::between || child.tag == tag::in || child.tag == tag::isNull)
            return comparison(child, "not ");
        const bool parentheses = Strength::Not < place;
        if (parentheses) m_out += '(';
        m_out += "not ";
        condition(child, Strength::Not);
        if (parentheses) m_out += ')';
    }

    void like(const Node& left, std::string_view no) {
        operand(left);
        m_out.append(" ").append(no) += "like ";
        const Node& pattern = following(left);
        operand(pattern);
        if (pattern.next == nullptr) return;
        const Node& escape = *pattern.next;
        last(escape);
        if (escape.tag != tag::escape) refuse(escape, "is no escape");
        const std::string_view character = textOf(escape);
        if (character.size() != 1 || static_cast<unsigned char>(character[0]) >= 0x80)
            refuse(escape, "is not one character of ASCII");
        m_out.append(" escape ") += m_masks ? "?" : spellText(character);
    }

    void between(const Node& left, std::string_view no) {
        operand(left);
        m_out.append(" ").append(no) += "between ";
        const Node& low = following(left);
        operand(low);
        m_out += " and ";
        const Node& high = following(low);
        operand(high);
        last(high);
    }

    void in(const Node& left, std::string_view no) {
        operand(left);
        m_out.append(" ").append(no) += "in (";
        const Node* item = &following(left);
        for (; item != nullptr; item = item->next) {
            if (m_masks && item->tag == tag::value && m_out.back() == '?') continue;
            if (m_out.back() != '(') m_out += ", ";
            if (item->tag == tag::select)
                select(*item);
            else
                operand(*item);
        }
        m_out += ')';
    }

    // ---- operands -----------------------------------------------------------------------------------------------
    void operand(const Node& node) {
        switch (node.tag) {
            case tag::value:
                return value(textOf(node));
            case tag::field:
                return field(node);
            case tag::function:
                return function(node);
            default:
                refuse(node, "is no operand");
        }
    }

    void value(std::string_view text) {
        if (m_masks) {
            m_out += '?';
            return;
        }
        m_out += isSpelledNumber(text) ? std::string(text) : spellText(text);
    }

    /// The first point of a field's text ends the view's name.
    void field(const Node& node) {
        const std::string_view text = nameOf(node);
        const std::size_t point = text.find('.');
        if (point != std::string_view::npos) {
            if (point == 0 || point + 1 == text.size()) refuse(node, "lacks the name of a view or a column");
            m_out.append(spellName(text.substr(0, point))) += '.';
            m_out += spellName(text.substr(point + 1));
            return;
        }
        m_out += spellName(text);
    }

    void function(const Node& node) {
        const Node& name = first(node);
        if (name.tag != tag::name || (textOf(name) != "upper" && textOf(name) != "lower"))
            refuse(node, "is neither upper nor lower");
        m_out.append(textOf(name)) += '(';
        const Node& argument = following(name);
        operand(argument);
        last(argument);
        m_out += ')';
    }

    // ---- nested selects -----------------------------------------------------------------------------------------
    void select(const Node& node) {
        static constexpr QORTag known[] = {tag::view, tag::field, tag::distinct, tag::where, tag::sort, tag::limit};
        for (const Node* one = node.firstChild; one != nullptr; one = one->next) {
            if (std::find(std::begin(known), std::end(known), one->tag) == std::end(known))
                refuse(*one, "is no part of a nested select");
        }
        const Node& output = child(node, tag::field);
        m_out += child(node, tag::distinct, true) != nullptr ? "select distinct " : "select ";
        column(output);
        m_out.append(" from ") += spellName(nameOf(child(node, tag::view)));
        if (const Node* where = child(node, tag::where, true)) {
            m_out += " where ";
            condition(first(*where), Strength::Or);
            last(first(*where));
        }
        order(node);
        if (const Node* limit = child(node, tag::limit, true)) page(*limit);
    }

    void column(const Node& node) {
        if (node.firstChild == nullptr) {
            m_out += spellName(nameOf(node));
            return;
        }
        const Node& aggregate = first(node);
        last(aggregate);
        const std::string_view name = aggregate.tag == tag::function ? nameOf(first(aggregate)) : std::string_view();
        // Another spelling would be read as another function, or as none.
        if (name.empty() || spellName(name) != name || isSameAggregate(name, "avg"))
            refuse(node, "has a function that cannot be spelled");
        m_out.append(name) += '(';
        const Node& argument = following(first(aggregate));
        m_out.append(spellName(nameOf(argument))) += ')';
        last(argument);
    }

    void order(const Node& select) {
        std::string_view before = " order by ";
        for (const Node* sort = select.firstChild; sort != nullptr; sort = sort->next) {
            if (sort->tag != tag::sort) continue;
            m_out.append(std::exchange(before, ", ")) += spellName(nameOf(child(*sort, tag::field)));
            if (child(*sort, tag::descending, true) != nullptr) m_out += " desc";
        }
    }

    void page(const Node& limit) {
        m_out.append(" limit ") += number(child(limit, tag::size));
        if (const Node* offset = child(limit, tag::offset, true)) m_out.append(" offset ") += number(*offset);
    }

    static std::string number(const Node& node) {
        const auto rows = parseInt32(textOf(node));
        if (!rows || *rows < 0 || std::to_string(*rows) != textOf(node)) refuse(node, "is no number of rows");
        return std::to_string(*rows);
    }

    // ---- the tree -----------------------------------------------------------------------------------------------
    static bool isSameAggregate(std::string_view name, std::string_view other) {
        return std::equal(name.begin(), name.end(), other.begin(), other.end(),
                          [](char a, char b) { return (a | 0x20) == b; });
    }
    static const Node& first(const Node& node) {
        if (node.firstChild == nullptr) refuse(node, "is empty");
        return *node.firstChild;
    }
    static const Node& following(const Node& node) {
        if (node.next == nullptr) refuse(*node.parent, "lacks an operand");
        return *node.next;
    }
    static void last(const Node& node) {
        if (node.next != nullptr) refuse(*node.next, "is one too many");
    }
    /// The only child with this tag. \returns null for none, where there need not be one
    static const Node* child(const Node& node, QORTag wanted, bool) {
        const Node* found = nullptr;
        for (const Node* one = node.firstChild; one != nullptr; one = one->next) {
            if (one->tag != wanted) continue;
            if (found != nullptr) refuse(*one, "is one too many");
            found = one;
        }
        return found;
    }
    static const Node& child(const Node& node, QORTag wanted) {
        const Node* const found = child(node, wanted, true);
        if (found == nullptr) refuse(node, "lacks " + quoteText(QORTagDictionary::instance().name(wanted)));
        return *found;
    }

    const bool m_masks;
    std::string m_out;
};

}  // namespace

std::string printCondition(const QORMessageNode& condition, QORConditionLiterals literals) {
    Printer printer(literals);
    printer.condition(condition, Strength::Or);
    return printer.take();
}

}  // namespace QOR
