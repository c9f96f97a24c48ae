#include "QORPager/Operators/Pager/QOREnvPreFilter.h"

#include <algorithm>
#include <stdexcept>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORRequestControl.h"
#include "QORPager/Operators/Pager/QORPagerErrors.h"
#include "QORPager/QORArg.h"

namespace QOR {

namespace {

constexpr std::size_t line = 64;

void fetch(const void* object, std::size_t size) {
    const char* const bytes = static_cast<const char*>(object);
    for (std::size_t offset = 0; offset < size; offset += line)
        __builtin_prefetch(bytes + offset);
    __builtin_prefetch(bytes + size - 1);
}

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
        if (handle) m_bindings.push_back({QOREnvFieldReader(*field), handle});
    }
}

QOREnvPreFilter::~QOREnvPreFilter() {
    for (const Binding& binding : m_bindings)
        TExpressionEvaluation::setView(binding.handle, {});
}

/// Environments lie about in memory, and a value is behind two or three pointers. Fetching those that come next while
/// one is evaluated hides most of that. Of far ones the environment itself is fetched, of nearer ones what it points
/// to, as far as the filter reads it.
void QOREnvPreFilter::fetchAhead(const QOREnvList::Chunk& chunk, std::size_t at) const {
    constexpr std::size_t far = 12;
    constexpr std::size_t middle = 8;
    constexpr std::size_t near = 4;
    constexpr std::size_t mostFurther = 4 * line;
    if (at + far < chunk.size()) fetch(chunk[at + far].get(), sizeof(QOREnv));
    for (const Binding& binding : m_bindings) {
        if (at + middle < chunk.size()) {
            const void* const place = binding.reader.place(*chunk[at + middle]);
            if (place != nullptr) fetch(place, sizeof(std::optional<std::string>));
        }
        if (binding.reader.isFurtherMember() && at + near < chunk.size()) {
            const auto* const further = static_cast<const QORInfo*>(binding.reader.place(*chunk[at + near]));
            const std::vector<QORInfo>& members = further->children();
            if (!members.empty()) fetch(members.data(), std::min(members.size() * sizeof(QORInfo), mostFurther));
        }
    }
}

int QOREnvPreFilter::evaluate(const QORPtr<const QOREnv>& env, bool& passed) {
    QOREnvRow row(env);
    for (Binding& binding : m_bindings)
        TExpressionEvaluation::setView(binding.handle, binding.reader.read(row));
    try {
        if (!m_evaluator.returnBooleanSpecial(passed)) return 0;
        m_error = m_evaluator.getErrorMessage();
    } catch (const std::out_of_range&) {
        m_error = errorMessage(etEvaluation);
    }
    return failed;
}

int QOREnvPreFilter::run(const QOREnvList& list, QOREIDList& passing) {
    QORRequestWatch watch;
    for (const auto& chunk : list.chunks()) {
        for (std::size_t at = 0; at < chunk->size(); ++at) {
            watch.check();
            fetchAhead(*chunk, at);
            const QORPtr<const QOREnv>& env = (*chunk)[at];
            bool passed = false;
            if (const int result = evaluate(env, passed); result != 0) return result;
            if (passed) passing.insert(passing.end(), env->getEID());
        }
    }
    return 0;
}

bool checkMulty(TExpressionEvaluation& evaluator, const QORArg& row, const std::vector<const QORField*>& fields,
                std::size_t index) {
    if (isSatisfied(evaluator)) return true;
    if (index >= fields.size()) return false;
    const QORField& field = *fields[index];
    const TIdentifierHandle handle = evaluator.bindingHandle(toLowerText(field.name));
    bool last = false;
    for (int value = 0; !last; ++value) {
        QORRequestControl::checkCurrent();  // combinations are many where several fields have many values
        last = true;                        // single values leave it alone
        TExpressionEvaluation::setFromText(handle, field.getValue(row, last, value));
        if (checkMulty(evaluator, row, fields, index + 1)) return true;
    }
    return false;
}

}  // namespace QOR
