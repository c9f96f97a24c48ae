#include "QORQuery/QORConditionLint.h"

#include <algorithm>
#include <array>
#include <map>
#include <unordered_map>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORMessage.h"
#include "QORMessage/QORTags.h"
#include "QORQuery/QORColumnKind.h"
#include "QORQuery/QOROperandRange.h"

namespace QOR {
namespace {

using Node = QORMessageNode;
using Literal = QORConditionPlace::Literal;

std::string plainTextOf(const Node& node) {
    return node.data == nullptr ? std::string() : std::string(node.data, node.size);
}

/// What a comparison that is negated says.
QORTag negationOf(QORTag operation) {
    constexpr std::array<std::pair<QORTag, QORTag>, 6> pairs{{{tag::eq, tag::ne},
                                                              {tag::ne, tag::eq},
                                                              {tag::lt, tag::ge},
                                                              {tag::ge, tag::lt},
                                                              {tag::gt, tag::le},
                                                              {tag::le, tag::gt}}};
    const auto* const found =
        std::find_if(pairs.begin(), pairs.end(), [&](const auto& pair) { return pair.first == operation; });
    return found->second;
}

/// What it says of its operands in the other order.
QORTag exchanged(QORTag operation) {
    switch (operation) {
        case tag::lt:
            return tag::gt;
        case tag::le:
            return tag::ge;
        case tag::gt:
            return tag::lt;
        case tag::ge:
            return tag::le;
        default:
            return operation;
    }
}

bool isBinary(QORTag tag) {
    return tag == tag::eq || tag == tag::ne || tag == tag::lt || tag == tag::le || tag == tag::gt || tag == tag::ge;
}

/// Goes through a tree of which nothing is known but that it is a message: whatever has no form of a condition is
/// passed over, since whoever runs it says what is wrong with it. Depth of recursion is that of the message.
class Linter {
public:
    Linter(const QORConditionFacts& facts, std::span<const QORConditionPlace> places)
        : m_facts(facts), m_places(places), m_view(facts.view) {}

    std::vector<QORConditionWarning> lint(const Node* condition) {
        if (condition != nullptr) {
            m_root = condition;
            number(*condition);
            judge(*condition);
            look(*condition);
            for (const auto& [select, where] : m_nested) {
                m_view = select;
                judge(*where);
            }
            m_view = m_facts.view;
        }
        std::stable_sort(m_warnings.begin(), m_warnings.end(),
                         [](const auto& a, const auto& b) { return a.offset.value_or(0) < b.offset.value_or(0); });
        lookAtSort(condition);
        return std::move(m_warnings);
    }

private:
    // ---- places -------------------------------------------------------------------------------------------------
    void number(const Node& node) {
        if (m_numbers.size() < m_places.size()) m_numbers.emplace(&node, m_numbers.size());
        for (const Node* child = node.firstChild; child != nullptr; child = child->next)
            number(*child);
    }
    const QORConditionPlace* placeOf(const Node& node) const {
        const auto found = m_numbers.find(&node);
        return found == m_numbers.end() ? nullptr : &m_places[found->second];
    }
    /// Of the element, or of the first one below it that has a place.
    std::optional<std::size_t> offsetOf(const Node& node) const {
        const QORConditionPlace* const place = placeOf(node);
        if (place != nullptr && place->offset != QORConditionPlace::nowhere) return place->offset;
        for (const Node* child = node.firstChild; child != nullptr; child = child->next)
            if (const auto offset = offsetOf(*child)) return offset;
        return std::nullopt;
    }
    /// A literal as it was spelled.
    std::string spelled(const Node& value) const {
        const QORConditionPlace* const place = placeOf(value);
        return place == nullptr ? plainTextOf(value) : place->spelled;
    }
    Literal literalOf(const Node& value) const {
        const QORConditionPlace* const place = placeOf(value);
        return place == nullptr ? Literal::Text : place->literal;
    }
    void warn(std::string_view code, const Node& at, std::string message, std::string suggestion = {}) {
        if (m_warnings.size() >= mostWarnings) return;
        QORConditionWarning warning{.code = code, .message = std::move(message), .offset = offsetOf(at)};
        if (at.tag == tag::value) warning.found = spelled(at);
        warning.suggestion = std::move(suggestion);
        m_warnings.push_back(std::move(warning));
    }

    // ---- columns ------------------------------------------------------------------------------------------------
    struct Column {
        std::string view;
        std::string name;
    };
    Column columnOf(const Node& field) const {
        const std::string text = plainTextOf(field);
        const std::size_t point = text.find('.');
        if (point == std::string::npos) return {m_view, text};
        return {text.substr(0, point), text.substr(point + 1)};
    }
    std::string typeOf(const Node& operand) const {
        if (operand.tag != tag::field || !m_facts.types) return {};
        const Column column = columnOf(operand);
        return m_facts.types(column.view, column.name);
    }
    /// The same text for the same operand; empty for what is none.
    std::string keyOf(const Node& operand) const {
        if (operand.tag == tag::field && operand.firstChild == nullptr) {
            const Column column = columnOf(operand);
            return toLowerText(column.view) + '.' + column.name;
        }
        if (operand.tag != tag::function || operand.firstChild == nullptr) return {};
        const Node* const argument = operand.firstChild->next;
        const std::string inner = argument == nullptr ? std::string() : keyOf(*argument);
        return inner.empty() ? inner : toLowerText(plainTextOf(*operand.firstChild)) + '(' + inner + ')';
    }
    /// How messages call it.
    static std::string nameOf(const Node& operand) {
        if (operand.tag == tag::field) return quoteText(plainTextOf(operand));
        const Node* const argument = operand.firstChild == nullptr ? nullptr : operand.firstChild->next;
        return argument == nullptr ? "a value" : plainTextOf(*operand.firstChild) + "(" + nameOf(*argument) + ")";
    }

    // ---- one comparison -----------------------------------------------------------------------------------------
    void look(const Node& node) {
        if (isBinary(node.tag)) lookAtLiterals(node, true);
        if (node.tag == tag::between || node.tag == tag::in) lookAtLiterals(node, !m_places.empty());
        if (node.tag == tag::like) lookAtPattern(node);
        if (node.tag == tag::select) return lookAtSelect(node);
        for (const Node* child = node.firstChild; child != nullptr; child = child->next)
            look(*child);
    }

    void lookAtSelect(const Node& select) {
        const Node* view = nullptr;
        const Node* where = nullptr;
        for (const Node* child = select.firstChild; child != nullptr; child = child->next) {
            if (child->tag == tag::view) view = child;
            if (child->tag == tag::where) where = child->firstChild;
        }
        if (view == nullptr || where == nullptr) return;
        std::string outer = std::exchange(m_view, plainTextOf(*view));
        m_nested.emplace_back(m_view, where);
        look(*where);
        m_view = std::move(outer);
    }

    /// \param converted whether literals are compared as values of the column's type, rather than as they are spelled
    void lookAtLiterals(const Node& comparison, bool converted) {
        const Node* column = nullptr;
        for (const Node* child = comparison.firstChild; child != nullptr && column == nullptr; child = child->next)
            if (child->tag == tag::field) column = child;
        const std::string type = column == nullptr ? std::string() : typeOf(*column);
        for (const Node* child = comparison.firstChild; child != nullptr; child = child->next) {
            if (child->tag != tag::value) continue;
            if (literalOf(*child) == Literal::Text && isSameWord(spelled(*child), "null")) {
                warn("compares_null", *child, "this is the text \"null\"; what is missing is found by \"is null\"",
                     comparison.tag == tag::ne ? "is not null" : "is null");
            } else if (column != nullptr && !type.empty()) {
                lookAtForm(*column, type, *child, converted);
            }
        }
    }

    void lookAtForm(const Node& column, const std::string& type, const Node& value, bool converted) {
        const std::string literal = spelled(value);
        if (literalOf(value) == Literal::Computed) return;
        if (columnKindOf(type) == QORColumnKind::Text) return lookAtText(column, value, literal);
        std::string stored;
        try {
            stored = storedForm(type, literal);
        } catch (const QORException&) {
            return;  // a time told from now, or what is refused when it is run
        }
        if (stored == literal || literalOf(value) == Literal::Number) return;
        warn("other_form", value,
             converted ? quoteText(literal) + " is taken for " + quoteText(stored)
                       : "rows of " + nameOf(column) + " spell this " + quoteText(stored) +
                             ", and here it is compared as it is spelled",
             stored);
    }

    void lookAtText(const Node& column, const Node& value, const std::string& literal) {
        if (literalOf(value) == Literal::Number)
            return warn("number_as_text", value,
                        nameOf(column) + " holds texts: " + literal +
                            " is compared as one, which sorts 10 before 9 and " + "tells 7 from 07",
                        '\'' + literal + '\'');
        const auto guid = QORGUIDBase::parse(literal);
        if (guid && guid->toString() != literal)
            return warn("other_form", value, "GUIDs are stored as " + quoteText(guid->toString()), guid->toString());
        if (!m_facts.values) return;
        const Column named = columnOf(column);
        const std::vector<std::string> known = m_facts.values(named.view, named.name);
        if (std::find(known.begin(), known.end(), literal) != known.end()) return;
        const auto same =
            std::find_if(known.begin(), known.end(), [&](const std::string& one) { return isSameWord(one, literal); });
        if (same != known.end())
            warn("other_case", value, nameOf(column) + " holds " + quoteText(*same) + ", in this case", *same);
    }

    void lookAtPattern(const Node& like) {
        const Node* const operand = like.firstChild;
        const Node* const pattern = operand == nullptr ? nullptr : operand->next;
        if (pattern == nullptr || pattern->tag != tag::value || keyOf(*operand).empty()) return;
        const std::string text = plainTextOf(*pattern);
        const bool isWild = text.starts_with('%') || text.starts_with('_');
        const Node* const escape = pattern->next;
        if (!isWild || (escape != nullptr && text.starts_with(plainTextOf(*escape)))) return;
        if (!m_facts.rows || *m_facts.rows < manyRows || !isSameWord(m_view, m_facts.view)) return;
        warn("leading_wildcard", *pattern,
             "a pattern that begins with a wildcard is looked for in each of about " + std::to_string(*m_facts.rows) +
                 " rows; one that begins with the text, or another condition beside it, leaves fewer");
    }

    // ---- what can never be --------------------------------------------------------------------------------------
    struct Term {
        const Node* node;
        bool negated;
    };
    struct Cause {
        const Node* at;
        std::string message;
    };

    void judge(const Node& condition) {
        m_causes.clear();
        const bool never = isNever({&condition, false});
        const bool whole = never && &condition == m_root;
        for (Cause& cause : m_causes)
            warn(whole ? "always_false" : "never_true", *cause.at, std::move(cause.message));
    }

    static Term pastNots(Term term) {
        while (term.node->tag == tag::logicalNot && term.node->firstChild != nullptr)
            term = {term.node->firstChild, !term.negated};
        return term;
    }
    static bool isChain(const Term& term) {
        return (term.node->tag == tag::logicalAnd || term.node->tag == tag::logicalOr) &&
               term.node->firstChild != nullptr;
    }
    /// Whether all of its parts have to hold.
    static bool isConjunction(const Term& term) {
        return isChain(term) && (term.node->tag == tag::logicalAnd) != term.negated;
    }

    bool isNever(Term term) {
        term = pastNots(term);
        if (isChain(term) && !isConjunction(term)) {
            bool never = true;
            for (const Node* child = term.node->firstChild; child != nullptr; child = child->next)
                never = isNever({child, term.negated}) && never;
            return never;
        }
        std::vector<Term> parts;
        flatten(term, parts);
        bool never = false;
        for (const Term& part : parts)
            never = (isChain(part) ? isNever(part) : isNeverAlone(part)) || never;
        return never || contradicts(parts);
    }

    static void flatten(Term term, std::vector<Term>& parts) {
        term = pastNots(term);
        if (!isConjunction(term)) {
            parts.push_back(term);
            return;
        }
        for (const Node* child = term.node->firstChild; child != nullptr; child = child->next)
            flatten({child, term.negated}, parts);
    }

    /// The two operands of a comparison that has no more; null where they are others.
    static std::pair<const Node*, const Node*> operandsOf(const Node& comparison) {
        const Node* const left = comparison.firstChild;
        if (!isBinary(comparison.tag) || left == nullptr || left->next == nullptr) return {nullptr, nullptr};
        return {left, left->next};
    }

    /// Operands that are the same, and literals.
    bool isNeverAlone(const Term& part) {
        const auto [left, right] = operandsOf(*part.node);
        if (left == nullptr) return false;
        const QORTag operation = part.negated ? negationOf(part.node->tag) : part.node->tag;
        const std::string key = keyOf(*left);
        const bool isSame = !key.empty() && key == keyOf(*right);
        if (isSame && (operation == tag::ne || operation == tag::lt || operation == tag::gt)) {
            m_causes.push_back({part.node, nameOf(*left) + " is compared with itself, and is never other than it is"});
            return true;
        }
        if (left->tag != tag::value || right->tag != tag::value) return false;
        const auto order =
            QORComparedValue::text(plainTextOf(*left)).compare(QORComparedValue::text(plainTextOf(*right)));
        const bool never = (operation == tag::eq && order == QORComparedValue::Order::Different) ||
                           (operation == tag::ne && order == QORComparedValue::Order::Equal);
        if (never) m_causes.push_back({part.node, "two literals are compared, and it never holds of these"});
        return never;
    }

    struct Operand {
        QOROperandRange range{};
        const Node* last = nullptr;  ///< the comparison that spoke of it last
        const Node* operand = nullptr;
        std::size_t times = 0;
    };

    bool contradicts(const std::vector<Term>& parts) {
        std::map<std::string, Operand> operands;
        for (const Term& part : parts)
            restrict(part, operands);
        bool any = false;
        for (const auto& [key, operand] : operands) {
            if (!operand.range.isEmpty()) continue;
            any = true;
            m_causes.push_back({operand.last, operand.times > 1
                                                  ? "no value of " + nameOf(*operand.operand) +
                                                        " satisfies this and what stands beside it"
                                                  : "no value of " + nameOf(*operand.operand) + " satisfies this"});
        }
        return any;
    }

    /// The range of an operand that the comparison says something of; null for what is none.
    Operand* operandOf(const Node& operand, const Node& comparison, std::map<std::string, Operand>& operands) const {
        std::string key = keyOf(operand);
        if (key.empty()) return nullptr;
        Operand& known = operands[std::move(key)];
        known.last = &comparison;
        known.operand = &operand;
        ++known.times;
        return &known;
    }

    void restrict(const Term& part, std::map<std::string, Operand>& operands) const {
        const Node& node = *part.node;
        const Node* const first = node.firstChild;
        if (first == nullptr) return;
        if (isBinary(node.tag)) return restrictBinary(part, operands);
        Operand* const operand = operandOf(*first, node, operands);
        if (operand == nullptr) return;
        switch (node.tag) {
            case tag::isNull:
                return part.negated ? operand->range.beSomething() : operand->range.beNull();
            case tag::like:
                return operand->range.beSomething();
            case tag::between:
                operand->range.beSomething();
                if (!part.negated) restrictBetween(*first, operand->range);
                return;
            case tag::in:
                return restrictIn(part, *first, operand->range);
            default:
                return;
        }
    }

    void restrictBinary(const Term& part, std::map<std::string, Operand>& operands) const {
        const auto [left, right] = operandsOf(*part.node);
        if (left == nullptr) return;
        const QORTag operation = part.negated ? negationOf(part.node->tag) : part.node->tag;
        for (const bool isExchanged : {false, true}) {
            const Node& operand = isExchanged ? *right : *left;
            const Node& other = isExchanged ? *left : *right;
            Operand* const known = operandOf(operand, *part.node, operands);
            if (known == nullptr) continue;
            known->range.beSomething();
            if (other.tag != tag::value) continue;
            if (auto value = valueOf(operand, other, true))
                compare(known->range, isExchanged ? exchanged(operation) : operation, operand, std::move(*value));
        }
    }

    static void compare(QOROperandRange& range, QORTag operation, const Node& operand, QORComparedValue value) {
        switch (operation) {
            case tag::eq:
                return range.beOneOf(possible(operand, {std::move(value)}));
            case tag::ne:
                return range.differFrom(std::move(value));
            case tag::gt:
            case tag::ge:
                return range.beAbove(std::move(value), operation == tag::ge);
            default:
                return range.beBelow(std::move(value), operation == tag::le);
        }
    }

    void restrictBetween(const Node& first, QOROperandRange& range) const {
        const Node* const low = first.next;
        const Node* const high = low == nullptr ? nullptr : low->next;
        if (high == nullptr) return;
        auto least = low->tag == tag::value ? valueOf(first, *low, false) : std::nullopt;
        auto most = high->tag == tag::value ? valueOf(first, *high, false) : std::nullopt;
        if (least) range.beAbove(std::move(*least), true);
        if (most) range.beBelow(std::move(*most), true);
    }

    void restrictIn(const Term& part, const Node& first, QOROperandRange& range) const {
        std::vector<QORComparedValue> values;
        for (const Node* item = first.next; item != nullptr; item = item->next) {
            auto value = item->tag == tag::value ? valueOf(first, *item, false) : std::nullopt;
            if (!value || values.size() == QOROperandRange::longestChoice) {
                // Nothing is known of what is in the list, but whatever is, null is not. Of no list, though, the
                // nested select's, null is no member.
                if (!part.negated) range.beSomething();
                return;
            }
            values.push_back(std::move(*value));
        }
        range.beSomething();
        if (!part.negated) return range.beOneOf(possible(first, std::move(values)));
        for (QORComparedValue& value : values)
            range.differFrom(std::move(value));
    }

    std::optional<QORComparedValue> valueOf(const Node& operand, const Node& literal, bool converted) const {
        if (operand.tag == tag::function) return QORComparedValue::text(plainTextOf(literal));
        return QORComparedValue::of(typeOf(operand), plainTextOf(literal), converted);
    }

    /// Without those that no result of the function is.
    static std::vector<QORComparedValue> possible(const Node& operand, std::vector<QORComparedValue> values) {
        if (operand.tag != tag::function) return values;
        const bool isUpper = isSameWord(plainTextOf(*operand.firstChild), "upper");
        const auto isNone = [&](const QORComparedValue& value) {
            return isUpper ? value.hasLower() : value.hasUpper();
        };
        values.erase(std::remove_if(values.begin(), values.end(), isNone), values.end());
        return values;
    }

    // ---- the order ----------------------------------------------------------------------------------------------
    void lookAtSort(const Node* condition) {
        if (!m_facts.indexes || m_facts.sort.empty()) return;
        const std::vector<std::string> fixed = condition == nullptr ? std::vector<std::string>() : fixedBy(*condition);
        const auto isFixed = [&](const std::string& column) {
            return std::find(fixed.begin(), fixed.end(), column) != fixed.end();
        };
        const auto key = std::find_if_not(m_facts.sort.begin(), m_facts.sort.end(), isFixed);
        if (key == m_facts.sort.end()) return;
        std::vector<std::string> sorting;
        for (const std::vector<std::string>& index : *m_facts.indexes) {
            const auto leading = std::find_if_not(index.begin(), index.end(), isFixed);
            if (leading == index.end()) continue;
            if (*leading == *key) return;
            if (std::find(sorting.begin(), sorting.end(), *leading) == sorting.end()) sorting.push_back(*leading);
        }
        std::string message = "no index has the order of " + quoteText(*key) +
                              ": all rows that match are read and sorted before the first one is answered";
        for (const std::string& column : sorting)
            message.append(&column == sorting.data() ? "; there is one for " : ", ").append(quoteText(column));
        m_warnings.push_back(
            {.code = "sorts_all", .parameter = "sort", .message = std::move(message), .offset = {}, .found = *key});
    }

    /// Columns of the view that are the same in all rows that match.
    std::vector<std::string> fixedBy(const Node& condition) const {
        std::vector<Term> parts;
        flatten({&condition, false}, parts);
        std::vector<std::string> columns;
        for (const Term& part : parts) {
            const Node* const left = part.node->firstChild;
            if (part.negated || part.node->tag != tag::eq || left == nullptr || left->next == nullptr) continue;
            const Node& field = left->tag == tag::field ? *left : *left->next;
            const Node& other = left->tag == tag::field ? *left->next : *left;
            if (field.tag == tag::field && other.tag == tag::value) columns.push_back(columnOf(field).name);
        }
        return columns;
    }

    const QORConditionFacts& m_facts;
    const std::span<const QORConditionPlace> m_places;
    std::string m_view;  ///< of the innermost select
    const Node* m_root = nullptr;
    std::unordered_map<const Node*, std::size_t> m_numbers;     ///< which of the places is an element's
    std::vector<std::pair<std::string, const Node*>> m_nested;  ///< selects within, and their conditions
    std::vector<Cause> m_causes;
    std::vector<QORConditionWarning> m_warnings;
};

}  // namespace

std::vector<QORConditionWarning> lintCondition(const QORMessageNode* condition, const QORConditionFacts& facts,
                                               std::span<const QORConditionPlace> places) {
    return Linter(facts, places).lint(condition);
}

std::vector<QORConditionWarning> lintCondition(std::string_view text, const QORConditionOptions& options,
                                               const QORConditionFacts& facts) {
    if (text.empty()) return lintCondition(nullptr, facts);
    QORMessage message;
    QORBinaryIterator at = message.root();
    at.addChild(tag::where);
    std::vector<QORConditionPlace> places;
    QORConditionOptions placing = options;
    placing.places = &places;
    parseCondition(text, placing, at);
    return lintCondition(message.rootNode()->firstChild->firstChild, facts, places);
}

}  // namespace QOR
