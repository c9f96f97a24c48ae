// Exact requests: rows are those records for which the whole filter holds, in the order of the sort keys.

#include <algorithm>
#include <chrono>
#include <utility>

#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORPageToken.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORPager/Operators/Pager/QORExactExplain.h"
#include "QORPager/Operators/Pager/QORExactPage.h"
#include "QORPager/Operators/Pager/QORNarrowing.h"
#include "QORPager/Operators/Pager/QORRowSet.h"
#include "QORPager/Operators/QORPagerOperator.h"
#include "QORPager/QORSources.h"

namespace QOR {

namespace {

/// What a piece of the source and the end of the answer may take behind the deadline.
constexpr auto grace = std::chrono::seconds(2);

std::unique_ptr<QORRowSource> makeSource(TCursorType type, const QORRowSourceOptions& options) {
    switch (type) {
        case TCursorType::OpLog:
            return makeOperationSource(options);
        case TCursorType::EventLog:
            return makeEventSource(options);
        case TCursorType::Info:
            return makeBackupSource(options);
        case TCursorType::Env:
            break;
    }
    return makeEnvSource(options);
}

bool isLog(TCursorType type) {
    return type == TCursorType::OpLog || type == TCursorType::EventLog;
}

/// Whether rows of the source are read in the order of the field.
bool leads(const QORField& field, const QORSource& source) {
    return std::any_of(source.constants.begin(), source.constants.end(), [&](const QORSourceConstant& constant) {
        return constant.use == QORConstantUse::Latest && constant.name == field.name &&
               field.valueType == TValueType::Time;
    });
}

/// How the source is read, and how the order that is asked for follows from that.
struct Plan {
    Plan(const std::vector<QORSortKey>& keys, const QORSource& source) : order{keys} {
        const bool log = isLog(source.cursorType);
        const bool hasTime = source.cursorType != TCursorType::Env;
        if (keys.empty()) {
            // The source's own order: newest first, backups of one second by their identifiers.
            order.uniqueDescending = reading.keyDescending = log;
            return;
        }
        order.uniqueDescending = keys.back().descending;
        grouping = QORRowGrouping::All;
        reading.keyDescending = log;
        if (!hasTime || !leads(*keys.front().field, source)) return;
        reading.newestFirst = keys.front().descending;
        reading.keyDescending = log || keys.size() == 1 ? reading.newestFirst : false;
        grouping = keys.size() == 1 ? QORRowGrouping::Row : QORRowGrouping::Second;
    }

    QORRowOrder order;
    QORReadOrder reading;
    QORRowGrouping grouping = QORRowGrouping::Row;
};

/// Of a field that has one value as the filter sees it.
std::optional<TValueType> singleType(const QORFieldSet& known, QORExactFields& fields, std::string_view name) {
    const auto found = known.find(name);
    if (found == known.end()) return std::nullopt;
    const QORField& field = fields.filtered(*found);
    return field.isMulty() ? std::nullopt : std::optional(field.valueType);
}

const QORBinaryIterator& binary(const QORMessageIterator& request) {
    const auto* const iterator = dynamic_cast<const QORBinaryIterator*>(&request);
    if (iterator == nullptr) throw QORException(errFailure, "[select]: incorrect iterator type");
    return *iterator;
}

/// Token and answer of one exact request.
class ExactAnswer {
public:
    ExactAnswer(const QORPagerRequest& request, const QORMessageIterator& select)
        : m_request(request), m_hasSize(request.limitSize > 0) {
        if (!isPaged()) return;
        preparePageTokens();
        m_token.question = questionDigest(binary(select));
        m_token.now = currentTime();
        static_cast<void>(select.getValue(m_token.now, tag::now));
        if (m_request.exact->after) useToken(openPageToken(*m_request.exact->after));
    }

    QORExactPosition begin(const QORRowOrder& order, bool uniqueIsNumber) const {
        if (m_request.exact->after) return QORExactPosition::fromKey(m_token.key, order, uniqueIsNumber);
        QORExactPosition position;
        position.skip = std::max(m_request.limitOffset, 0);
        return position;
    }

    void lookAtState(QORRowSource& source) {
        if (!isPaged()) return;
        const std::uint64_t state = source.state();
        m_changed = m_request.exact->after && m_token.change != state;
        if (!m_request.exact->after) m_token.change = state;
    }

    bool countsRows() const { return m_request.statisticsWanted || m_request.exact->count; }
    QORCountLimit countLimit() const { return m_request.exact->count.value_or(QORCountLimit()); }

    void writeCounts(QORRowSet& rowSet, std::int64_t written, const QORRowCount& count) const {
        rowSet.writeNumber(tag::statistics, written);
        const QORCountLimit limit = countLimit();
        if (limit.kind == QORCountLimit::Kind::Nothing) return;
        rowSet.writeNumber(tag::total, static_cast<std::int64_t>(count.least));
        // A total that is only a bound says so even to those who did not ask how far to count.
        if (m_request.exact->count || !count.exact)
            rowSet.writeText(tag::exactness, count.exact ? "exact" : count.most ? "between" : "at_least");
        if (count.most) rowSet.writeNumber(tag::most, static_cast<std::int64_t>(*count.most));
        if (limit.kind == QORCountLimit::Kind::Timed) rowSet.writeNumber(tag::spent, count.spent.count());
    }
    void writeNext(QORRowSet& rowSet, const std::optional<QORExactPosition>& next) {
        if (m_hasSize && next) {
            m_token.key = next->toKey();
            rowSet.writeText(tag::next, sealPageToken(m_token));
        } else if (m_hasSize) {
            rowSet.writeFlag(tag::next);
        }
        if (m_request.exact->after) rowSet.writeText(tag::changed, m_changed ? "true" : "false");
    }

private:
    bool isPaged() const { return m_hasSize || m_request.exact->after; }

    void useToken(QORPageToken token) {
        if (token.question != m_token.question)
            throw QORException(errBadRequest, "after: the page token belongs to another question");
        m_token = std::move(token);
    }

    const QORPagerRequest& m_request;
    bool m_hasSize;
    bool m_changed = false;
    QORPageToken m_token;
};

}  // namespace

void QORPagerOperatorPrototype::selectExact(const QORMessageIterator& request, QORMessageIterator& response) {
    if (QORRequestControl* const control = QORRequestControl::current()) control->grantGrace(grace);
    ExactAnswer answer(m_request, request);

    const QORSource& kind = sourceOf(m_request.cursorType);
    QORExactFields fields;
    QORExactFilter filter(m_request.whereGiven ? &*m_evaluator : nullptr, m_fieldSet, fields);
    const QORNarrowing narrowing = QORNarrowing::of(filter, kind);
    std::vector<QORSortKey> keys = m_request.exact->sortKeys;
    for (QORSortKey& key : keys)
        key.field = &fields.shown(*key.field);
    const Plan plan(keys, kind);
    const std::unique_ptr<QORRowSource> source =
        makeSource(m_request.cursorType, {narrowing, plan.reading, m_request.envList});
    if (m_request.explains) {
        std::string where;
        static_cast<void>(request.getValue(where, tag::where));
        const QORExplanation explanation =
            explainExact({kind, filter, narrowing, *source, plan.grouping, where},
                         [&](std::string_view name) { return singleType(m_fieldSet, fields, name); });
        if (explanation.write(response) != 0) throw QORResponseFull();
        return;
    }

    QORExactPageOptions options{.order = plan.order, .grouping = plan.grouping, .isEveryRow = narrowing.isAll};
    if (m_request.limitSize > 0) options.size = m_request.limitSize;
    options.begin = answer.begin(plan.order, isLog(m_request.cursorType));
    options.mostKeyBytes = mostPageKeyBytes;
    answer.lookAtState(*source);

    std::vector<const QORField*> columns;
    for (const QORField* const field : m_request.selectFields)
        columns.push_back(&fields.shown(*field));
    QORRowSet rowSet(response, columns);
    QORExactPage page(*source, filter, options, [&rowSet](const ArgCSP& row) { rowSet.writeRow(row); });
    page.run();
    if (answer.countsRows()) {
        QORRowCount count{page.total().value_or(0), page.total().has_value()};
        if (!count.exact && answer.countLimit().kind != QORCountLimit::Kind::Nothing)
            count = countRows(*source, filter, narrowing, answer.countLimit());
        answer.writeCounts(rowSet, page.written(), count);
    }
    answer.writeNext(rowSet, page.next());
}

}  // namespace QOR
