// Running a select and writing its result element.

#include <algorithm>

#include "QORCommon/QORException.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"

namespace QOR {

namespace {

void addChild(QORBinaryIterator& out, QORTag id) {
    if (out.addChild(id) != 0) {
        throwException(errFailure, "cannot create new child in output message", pager2SourcePath, __LINE__);
    }
}

void expectWritten(int result) {
    if (result != 0) throwException(errFailure, "cannot put value in output message", pager2SourcePath, __LINE__);
}

/// The row that a cursor has fetched, as the answer has it.
class OutputRow {
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
        addChild(out, tag::row);
        for (const QORRowValue& value : m_values) {
            addChild(out, tag::value);
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

ASOrder orderOf(const ColumnCell& cell, bool descending) {
    const ASOrder ascending = cell.getAggrAttr() ? ASOrder(*cell.getAggrAttr()) : ASOrder(*cell.getAttr());
    return descending ? -ascending : ascending;
}

}  // namespace

void SelectStmnt::prepareAccessCheck(ASSession&) const {
    // The restriction is part of the where condition; nothing has to be set up in the database for it.
}

void SelectStmnt::prepareCursor(ASCursor& cursor) const {
    cursor.Select() = toSelect();
}

ASSelect SelectStmnt::toSelect() const {
    ASSelect select;
    ASProject& projection = m_distinct ? select.Filter().DistinctProject() : select.Filter().Project();
    for (const auto& [key, cell] : m_outputFields) {
        if (cell.getAggrAttr()) {
            projection << *cell.getAggrAttr();
        } else {
            projection << *cell.getAttr();
        }
    }
    restrict(select.Filter());
    if (m_pageSize > 0) select.Limit(m_pageSize, std::max(m_firstRow, 0));
    if (m_sortColumns.empty()) return select;
    auto entry = m_sortColumns.begin();
    ASOrder order = orderOf(entry->second.first, entry->second.second);
    for (++entry; entry != m_sortColumns.end(); ++entry)
        order << orderOf(entry->second.first, entry->second.second);
    select.Order(order);
    return select;
}

/// Rows and their count see one state of the database; rows alone see one in any case. Sums are read as a whole, since
/// they may have to be taken twice.
ASAccess SelectStmnt::access() const {
    if (!m_countWanted) return ASAccess::ReadOne;
    const bool sums = std::any_of(m_outputFields.begin(), m_outputFields.end(), [](const auto& field) {
        return field.second.getAggrAttr() && field.second.getAggrAttr()->function() == ASGroupAttribute::Function::Sum;
    });
    if (sums) return ASAccess::Read;
    std::int32_t atOnce = ASCursor::mostRowsAtOnce;
    for (const auto& [key, cell] : m_outputFields) {
        if (const auto data = cell.getData()) atOnce = std::min(atOnce, ASCursor::rowsAtOnce(*data, m_dialect));
    }
    return ASCursor::isLong(m_pageSize, atOnce) ? ASAccess::ReadLong : ASAccess::Read;
}

void SelectStmnt::execute(QORBinaryIterator& out) {
    if (!m_refusal.empty()) throwException(errFailure, m_refusal, pager2SourcePath, __LINE__);
    QORRdbms::instance().read(access(), [&](ASSession& database) { write(out, database); });
}

// Until the first row is there the select may be run anew.
void SelectStmnt::write(QORBinaryIterator& out, ASSession& database) const {
    prepareAccessCheck(database);
    ASCursor cursor(database);
    prepareCursor(cursor);
    bool more = cursor.Fetch();
    addChild(out, tag::rowSet);
    writeColumnNames(out);
    OutputRow row;
    for (const auto& [key, cell] : m_outputFields)
        row.add(*cell.getData());
    try {
        for (; more; more = cursor.Fetch())
            row.write(out);
        if (m_countWanted) writeCounts(out, database, cursor);
    } catch (const AException& failure) {
        if (failure.failure() != ASFailure::Undone) throw;
        throw AException(failure.text(), failure.sqlState(), failure.nativeCode());
    }
    out.seekUp();
}

void SelectStmnt::writeColumnNames(QORBinaryIterator& out) const {
    for (const auto& [key, cell] : m_outputFields) {
        addChild(out, tag::name);
        expectWritten(out.putValue(cell.displayName()));
        out.seekUp();
    }
}

void SelectStmnt::writeCounts(QORBinaryIterator& out, ASSession& database, const ASCursor& cursor) const {
    std::int64_t total = 0;
    const bool counted = countUnlimited(database, total);
    expectWritten(out.putInt(counted ? static_cast<std::int32_t>(cursor.GetAmount()) : 0, tag::statistics));
    expectWritten(out.putInt64(counted ? total : 0, tag::total));
}

bool SelectStmnt::countUnlimited(ASSession& database, std::int64_t& total) const {
    const auto count = std::make_shared<ASInt64>();
    ASGroupAttribute allRows;
    allRows.Register(count, m_domain);
    ASCursor cursor(database);
    ASProject& projection = m_distinct ? cursor.Filter().DistinctProject() : cursor.Filter().Project();
    projection << allRows;
    restrict(cursor.Filter());
    if (!cursor.Fetch()) return false;
    total = count->value();
    return true;
}

std::string SelectStmnt::asSQLString() const {
    return m_parent == nullptr ? toSelect().Query(m_dialect) : ASNestedSelect(toSelect(), m_dialect).Query();
}

}  // namespace QOR
