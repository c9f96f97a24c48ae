/// \file
/// The element of the response that holds the rows, while a source writes it.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORMessage/QORTags.h"
#include "QORPager/QORArg.h"
#include "QORPager/QORField.h"

namespace QOR {

class QORMessageIterator;

/// The response took no more: what was written of the row set is of no use.
class QORResponseFull : public QORException {
public:
    QORResponseFull();
    ~QORResponseFull() override;
};

/// Opens a row set at the response's position and names the columns. The response itself does not move. Every
/// operation throws QORResponseFull when the message takes no more.
class QORRowSet {
public:
    QORRowSet(const QORMessageIterator& response, const std::vector<const QORField*>& fields);
    ~QORRowSet();
    QORRowSet(const QORRowSet&) = delete;
    QORRowSet& operator=(const QORRowSet&) = delete;

    void writeRow(const ArgCSP& row);
    /// A row of single values, as valueOf(field) gives them.
    template <class ValueOf>
    void writeValues(ValueOf valueOf) {
        openRow();
        for (const QORField* field : m_fields)
            writeValue(valueOf(*field));
        closeRow();
    }
    /// Something that is told behind the rows.
    void writeText(QORTag what, std::string_view text);
    void writeNumber(QORTag what, std::int64_t number);
    void writeFlag(QORTag what);
    /// The numbers of rows that were written, and that there are without a limit.
    void writeStatistics(std::int64_t written, std::int64_t total);

private:
    void writeRowSetHeader();
    void openRow();
    void writeValue(std::string_view value);
    void closeRow();

    std::unique_ptr<QORMessageIterator> m_at;
    const std::vector<const QORField*>& m_fields;
};

}  // namespace QOR
