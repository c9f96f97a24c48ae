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
    static constexpr std::size_t guidLength = 36;

    struct Column {
        std::string name;
        std::size_t width = 0;
        std::size_t values = 0;  ///< of the widest value
        QORColumnKind kind = QORColumnKind::Text;
        std::uint64_t bytes = 0;  ///< of one of its numbers; 0: they are no sizes, or told as they are
        bool numbers = true;      ///< nothing but numbers and nulls so far
        bool any = false;         ///< a value that is not null
    };

    void render(std::span<const Cell> cells);
    void settleColumns();
    std::vector<std::string> namesOfHeld() const;
    void shortenIdentifiers();
    void measureIdentifiers();
    bool fitColumns();
    bool mayBeCut(const Column& column) const;
    std::size_t leastWidth(const Column& column) const;
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
    std::size_t m_guid = guidLength;  ///< characters of an identifier that are shown
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
    std::vector<std::uint64_t> m_bytes;  ///< as Column::bytes of tables
    std::string m_value;
    bool m_any = false;
};

}  // namespace QOR
