#include <algorithm>
#include <utility>
#include <vector>

#include "QORCommon/QORText.h"
#include "output/RowPrinter.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

/// A text, or the column whose value stands there.
struct Piece {
    bool isColumn = false;
    std::string text;
    std::size_t column = 0;
};

char escaped(char c) {
    switch (c) {
        case 'n':
            return '\n';
        case 't':
            return '\t';
        case '\\':
            return c;
        default:
            throw CtlError::usage(std::string("--template: \\") + c + " means nothing; there are \\n, \\t and \\\\");
    }
}

class PatternReader {
public:
    explicit PatternReader(std::string_view pattern) : m_rest(pattern) {}

    std::vector<Piece> read() {
        while (!m_rest.empty()) {
            const char c = take();
            if (c == '{' && !takeIf('{'))
                readColumn();
            else if (c == '\\')
                readEscape();
            else if (c == '}' && !takeIf('}'))
                throw CtlError::usage("--template: a } that ends nothing (}} is a brace)");
            else
                add(c);
        }
        return std::move(m_pieces);
    }

private:
    char take() {
        const char c = m_rest.front();
        m_rest.remove_prefix(1);
        return c;
    }
    bool takeIf(char c) {
        if (!m_rest.starts_with(c)) return false;
        m_rest.remove_prefix(1);
        return true;
    }
    void add(char c) {
        if (m_pieces.empty() || m_pieces.back().isColumn) m_pieces.emplace_back();
        m_pieces.back().text += c;
    }
    void readEscape() {
        if (m_rest.empty())
            throw CtlError::usage("--template: a \\ at the end means nothing; there are \\n, \\t and \\\\");
        add(escaped(take()));
    }
    void readColumn() {
        const std::size_t end = m_rest.find('}');
        if (end == std::string_view::npos)
            throw CtlError::usage("--template: the } is missing behind {" + std::string(m_rest));
        m_pieces.push_back({true, std::string(m_rest.substr(0, end))});
        m_rest.remove_prefix(end + 1);
    }

    std::string_view m_rest;
    std::vector<Piece> m_pieces;
};

class TemplatePrinter final : public RowSink {
public:
    TemplatePrinter(std::string_view pattern, Output& out) : m_pieces(PatternReader(pattern).read()), m_out(out) {
        m_endsLine = !m_pieces.empty() && m_pieces.back().text.ends_with('\n') && !m_pieces.back().isColumn;
    }

    void begin(std::span<const std::string> names) override {
        for (Piece& piece : m_pieces) {
            if (!piece.isColumn) continue;
            const auto found = std::find(names.begin(), names.end(), piece.text);
            if (found == names.end()) refuse(piece.text, names);
            piece.column = static_cast<std::size_t>(found - names.begin());
        }
    }
    void row(std::span<const Cell> cells) override {
        for (const Piece& piece : m_pieces) {
            if (!piece.isColumn)
                m_out.buffer() += piece.text;
            else if (cells[piece.column].kind == Cell::Kind::Binary)
                appendBase64(cells[piece.column].bytes, m_out.buffer());
            else
                m_out.buffer() += cells[piece.column].bytes;
        }
        if (!m_endsLine) m_out.buffer() += '\n';
        m_out.settle();
    }
    void end(const std::optional<RowCounts>&) override {}

private:
    [[noreturn]] static void refuse(const std::string& name, std::span<const std::string> names) {
        std::string known;
        for (const std::string& each : names)
            known.append(known.empty() ? "" : ", ").append(each);
        throw CtlError::usage("--template: the answer has no column " + quoteText(name) + "; it has " + known);
    }

    std::vector<Piece> m_pieces;
    bool m_endsLine;
    Output& m_out;
};

}  // namespace

std::unique_ptr<RowSink> makeTemplatePrinter(std::string_view pattern, Output& out) {
    return std::make_unique<TemplatePrinter>(pattern, out);
}

}  // namespace QOR
