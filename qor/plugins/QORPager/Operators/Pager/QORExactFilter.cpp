#include "QORPager/Operators/Pager/QORExactFilter.h"

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "QORPager/Operators/Pager/QOREnvPreFilter.h"
#include "QORPager/Operators/Pager/QORFilterConstants.h"
#include "QORPager/QORArg.h"

namespace QOR {

namespace {

/// Seconds, or a text that is a time; nothing for what is neither. Those that rows cannot show become the nearest that
/// they can.
std::optional<std::int64_t> secondsOf(const TToken& constant) {
    auto seconds = parseInt64(constant.text);
    if (!seconds && constant.tokenClass == tcString) seconds = parseTime(constant.text);
    if (!seconds && constant.tokenClass == tcNumber) seconds = lastDbSecond;  // more digits than a number has
    return seconds ? std::optional(std::clamp(*seconds, firstDbSecond, lastDbSecond)) : std::nullopt;
}

bool isIdentifier(const QORField& field) {
    return field.name.ends_with(".eid") || field.name.ends_with("_eid");
}

/// The operator that says the same of exchanged operands.
TTokenType exchanged(TTokenType type) {
    constexpr std::array<std::pair<TTokenType, TTokenType>, 2> pairs{
        {{ttGreater, ttLower}, {ttGreaterOrEqual, ttLowerOrEqual}}};
    for (const auto& [one, other] : pairs) {
        if (type == one) return other;
        if (type == other) return one;
    }
    return type;
}

bool isConstant(const TToken& token) {
    return token.tokenClass == tcString || token.tokenClass == tcNumber;
}

/// A number that the language cannot hold is the nearest that it can.
std::string bindableText(const QORField& field, std::string text) {
    constexpr std::size_t surelyHeld = 9;
    if (field.valueType == TValueType::Integer && text.size() > surelyHeld) return std::to_string(readSaturated(text));
    return text;
}

}  // namespace

QORExactFilter::QORExactFilter(TExpressionEvaluation* evaluator, const QORFieldSet& fields, QORExactFields& exactFields)
    : m_evaluator(evaluator) {
    if (m_evaluator == nullptr) return;
    m_evaluator->setShortSubjects(TShortSubject::DoesNotMatch);
    findFields(fields, exactFields);
    m_evaluator->changeComparedConstants(
        [this](const TToken& name, TToken& constant) { changeConstant(name, constant); });
    findConjuncts();
}

QORExactFilter::~QORExactFilter() {
    if (m_evaluator == nullptr) return;
    m_evaluator->setShortSubjects(TShortSubject::Throws);
    for (const Binding& binding : m_bindings)
        TExpressionEvaluation::setFromText(binding.handle, {});
}

/// The language knows names in any case, and the catalogue in one.
void QORExactFilter::findFields(const QORFieldSet& fields, QORExactFields& exactFields) {
    for (const std::string& name : m_evaluator->usedIdentifiers()) {
        const std::string lowered = toLowerText(name);
        auto field = fields.find(name);
        if (field == fields.end())
            field = std::find_if(fields.begin(), fields.end(),
                                 [&](const QORField& one) { return toLowerText(one.name) == lowered; });
        const TIdentifierHandle handle = m_evaluator->bindingHandle(lowered);
        if (field != fields.end() && handle) m_bindings.push_back({&exactFields.filtered(*field), handle});
    }
}

const QORField* QORExactFilter::fieldOf(const TToken& name) const {
    const std::string lowered = toLowerText(name.text);
    const auto found = std::find_if(m_bindings.begin(), m_bindings.end(), [&](const Binding& binding) {
        return toLowerText(binding.field->name) == lowered;
    });
    return found == m_bindings.end() ? nullptr : found->field;
}

void QORExactFilter::changeConstant(const TToken& name, TToken& constant) const {
    const QORField* const field = fieldOf(name);
    if (field == nullptr) return;
    if (field->valueType == TValueType::Time) {
        const auto seconds = secondsOf(constant);
        if (!seconds) return;
        constant.text = time2str(*seconds);
        constant.tokenClass = tcString;
    } else if (constant.tokenClass == tcNumber) {
        constant.text = std::to_string(readSaturated(constant.text));
    } else if (isIdentifier(*field)) {
        QOREID eid;
        if (eid.fromString(constant.text)) constant.text = eid.toString();
    }
}

void QORExactFilter::findConjuncts() {
    const TNode* const tree = m_evaluator->buildTree();
    if (tree == nullptr) return;
    std::vector<const TNode*> open{tree};
    while (!open.empty()) {
        const TNode& node = *open.back();
        open.pop_back();
        if (node.token().type == ttAnd) {
            for (const TNode& child : node.children())
                open.push_back(&child);
        } else if (!addConjunct(node)) {
            m_others.push_back(&node);
        }
    }
}

bool QORExactFilter::addConjunct(const TNode& node) {
    if (node.token().tokenClass != tcOperator || !isComparison(node.token().type)) return false;
    const TToken& left = node.children().back().token();
    const TToken& right = node.children().front().token();
    const bool isOrdered = left.tokenClass == tcIdentifier && isConstant(right);
    const bool isExchanged = right.tokenClass == tcIdentifier && isConstant(left);
    if (!isOrdered && !isExchanged) return false;
    const QORField* const field = fieldOf(isOrdered ? left : right);
    if (field == nullptr) return false;
    const TToken& constant = isOrdered ? right : left;
    m_conjuncts.push_back({field, isOrdered ? node.token().type : exchanged(node.token().type), constant.text,
                           constant.tokenClass == tcString});
    return true;
}

/// Whether the names as they are bound satisfy it.
bool QORExactFilter::evaluate() {
    bool satisfied = false;
    return !m_evaluator->returnBoolean(satisfied) && satisfied;
}

bool QORExactFilter::holds(const QORArg& row) {
    if (m_evaluator == nullptr) return true;
    m_several.clear();
    for (const Binding& binding : m_bindings) {
        bool last = true;
        TExpressionEvaluation::setFromText(binding.handle,
                                           bindableText(*binding.field, binding.field->getValue(row, last, 0)));
        if (binding.field->isMulty() && !last) m_several.push_back(binding.field);
    }
    const bool satisfied = m_several.empty() ? evaluate() : checkMulty(*m_evaluator, row, m_several, 0);
    if (m_evaluator->wasError()) m_error = m_evaluator->getErrorMessage();
    return satisfied && m_error.empty();
}

}  // namespace QOR
