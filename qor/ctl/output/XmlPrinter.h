/// \file
/// Rows as the XML form of the answer's row set.
#pragma once

#include "QORMessage/QORMessage.h"
#include "output/RowPrinter.h"

namespace QOR {

/// Column order is the caller's; the answer's own order makes this the answer itself.
class XmlPrinter final : public RowSink {
public:
    explicit XmlPrinter(Output& out) : m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    void printLines();

    Output& m_out;
    QORMessage m_message;  ///< holds what is printed next
};

}  // namespace QOR
