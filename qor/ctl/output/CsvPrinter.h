/// \file
/// Rows as RFC 4180 has them.
#pragma once

#include "output/RowPrinter.h"

namespace QOR {

class QORCsvPrinter final : public QORRowSink {
public:
    explicit QORCsvPrinter(QOROutput& out) : m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const QORCell> cells) override;
    void end(const std::optional<QORRowCounts>& counts) override;

private:
    QOROutput& m_out;
};

}  // namespace QOR
