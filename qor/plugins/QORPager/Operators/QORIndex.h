/// \file
/// The last steps of a page: rows in order, and rows as elements of the response.
#pragma once

#include <vector>

#include "QORPager/QORArg.h"
#include "QORPager/QORField.h"

namespace QOR {

class QORMessageIterator;

/// Orders rows by one field. For a source that has to hold its rows before it writes the first of them; those that
/// there are write rows as they come, in an order of their own, and leave sorting to the views. Used by the request
/// that collects the rows, and gone with it.
class QORFieldIndex {
public:
    /// Sorts the rows by the field; without a field they stay as they were collected. Values are read from the rows at
    /// every comparison, and rows with equal values end up in any order.
    void build(bool descending);

    /// Whether `a` comes before `b`. The field must have an order: dates have none.
    bool operator()(const ArgCSP& a, const ArgCSP& b) const;

    std::vector<ArgCSP> rows;
    const QORField* m_pField = nullptr;  ///< null: no order

private:
    bool m_descending = false;
};

/// Writes a row element at the response's position: an element a field, with its value; a field of several values
/// has an element for each of them below its own. Returns to the position.
/// \returns 0, or a non-zero number when the response takes no more, what was written staying there
int writeResultRow(const ArgCSP& row, const std::vector<const QORField*>& fields, QORMessageIterator& response);

}  // namespace QOR
