/// \file
/// Rows as RFC 4180 has them.
#pragma once

#include "output/RowPrinter.h"

namespace QOR {

class CsvPrinter final : public RowSink {
public:
    explicit CsvPrinter(Output& out) : m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    Output& m_out;
};

}  // namespace QOR
