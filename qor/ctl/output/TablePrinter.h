/// \file
/// Rows as an aligned table.
#pragma once

#include <string>
#include <vector>

#include "output/RowPrinter.h"

namespace QOR {

/// Holds back the first rows to settle the widths of the columns, then prints as rows come, so that neither memory nor
/// the wait for the first line grows with the answer. Where a terminal is too narrow to give each column a readable
/// width, each row becomes a block of lines, a column a line.
class TablePrinter final : public RowSink {
public:
    /// \param width columns to fit into, 0 for as many as are needed
    TablePrinter(std::size_t width, bool header, Output& out) : m_width(width), m_header(header), m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    struct Column {
        std::string name;
        std::size_t width = 0;
        bool numbers = true;  ///< nothing but numbers and nulls so far
        bool any = false;     ///< a value that is not null
    };

    void render(std::span<const Cell> cells);
    void settleColumns();
    bool fitColumns();
    void printHeader();
    void printHeldRows();
    void printLine(std::span<const std::string> values);
    void printBlock(std::span<const std::string> values);
    bool alignsRight(const Column& column) const { return column.numbers && column.any; }

    std::size_t m_width;
    bool m_header;
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
    explicit RecordPrinter(Output& out) : m_out(out) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

private:
    Output& m_out;
    std::vector<std::string> m_names;  ///< padded to one width
    std::string m_value;
    bool m_any = false;
};

}  // namespace QOR
