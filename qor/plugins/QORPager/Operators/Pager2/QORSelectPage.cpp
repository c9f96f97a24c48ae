// Ordered selects: rows that have one order, and pages that go on where the one before ended.
//
// A page behind a row is found by that row's sort keys, so that it costs the same however far back it is. One condition
// says "behind this row" for all kinds of keys and values, but an engine finds its beginning in an index only where the
// condition is a chain of equalities and one bound; nulls, which no bound includes, come at one end. So what is behind
// is asked for in parts, one after the other until the page is full: of keys a, b, c first what is equal in a and
// behind in b and c, then what is behind in a. The last two keys make one part, since the last one mostly tells those
// few rows apart that the others do not.
#include <algorithm>
#include <limits>

#include "QORCommon/QORException.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORRecordState.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/sql/ASSpread.h"

namespace QOR {

namespace {

/// One sort key and its value in the row that the page begins behind.
struct KeyValue {
    const ASAttribute* column;
    bool descending;
    bool isNeverNull;
    ASDataPtr value;

    bool isNull() const { return value->isNull(); }

    ASComparison same() const { return isNull() ? ASAttribute::IsNull(*column) : *column == *value; }
    /// Of those rows that are not null, which come later; of a value.
    ASComparison later() const { return descending ? *column < *value : *column > *value; }
    ASComparison sameOrLater() const { return descending ? *column <= *value : *column >= *value; }
    /// Whether nulls, the smallest, are still to come.
    bool endsInNulls() const { return descending && !isNull() && !isNeverNull; }
    /// All that come later, in one condition; none where nothing does.
    ASComparison behind() const {
        if (isNull()) return descending ? ASComparison() : !ASAttribute::IsNull(*column);
        return endsInNulls() ? later() || ASAttribute::IsNull(*column) : later();
    }
};

/// See above.
class Parts {
public:
    explicit Parts(std::vector<KeyValue> keys) : m_keys(std::move(keys)) {}

    std::vector<ASComparison> get() {
        std::size_t level = m_keys.size();
        if (level > 1 && !m_keys[level - 2].isNull() && !m_keys[level - 1].behind().empty()) {
            level -= 2;
            const KeyValue& before = m_keys[level];
            add(level, before.sameOrLater() && (before.later() || m_keys[level + 1].behind()));
            if (before.endsInNulls()) add(level, ASAttribute::IsNull(*before.column));
        }
        while (level-- > 0)
            addLevel(level);
        // Nothing comes behind nulls at the end.
        if (m_parts.empty()) m_parts.emplace_back("1 = 0");
        return std::move(m_parts);
    }

private:
    void addLevel(std::size_t level) {
        const KeyValue& key = m_keys[level];
        if (!key.endsInNulls()) return add(level, key.behind());
        add(level, key.later());
        add(level, ASAttribute::IsNull(*key.column));
    }

    /// \param condition of those that are equal before
    void add(std::size_t level, const ASComparison& condition) {
        if (condition.empty()) return;
        ASComparison part;
        for (std::size_t i = 0; i < level; ++i)
            part = std::move(part) && m_keys[i].same();
        m_parts.push_back(std::move(part) && condition);
    }

    std::vector<KeyValue> m_keys;
    std::vector<ASComparison> m_parts;
};

/// The text from which take() makes the same value again, where that is the one that the database has: what another
/// program wrote may have other forms, between which the value does not tell.
std::optional<std::string> exactText(const ASData& data, bool typed) {
    const std::string stored(data.fetched());
    // So the driver spells bytes that stand where others do not.
    if (!typed && stored.starts_with("X'")) return std::nullopt;
    if (data.type() == ColumnType::Double) return data.isRaw() ? std::nullopt : std::optional(data.Str());
    if (data.isRaw()) return typed ? std::nullopt : std::optional(stored);
    const bool time = data.type() == ColumnType::DateTime;
    const std::string written = time ? time2dbstr(static_cast<const ASTime&>(data).value()) : data.Str();
    return written == stored ? std::optional(stored) : std::nullopt;
}

}  // namespace

bool SelectStmnt::isGrouped() const {
    return std::any_of(m_outputFields.begin(), m_outputFields.end(),
                       [](const OutputField& field) { return field.cell.getAggrAttr().has_value(); });
}

/// Until they tell the rows apart, if anything does.
void SelectStmnt::completeOrder() {
    std::vector<SortColumn> asked;
    asked.swap(m_sortColumns);
    for (SortColumn& column : asked) {
        const auto same = [&](const SortColumn& other) { return other.name == column.name; };
        if (std::none_of(m_sortColumns.begin(), m_sortColumns.end(), same)) m_sortColumns.push_back(std::move(column));
    }
    const std::string& key = m_columns->key;
    if (m_distinct || isGrouped()) {
        for (const OutputField& field : m_outputFields) {
            if (!field.cell.getAggrAttr()) addTieBreaker(field.key, field.cell);
        }
    } else if (!key.empty()) {
        addTieBreaker(key, getColumn(key));
    }
    const bool complete = m_distinct || isGrouped() || !key.empty();
    m_seeks = complete && std::all_of(m_sortColumns.begin(), m_sortColumns.end(),
                                      [this](const SortColumn& column) { return isSeekable(column); });
    for (SortColumn& column : m_sortColumns) {
        const auto isOutput = [&](const OutputField& field) {
            return !field.cell.getAggrAttr() && field.key == column.name;
        };
        const auto output = std::find_if(m_outputFields.begin(), m_outputFields.end(), isOutput);
        if (output != m_outputFields.end() && !column.cell.getAggrAttr()) {
            column.cell = output->cell;
        } else {
            column.isHidden = m_seeks && isPaged();
        }
    }
}

/// In the direction of the last sort key, in which an index may have both.
void SelectStmnt::addTieBreaker(const std::string& name, const ColumnCell& cell) {
    const auto same = [&](const SortColumn& column) { return !column.cell.getAggrAttr() && column.name == name; };
    if (std::any_of(m_sortColumns.begin(), m_sortColumns.end(), same)) return;
    const bool descending = !m_sortColumns.empty() && m_sortColumns.back().descending;
    m_sortColumns.push_back({name, cell, descending, false});
}

/// Whether rows can be asked for that come behind a value of the column.
bool SelectStmnt::isSeekable(const SortColumn& column) const {
    if (column.cell.getAggrAttr() || column.cell.colType() == ColumnType::Blob) return false;
    return column.cell.getAttr()->storage() != ASStorage::Decimal;
}

void SelectStmnt::readAfter(const QORBinaryIterator& it) {
    m_after.reset();
    if (isPaged()) {
        std::string question = std::move(m_next.question);
        m_next = {};
        m_next.question = question.empty() ? questionDigest(it) : std::move(question);
        m_next.now = currentTime();
        it.getValue(m_next.now, tag::now);
    }
    if (it.seekPresence(tag::after) != 0) return;
    if (!isPaged()) refuseRequest("after: a page token is for an ordered select with a limit", __LINE__);
    QORBinaryIterator limit = it;
    if (limit.seek(tag::limit) == 0 && limit.seekPresence(tag::offset) == 0)
        refuseRequest("after: the page token says where the page begins, so an offset cannot be given", __LINE__);
    std::string text;
    it.getValue(text, tag::after);
    m_after = openPageToken(text);
    const bool fits = m_after->key.empty() || (m_seeks && m_after->key.size() == m_sortColumns.size());
    if (m_after->question != m_next.question || !fits || m_after->offset < 0)
        refuseRequest("after: the page token belongs to another question", __LINE__);
    if (m_after->key.empty() && m_after->offset > std::numeric_limits<std::int32_t>::max())
        refuseRequest("after: the page lies too far back", __LINE__);
    m_next.now = m_after->now;
    m_next.change = m_after->change;
    m_next.records = m_after->records;
}

/// What is behind the page token, part by part; without one, or where it holds no key, all.
std::vector<ASComparison> SelectStmnt::behindAfter() const {
    if (!m_after || m_after->key.empty()) return std::vector<ASComparison>(1);
    std::vector<KeyValue> keys;
    for (std::size_t i = 0; i < m_sortColumns.size(); ++i) {
        const SortColumn& column = m_sortColumns[i];
        const std::optional<std::string>& text = m_after->key[i];
        ASDataPtr value = interpret(column.cell.colType(), nullptr, text ? text->size() : 0);
        if (text) value->take(*text);
        const auto* const meta = getColumnMetaEx(column.name);
        const bool isNeverNull = meta != nullptr && meta->second.isNeverNull;
        keys.push_back({&*column.cell.getAttr(), column.descending, isNeverNull, std::move(value)});
    }
    return Parts(std::move(keys)).get();
}

/// The sort keys of the row that was fetched; nothing where no token can hold them.
std::optional<std::vector<std::optional<std::string>>> SelectStmnt::keyOfRow() const {
    if (!m_seeks) return std::nullopt;
    std::vector<std::optional<std::string>> key;
    std::size_t bytes = 0;
    for (const SortColumn& column : m_sortColumns) {
        const ASData& data = *column.cell.getData();
        std::optional<std::string>& value = key.emplace_back();
        if (data.isNull()) continue;
        value = exactText(data, m_dialect.typed);
        if (!value) return std::nullopt;
        bytes += value->size();
    }
    if (bytes > mostPageKeyBytes) return std::nullopt;
    return key;
}

/// How many rows come before the page.
std::int64_t SelectStmnt::rowsBefore() const noexcept {
    return m_after ? m_after->offset : std::max(m_firstRow, 0);
}

/// Of rows in other places, and of what other views show, nobody knows.
bool SelectStmnt::knowsChanges() const {
    if (!m_columns->records || m_nests) return false;
    // Who does without full access sees rows of others where the view is not known to be securable.
    if (m_access.empty() && !QORRowAccess::current().isFull()) return false;
    return m_domain->spread() == nullptr || m_domain->spread()->places() == nullptr;
}

bool SelectStmnt::hasChanged(ASSession& database) const {
    if (m_after->records < 0 || !knowsChanges()) return true;
    return hasChangedSince(database, *m_columns->records, QORRowAccess::current(),
                           {static_cast<std::int64_t>(m_after->change), m_after->records});
}

void SelectStmnt::finishPage(ASSession& database, Page& page) const {
    if (m_after) page.changed = hasChanged(database);
    if (page.isLast) return;
    page.next = m_next;
    page.next.offset = rowsBefore() + page.rows;
    if (page.key) page.next.key = *page.key;
    if (m_after || !knowsChanges()) return;
    const QORRecordState state = recordState(database, *m_columns->records, QORRowAccess::current());
    page.next.change = static_cast<std::uint64_t>(state.change);
    page.next.records = state.records;
}

void SelectStmnt::writeNext(QORBinaryIterator& out, const Page& page) const {
    expectAdded(out.addChild(tag::next));
    if (!page.isLast) expectWritten(out.putValue(sealPageToken(page.next)));
    out.seekUp();
    if (page.changed) expectWritten(out.putValue(*page.changed ? "true" : "false", tag::changed));
}

}  // namespace QOR
