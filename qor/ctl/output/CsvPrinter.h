/// \file
/// Rows as separated fields: commas as RFC 4180 has them, or tabs.
#pragma once

#include "output/RowPrinter.h"

namespace QOR {

class CsvPrinter final : public RowSink {
public:
    CsvPrinter(const RowPrinterOptions& options, Output& out) : m_header(options.header), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    bool m_header;
    Output& m_out;
};

/// Fields between tabs, a row a line, whatever the values hold.
class TsvPrinter final : public RowSink {
public:
    TsvPrinter(const RowPrinterOptions& options, Output& out) : m_header(options.header), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>&) override {}

private:
    bool m_header;
    Output& m_out;
};

}  // namespace QOR
