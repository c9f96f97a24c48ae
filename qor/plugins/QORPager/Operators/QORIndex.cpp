#include "QORPager/Operators/QORIndex.h"

#include <algorithm>
#include <cassert>

#include "QORMessage/QORMessageIterator.h"
#include "QORPager/Operators/Pager/QORPagerErrors.h"

namespace QOR {

namespace {

int writeSingle(const QORArg& row, const QORField& field, QORMessageIterator& cell) {
    return cell.putValue(field.getValue(row), tag::value);
}

/// One value, or none, looks like that of a field of single values.
int writeMulti(const QORArg& row, const QORField& field, QORMessageIterator& cell) {
    bool last = true;
    std::string text = field.getValue(row, last, 0);
    if (last) return cell.putValue(text, tag::value);
    for (int index = 0;;) {
        if (cell.addChild(tag::cell) != 0) return failed;
        const int result = cell.putValue(text, tag::value);
        cell.seekUp();
        if (result != 0 || last) return result;
        text = field.getValue(row, last, ++index);
    }
}

int writeCell(const QORArg& row, const QORField& field, QORMessageIterator& response) {
    if (response.addChild(tag::cell) != 0) return failed;
    int result = 0;
    switch (field.structType) {
        case FieldStructType::Single:
            result = writeSingle(row, field, response);
            break;
        case FieldStructType::Multi:
            result = writeMulti(row, field, response);
            break;
    }
    response.seekUp();
    return result;
}

}  // namespace

void QORFieldIndex::build(bool descending) {
    m_descending = descending;
    if (m_pField == nullptr) return;
    // Not the object itself: sorting copies its comparison, and this one holds the rows.
    const auto before = [this](const ArgCSP& a, const ArgCSP& b) { return (*this)(a, b); };
    std::sort(rows.begin(), rows.end(), before);
}

bool QORFieldIndex::operator()(const ArgCSP& a, const ArgCSP& b) const {
    assert(m_pField->lessValueFunc);
    return m_descending ? m_pField->lessValueFunc(*b, *a, *m_pField) : m_pField->lessValueFunc(*a, *b, *m_pField);
}

int writeResultRow(const ArgCSP& row, const std::vector<const QORField*>& fields, QORMessageIterator& response) {
    if (response.addChild(tag::row) != 0) return failed;
    for (const QORField* field : fields) {
        if (writeCell(*row, *field, response) != 0) {
            response.seekUp();
            return failed;
        }
    }
    return response.seekUp();
}

}  // namespace QOR
