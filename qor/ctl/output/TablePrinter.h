/// \file
/// Rows as an aligned table.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "output/RowPrinter.h"

namespace QOR {

/// Holds back the first rows to settle the widths of the columns, then prints as rows come, so that neither memory nor
/// the wait for the first line grows with the answer. Where a terminal is too narrow to give each column a readable
/// width, each row becomes a block of lines, a column a line.
class TablePrinter final : public RowSink {
public:
    TablePrinter(RowPrinterOptions options, Output& out) : m_options(std::move(options)), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;
    void settle() override;

private:
    struct Column {
        std::string name;
        std::size_t width = 0;
        QORColumnKind kind = QORColumnKind::Text;
        bool numbers = true;  ///< nothing but numbers and nulls so far
        bool any = false;     ///< a value that is not null
    };

    void render(std::span<const Cell> cells);
    void settleColumns();
    std::vector<std::string> namesOfHeld() const;
    void shortenIdentifiers();
    void measureIdentifiers();
    bool fitColumns();
    void printHeader();
    void printHeldRows();
    void printLine(std::span<const std::string> values);
    void printBlock(std::span<const std::string> values);
    void printPadded(std::string_view text, const Column& column);
    bool alignsRight(const Column& column) const { return column.numbers && column.any; }
    std::size_t width() const { return m_options.width; }

    RowPrinterOptions m_options;
    Output& m_out;
    std::vector<Column> m_columns;
    std::vector<std::string> m_held;  ///< rendered values of the rows held back, row by row
    std::vector<std::string> m_values;
    std::size_t m_rows = 0;
    bool m_settled = false;
    bool m_blocks = false;
    bool m_anyBlock = false;
};

/// A field a line, whole, and an empty line between rows.
class RecordPrinter final : public RowSink {
public:
    RecordPrinter(RowPrinterOptions options, Output& out) : m_options(std::move(options)), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    RowPrinterOptions m_options;
    Output& m_out;
    std::vector<std::string> m_names;  ///< padded to one width
    std::vector<QORColumnKind> m_kinds;
    std::string m_value;
    bool m_any = false;
};

}  // namespace QOR
