/// \file
/// Rows as the XML form of the answer's row set.
#pragma once

#include "QORMessage/QORMessage.h"
#include "output/RowPrinter.h"

namespace QOR {

/// Column order is the caller's; the answer's own order makes this the answer itself.
class QORXmlPrinter final : public QORRowSink {
public:
    explicit QORXmlPrinter(QOROutput& out) : m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const QORCell> cells) override;
    void end(const std::optional<QORRowCounts>& counts) override;

private:
    void printLines();

    QOROutput& m_out;
    QORMessage m_message;  ///< holds what is printed next
};

}  // namespace QOR
