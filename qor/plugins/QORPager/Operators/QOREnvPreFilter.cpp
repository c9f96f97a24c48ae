#include "QORPager/Operators/QOREnvPreFilter.h"

#include <stdexcept>

#include "QORPager/QORArg.h"

namespace QOR {

namespace {

constexpr int failed = -1;

bool isSatisfied(TExpressionEvaluation& evaluator) {
    bool satisfied = false;
    try {
        return !evaluator.returnBoolean(satisfied) && satisfied;
    } catch (const std::out_of_range&) {
        return false;
    }
}

}  // namespace

QOREnvPreFilter::QOREnvPreFilter(TExpressionEvaluation& evaluator, const std::vector<const QORField*>& whereFields)
    : m_evaluator(evaluator) {
    for (const QORField* field : whereFields) {
        if (field->cursorType != TCursorType::Env) continue;
        const TIdentifierHandle handle = evaluator.bindingHandle(field->name);
        if (handle) m_bindings.push_back({field, handle});
    }
}

int QOREnvPreFilter::evaluate(const QORArg& row, bool& passed) {
    for (const Binding& binding : m_bindings) {
        TExpressionEvaluation::setFromText(binding.handle, binding.field->getValue(row));
    }
    try {
        if (!m_evaluator.returnBooleanSpecial(passed)) return 0;
        m_error = m_evaluator.getErrorMessage();
    } catch (const std::out_of_range&) {
        m_error = errorMessage(etEvaluation);
    }
    return failed;
}

bool checkMulty(TExpressionEvaluation& evaluator, const QORArg& row, const std::vector<const QORField*>& fields,
                std::size_t index) {
    if (isSatisfied(evaluator)) return true;
    if (index >= fields.size()) return false;
    const QORField& field = *fields[index];
    bool last = false;
    for (int value = 0; !last; ++value) {
        last = true;  // single values leave it alone
        evaluator.setIdentifierFromString(field.name, field.getValue(row, last, value));
        if (checkMulty(evaluator, row, fields, index + 1)) return true;
    }
    return false;
}

}  // namespace QOR
