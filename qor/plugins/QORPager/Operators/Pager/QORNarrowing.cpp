#include "QORPager/Operators/Pager/QORNarrowing.h"

#include <algorithm>

namespace QOR {

namespace {

constexpr std::string_view categoryField = "pager.event_log.category";

class Narrower {
public:
    Narrower(QORNarrowing& narrowing, const QORSource& source) : m_narrowing(narrowing), m_source(source) {}

    /// \returns whether the conjunct is all in the narrowing
    bool take(const QORConjunct& conjunct) {
        if (isOf(conjunct, QORConstantUse::Latest)) return takeTime(conjunct);
        if (conjunct.operation != ttEqual || !conjunct.isText) return false;
        if (isOf(conjunct, QORConstantUse::Environment)) return takeEid(conjunct, m_narrowing.environment);
        if (isOf(conjunct, QORConstantUse::Storage)) return takeEid(conjunct, m_narrowing.storage);
        return conjunct.field->name == categoryField && takeCategory(conjunct);
    }

private:
    bool isOf(const QORConjunct& conjunct, QORConstantUse use) const {
        return std::any_of(m_source.constants.begin(), m_source.constants.end(),
                           [&](const QORSourceConstant& constant) {
                               return constant.use == use && constant.name == conjunct.field->name;
                           });
    }

    bool takeTime(const QORConjunct& conjunct) {
        const auto seconds = conjunct.isText ? parseTime(conjunct.constant) : std::nullopt;
        if (!seconds || conjunct.field->valueType != TValueType::Time) return false;
        const auto notBefore = [&](std::int64_t bound) { m_narrowing.from = std::max(m_narrowing.from, bound); };
        const auto notAfter = [&](std::int64_t bound) { m_narrowing.to = std::min(m_narrowing.to, bound); };
        switch (conjunct.operation) {
            case ttGreater:
                return notBefore(*seconds + 1), true;
            case ttGreaterOrEqual:
                return notBefore(*seconds), true;
            case ttLower:
                return notAfter(*seconds - 1), true;
            case ttLowerOrEqual:
                return notAfter(*seconds), true;
            case ttEqual:
                return notBefore(*seconds), notAfter(*seconds), true;
            default:
                return false;
        }
    }

    /// Of two environments, both of which an operation may touch, the first narrows.
    bool takeEid(const QORConjunct& conjunct, std::optional<QOREID>& to) {
        QOREID eid;
        if (!eid.fromString(conjunct.constant) || !eid.isValid()) return false;
        if (to) return *to == eid;
        to = eid;
        return true;
    }

    bool takeCategory(const QORConjunct& conjunct) {
        if (conjunct.constant.empty()) return false;
        if (m_narrowing.category) return *m_narrowing.category == conjunct.constant;
        m_narrowing.category = conjunct.constant;
        return true;
    }

    QORNarrowing& m_narrowing;
    const QORSource& m_source;
};

}  // namespace

QORNarrowing QORNarrowing::of(const QORExactFilter& filter, const QORSource& source) {
    QORNarrowing narrowing;
    Narrower narrower(narrowing, source);
    narrowing.isAll = filter.isConjunction();
    for (std::size_t i = 0; i < filter.conjuncts().size(); ++i) {
        if (!narrower.take(filter.conjuncts()[i])) narrowing.left.push_back(i);
    }
    narrowing.isAll = narrowing.isAll && narrowing.left.empty();
    narrowing.nothing = narrowing.from > narrowing.to;
    return narrowing;
}

}  // namespace QOR
