#include "output/TablePrinter.h"

#include <algorithm>
#include <array>

#include "QORCommon/QORNumbers.h"
#include "output/PersonSize.h"
#include "output/TextWidth.h"

namespace QOR {
namespace {

constexpr std::size_t rowsHeldBack = 10'000;
constexpr std::size_t leastColumnWidth = 8;  ///< of a text that is cut
// Of values that are not known yet.
constexpr std::size_t timeWidth = 24;
constexpr std::size_t textLength = 12;
constexpr std::size_t numberLength = 8;
constexpr std::string_view gap = "  ";
constexpr std::string_view nullSign = "-";
constexpr std::size_t binaryBytesShown = 64;

void appendHex(std::string_view bytes, std::string& out) {
    constexpr std::string_view digits = "0123456789abcdef";
    out += "0x";
    for (const char c : bytes.substr(0, binaryBytesShown)) {
        out += digits[static_cast<unsigned char>(c) >> 4U];
        out += digits[static_cast<unsigned char>(c) & 15U];
    }
    if (bytes.size() > binaryBytesShown) out += "...";
}

constexpr std::string_view bold = "\x1b[1m";
constexpr std::string_view faint = "\x1b[2m";
constexpr std::string_view plain = "\x1b[0m";

/// Lengths at which a GUID may be cut: in front of its hyphens.
constexpr std::array<std::size_t, 4> prefixLengths{8, 13, 18, 23};

/// A whole number of a column that holds sizes. \param unit bytes of one
std::optional<std::string> sizeOf(const Cell& cell, std::uint64_t unit) {
    if (unit == 0 || cell.kind != Cell::Kind::Text) return std::nullopt;
    const std::optional<std::int64_t> number = parseInt64(cell.bytes);
    if (!number || *number < 0 || static_cast<std::uint64_t>(*number) > UINT64_MAX / unit) return std::nullopt;
    return showSize(static_cast<std::uint64_t>(*number) * unit);
}

void renderCell(const Cell& cell, QORColumnKind kind, std::uint64_t unit, const RowPrinterOptions& options,
                std::string& value) {
    value.clear();
    if (auto size = sizeOf(cell, unit)) {
        value = std::move(*size);
        return;
    }
    if (cell.kind == Cell::Kind::Null)
        value = nullSign;
    else if (cell.kind == Cell::Kind::Binary)
        appendHex(cell.bytes, value);
    else if (kind == QORColumnKind::Time)
        appendVisible(showTime(cell.bytes, options.times, options.now), value);
    else
        appendVisible(cell.bytes, value);
}

/// In a colour, where there are colours and there is something to see.
void appendColoured(std::string_view text, std::string_view colour, bool colours, std::string& out) {
    const std::size_t end = text.find_last_not_of(' ') + 1;
    if (!colours || end == 0) {
        out += text;
        return;
    }
    out.append(colour).append(text.substr(0, end)).append(plain).append(text.substr(end));
}

void appendPadded(std::string_view text, std::size_t width, bool right, std::string& out) {
    const std::size_t taken = textWidth(text);
    const std::size_t blanks = taken < width ? width - taken : 0;
    if (right) out.append(blanks, ' ');
    out += text;
    if (!right) out.append(blanks, ' ');
}

void dropTrailingBlanks(std::string& line) {
    line.erase(line.find_last_not_of(' ') + 1);
}

}  // namespace

void TablePrinter::begin(std::span<const std::string> names) {
    for (const std::string& name : names) {
        Column column;
        appendVisible(name, column.name);
        column.width = m_options.header ? textWidth(column.name) : 0;
        m_columns.push_back(std::move(column));
    }
    m_values.resize(m_columns.size());
    const std::vector<QORColumnKind> kinds = kindsOf(names, m_options.kinds);
    for (std::size_t at = 0; at < m_columns.size(); ++at)
        m_columns[at].kind = kinds[at];
    if (!m_options.sizes) return;
    for (std::size_t at = 0; at < m_columns.size(); ++at)
        m_columns[at].bytes = bytesOfOne(names[at]);
}

void TablePrinter::render(std::span<const Cell> cells) {
    for (std::size_t at = 0; at < cells.size(); ++at)
        renderCell(cells[at], m_columns[at].kind, m_columns[at].bytes, m_options, m_values[at]);
}

void TablePrinter::row(std::span<const Cell> cells) {
    ++m_rows;
    render(cells);
    if (m_settled) return m_blocks ? printBlock(m_values) : printLine(m_values);
    for (std::size_t at = 0; at < cells.size(); ++at) {
        Column& column = m_columns[at];
        column.values = std::max(column.values, textWidth(m_values[at]));
        column.width = std::max(column.width, column.values);
        if (cells[at].kind == Cell::Kind::Null) continue;
        column.any = true;
        column.numbers = column.numbers && cells[at].kind == Cell::Kind::Text && parseDouble(cells[at].bytes);
    }
    m_held.insert(m_held.end(), m_values.begin(), m_values.end());
    if (m_rows == rowsHeldBack) settleColumns();
}

void TablePrinter::settleColumns() {
    m_settled = true;
    const std::vector<std::string> names = namesOfHeld();
    if (m_options.prefixes && m_rows < rowsHeldBack) shortenIdentifiers();
    for (std::size_t at = 0; at < names.size(); ++at)
        m_held[at] += names[at];
    measureIdentifiers();
    m_blocks = !fitColumns();
    if (!m_blocks && m_options.header) printHeader();
    printHeldRows();
}

/// Widths that do for most values, of a table whose rows are not known.
void TablePrinter::settle() {
    if (m_settled) return;
    for (Column& column : m_columns) {
        const std::size_t typical = column.kind == QORColumnKind::Time         ? timeWidth
                                    : column.kind == QORColumnKind::Identifier ? guidLength
                                    : column.kind == QORColumnKind::Text       ? textLength
                                                                               : numberLength;
        column.values = typical;
        column.width = std::max(column.width, typical);
        column.any = true;
        column.numbers = column.kind == QORColumnKind::Integer || column.kind == QORColumnKind::Number;
    }
    settleColumns();
}

/// What is to be told behind each value that is held.
std::vector<std::string> TablePrinter::namesOfHeld() const {
    if (m_options.environments == nullptr || m_options.environments->empty()) return {};
    std::vector<std::string> names(m_held.size());
    for (std::size_t at = 0; at < m_held.size(); ++at) {
        if (m_columns[at % m_columns.size()].kind != QORColumnKind::Identifier) continue;
        const auto found = m_options.environments->find(m_held[at]);
        if (found == m_options.environments->end()) continue;
        names[at] = " ";
        appendVisible(found->second, names[at]);
    }
    return names;
}

/// Where all rows are known, so that no later one is taken for an earlier: to the first length at which all GUIDs of
/// the table that differ still do.
void TablePrinter::shortenIdentifiers() {
    std::vector<std::string*> shown;
    for (std::size_t at = 0; at < m_held.size(); ++at) {
        const Column& column = m_columns[at % m_columns.size()];
        if (column.kind == QORColumnKind::Identifier && m_held[at].size() == guidLength) shown.push_back(&m_held[at]);
    }
    std::vector<std::string_view> guids(shown.size());
    std::transform(shown.begin(), shown.end(), guids.begin(),
                   [](const std::string* guid) { return std::string_view(*guid); });
    std::sort(guids.begin(), guids.end());
    guids.erase(std::unique(guids.begin(), guids.end()), guids.end());
    const auto tellsApart = [&](std::size_t length) {
        return std::adjacent_find(guids.begin(), guids.end(), [length](std::string_view a, std::string_view b) {
                   return a.substr(0, length) == b.substr(0, length);
               }) == guids.end();
    };
    const auto* const length = std::find_if(prefixLengths.begin(), prefixLengths.end(), tellsApart);
    if (length == prefixLengths.end()) return;
    m_guid = *length;
    for (std::string* const guid : shown)
        guid->resize(*length);
}

void TablePrinter::measureIdentifiers() {
    for (std::size_t at = 0; at < m_columns.size(); ++at) {
        Column& column = m_columns[at];
        if (column.kind != QORColumnKind::Identifier || m_held.empty()) continue;
        column.width = m_options.header ? textWidth(column.name) : 0;
        for (std::size_t value = at; value < m_held.size(); value += m_columns.size())
            column.width = std::max(column.width, textWidth(m_held[value]));
    }
}

/// A number, a size or a time of which the end is missing is taken for another one.
bool TablePrinter::mayBeCut(const Column& column) const {
    return !alignsRight(column) && column.bytes == 0 && column.kind != QORColumnKind::Time;
}

std::size_t TablePrinter::leastWidth(const Column& column) const {
    // What is cut from an identifier is the name behind it.
    const std::size_t least = column.kind == QORColumnKind::Identifier ? m_guid + 1
                              : mayBeCut(column)                       ? leastColumnWidth
                                                                       : column.values;
    return std::min(column.width, least);
}

/// Takes from the widest columns until the line fits. False when it cannot be made to.
bool TablePrinter::fitColumns() {
    if (width() == 0 || m_columns.empty()) return true;
    const std::size_t gaps = gap.size() * (m_columns.size() - 1);
    std::size_t needed = gaps;
    std::size_t least = gaps;
    for (const Column& column : m_columns) {
        needed += column.width;
        least += leastWidth(column);
    }
    if (least > width()) return false;
    if (needed <= width()) return true;
    // The widest common bound under which all fit; what rounding leaves over goes to the first columns it helps.
    std::size_t bound = 0;
    const auto taken = [&](std::size_t most) {
        std::size_t sum = gaps;
        for (const Column& column : m_columns)
            sum += std::min(column.width, std::max(most, leastWidth(column)));
        return sum;
    };
    while (taken(bound + 1) <= width())
        ++bound;
    std::size_t left = width() - taken(bound);
    for (Column& column : m_columns) {
        if (column.width <= bound) continue;
        const std::size_t most = std::max(bound, leastWidth(column));
        if (column.width <= most) continue;
        const bool isHelped = left > 0 && most == bound;
        column.width = most + (isHelped ? 1 : 0);
        left -= isHelped ? 1 : 0;
    }
    return true;
}

void TablePrinter::printHeader() {
    std::string names;
    std::string rules;
    for (const Column& column : m_columns) {
        if (!names.empty()) names += gap, rules += gap;
        const std::string name = width() == 0 ? column.name : cutToWidth(column.name, column.width);
        appendPadded(name, column.width, alignsRight(column), names);
        rules.append(column.width, '-');
    }
    dropTrailingBlanks(names);
    appendColoured(names, bold, m_options.colours, m_out.buffer());
    m_out << "\n" << rules << "\n";
}

void TablePrinter::printPadded(std::string_view text, const Column& column) {
    std::string padded;
    appendPadded(text, column.width, alignsRight(column), padded);
    const bool isFaint = m_options.colours && text == nullSign;
    appendColoured(padded, faint, isFaint, m_out.buffer());
}

void TablePrinter::printHeldRows() {
    for (std::size_t at = 0; at < m_held.size(); at += m_columns.size()) {
        const std::span<const std::string> values(m_held.data() + at, m_columns.size());
        if (m_blocks)
            printBlock(values);
        else
            printLine(values);
    }
    m_held = {};
}

void TablePrinter::printLine(std::span<const std::string> values) {
    std::string& buffer = m_out.buffer();
    const std::size_t begin = buffer.size();
    for (std::size_t at = 0; at < values.size(); ++at) {
        const Column& column = m_columns[at];
        if (at > 0) buffer += gap;
        printPadded(width() == 0 ? values[at] : cutToWidth(values[at], column.width), column);
    }
    const std::size_t last = buffer.find_last_not_of(' ');
    buffer.erase(last == std::string::npos || last < begin ? begin : last + 1);
    buffer += '\n';
    m_out.settle();
}

void TablePrinter::printBlock(std::span<const std::string> values) {
    std::size_t widest = 0;
    for (const Column& column : m_columns)
        widest = std::max(widest, textWidth(column.name));
    widest = std::min(widest, width() / 2);
    if (m_anyBlock) m_out << "\n";
    m_anyBlock = true;
    for (std::size_t at = 0; at < values.size(); ++at) {
        std::string name;
        appendPadded(cutToWidth(m_columns[at].name, std::max<std::size_t>(widest, 1)), widest, false, name);
        std::string line;
        appendColoured(name, bold, m_options.colours, line);
        line += gap;
        const std::size_t room = width() > widest + gap.size() ? width() - widest - gap.size() : 1;
        line += mayBeCut(m_columns[at]) ? cutToWidth(values[at], room) : values[at];
        dropTrailingBlanks(line);
        m_out << line << "\n";
    }
}

void TablePrinter::end(const std::optional<RowCounts>& counts) {
    if (!m_settled) settleColumns();
    if (counts)
        m_out << (m_rows > 0 ? "\n" : "") << describeCounts(*counts) << "\n";
    else if (m_rows == 0 && !m_columns.empty() && m_options.header)
        m_out << "no rows\n";
}

void RecordPrinter::begin(std::span<const std::string> names) {
    std::size_t widest = 0;
    for (const std::string& name : names) {
        appendVisible(name, m_names.emplace_back());
        widest = std::max(widest, textWidth(m_names.back()));
    }
    for (std::string& name : m_names)
        name.append(widest - textWidth(name) + gap.size(), ' ');
    m_kinds = kindsOf(names, m_options.kinds);
    for (const std::string& name : names)
        m_bytes.push_back(m_options.sizes ? bytesOfOne(name) : 0);
}

void RecordPrinter::row(std::span<const Cell> cells) {
    if (m_any) m_out.buffer() += '\n';
    m_any = true;
    for (std::size_t at = 0; at < cells.size(); ++at) {
        renderCell(cells[at], m_kinds[at], m_bytes[at], m_options, m_value);
        if (m_kinds[at] == QORColumnKind::Identifier && m_options.environments != nullptr) {
            const auto name = m_options.environments->find(m_value);
            if (name != m_options.environments->end()) appendVisible(" " + name->second, m_value);
        }
        const std::size_t begin = m_out.buffer().size();
        appendColoured(m_names[at], bold, m_options.colours, m_out.buffer());
        m_out.buffer().append(m_value);
        m_out.buffer().erase(std::max(begin, m_out.buffer().find_last_not_of(' ') + 1));
        m_out.buffer() += '\n';
    }
    m_out.settle();
}

void RecordPrinter::end(const std::optional<RowCounts>& counts) {
    if (counts) m_out << (m_any ? "\n" : "") << describeCounts(*counts) << "\n";
}

}  // namespace QOR
