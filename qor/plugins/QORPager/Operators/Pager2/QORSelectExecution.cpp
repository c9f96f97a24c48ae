// Running a select and writing its result element.

#include <algorithm>
#include <limits>

#include "QORCommon/QORException.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"

namespace QOR {

namespace {

void project(ASProject& projection, const ColumnCell& cell) {
    if (cell.getAggrAttr()) {
        projection << *cell.getAggrAttr();
    } else {
        projection << *cell.getAttr();
    }
}

template <class SortColumn>
ASOrder orderOf(const SortColumn& column) {
    const ColumnCell& cell = column.cell;
    const ASOrder ascending = cell.getAggrAttr() ? ASOrder(*cell.getAggrAttr()) : ASOrder(*cell.getAttr());
    return column.descending ? -ascending : ascending;
}

}  // namespace

/// The row that a cursor has fetched, as the answer has it.
class SelectStmnt::OutputRow {
public:
    void add(const ASData& data) {
        m_columns.push_back({&data, {}});
        m_values.emplace_back();
    }

    void write(QORBinaryIterator& out) {
        for (std::size_t i = 0; i < m_columns.size(); ++i)
            m_values[i] = valueOf(m_columns[i]);
        if (!out.giveRow(m_values)) writeElements(out);
    }

private:
    struct Column {
        const ASData* data;
        ASTextBuffer scratch;  ///< of the present row's text
    };

    static QORRowValue valueOf(Column& column) {
        const ASData& data = *column.data;
        if (data.isNull()) return {};
        const bool bytes = data.type() == ColumnType::Blob;
        return {data.text(column.scratch), bytes ? QORValueKind::Binary : QORValueKind::Text};
    }

    void writeElements(QORBinaryIterator& out) const {
        expectAdded(out.addChild(tag::row));
        for (const QORRowValue& value : m_values) {
            expectAdded(out.addChild(tag::value));
            if (value.kind == QORValueKind::Binary)
                expectWritten(out.putBinary(value.bytes.data(), value.bytes.size()));
            if (value.kind == QORValueKind::Text) expectWritten(out.putValue(value.bytes));
            out.seekUp();
        }
        out.seekUp();
    }

    std::vector<Column> m_columns;
    std::vector<QORRowValue> m_values;
};

void SelectStmnt::prepareAccessCheck(ASSession&) const {
    // The restriction is part of the where condition; nothing has to be set up in the database for it.
}

void SelectStmnt::prepareCursor(ASCursor& cursor) const {
    cursor.Select() = toSelect();
}

ASSelect SelectStmnt::toSelect(const ASComparison& behind, std::int64_t most, std::int64_t offset) const {
    ASSelect select;
    ASProject& projection = m_distinct ? select.Filter().DistinctProject() : select.Filter().Project();
    for (const OutputField& field : m_outputFields)
        project(projection, field.cell);
    for (const SortColumn& column : m_sortColumns) {
        if (column.isHidden) project(projection, column.cell);
    }
    restrict(select.Filter(), behind);
    constexpr std::int64_t largest = std::numeric_limits<std::int32_t>::max();
    if (most > 0)
        select.Limit(static_cast<std::int32_t>(std::min(most, largest)),
                     static_cast<std::int32_t>(std::min(offset, largest)));
    if (m_sortColumns.empty()) return select;
    ASOrder order = orderOf(m_sortColumns.front());
    for (std::size_t i = 1; i < m_sortColumns.size(); ++i)
        order << orderOf(m_sortColumns[i]);
    select.Order(order);
    return select;
}

/// Rows and their count see one state of the database; rows alone see one in any case. Sums are read as a whole, since
/// they may have to be taken twice.
ASAccess SelectStmnt::access() const {
    if (isPaged()) return ASAccess::Read;
    if (m_counting == Counting::None || m_counting == Counting::PageOnly) return ASAccess::ReadOne;
    const bool sums = std::any_of(m_outputFields.begin(), m_outputFields.end(), [](const OutputField& field) {
        const auto& aggregate = field.cell.getAggrAttr();
        return aggregate && aggregate->function() == ASGroupAttribute::Function::Sum;
    });
    if (sums) return ASAccess::Read;
    std::int32_t atOnce = ASCursor::mostRowsAtOnce;
    for (const OutputField& field : m_outputFields) {
        if (const auto data = field.cell.getData()) atOnce = std::min(atOnce, ASCursor::rowsAtOnce(*data, m_dialect));
    }
    return ASCursor::isLong(m_pageSize, atOnce) ? ASAccess::ReadLong : ASAccess::Read;
}

void SelectStmnt::execute(QORBinaryIterator& out) {
    if (!m_refusal.empty()) throwException(errFailure, m_refusal, pager2SourcePath, __LINE__);
    if (isPaged()) preparePageTokens();
    QORRdbms::instance().read(access(), [&](ASSession& database) { write(out, database); });
}

void SelectStmnt::write(QORBinaryIterator& out, ASSession& database) const {
    prepareAccessCheck(database);
    bool begun = false;
    try {
        Page page = writeRows(out, database, begun);
        if (isPaged()) finishPage(database, page);
        // A count that takes too long ends the transaction, so nothing is asked for behind it.
        if (m_counting != Counting::None) writeCounts(out, database, page);
        if (isPaged()) writeNext(out, page);
    } catch (const AException& failure) {
        if (!begun || failure.failure() != ASFailure::Undone) throw;
        throw AException(failure.text(), failure.sqlState(), failure.nativeCode());
    }
    out.seekUp();
}

// One row more than the page has tells whether it is the last.
ASSelect SelectStmnt::toPart(const ASComparison& behind, std::int64_t written) const {
    if (!isPaged()) return toSelect();
    const std::int64_t offset = m_after && m_after->key.empty() ? m_after->offset : std::max(m_firstRow, 0);
    return toSelect(behind, std::int64_t{m_pageSize} + 1 - written, offset);
}

/// The same without a page token, as it is written each time.
const ASSelect& SelectStmnt::firstPart() const {
    if (!m_firstPart) m_firstPart.emplace(toPart({}, 0)).keepWritten();
    return *m_firstPart;
}

// Until the first row is there the select may be run anew.
SelectStmnt::Page SelectStmnt::writeRows(QORBinaryIterator& out, ASSession& database, bool& begun) const {
    Page page;
    OutputRow row;
    for (const OutputField& field : m_outputFields)
        row.add(*field.cell.getData());
    for (const ASComparison& behind : behindAfter()) {
        ASCursor cursor(database);
        cursor.Select() = m_after ? toPart(behind, page.rows) : firstPart();
        bool more = cursor.Fetch();
        if (!begun) writeBegin(out);
        begun = true;
        for (; more; more = cursor.Fetch()) {
            page.isLast = !isPaged() || page.rows < m_pageSize;
            if (!page.isLast) return page;
            row.write(out);
            if (++page.rows == m_pageSize && isPaged()) page.key = keyOfRow();
        }
    }
    return page;
}

void SelectStmnt::writeBegin(QORBinaryIterator& out) const {
    expectAdded(out.addChild(tag::rowSet));
    for (const OutputField& field : m_outputFields) {
        expectAdded(out.addChild(tag::name));
        expectWritten(out.putValue(field.cell.displayName()));
        out.seekUp();
    }
}

void SelectStmnt::expectAdded(int result) {
    if (result != 0) {
        throwException(errFailure, "cannot create new child in output message", pager2SourcePath, __LINE__);
    }
}

void SelectStmnt::expectWritten(int result) {
    if (result != 0) throwException(errFailure, "cannot put value in output message", pager2SourcePath, __LINE__);
}

std::string SelectStmnt::asSQLString() const {
    return m_parent == nullptr ? toSelect().Query(m_dialect) : ASNestedSelect(toSelect(), m_dialect).Query();
}

std::vector<std::string> SelectStmnt::asSQLStrings() const {
    std::vector<std::string> texts;
    for (const ASComparison& behind : behindAfter())
        texts.push_back(toPart(behind, 0).Query(m_dialect));
    return texts;
}

}  // namespace QOR
