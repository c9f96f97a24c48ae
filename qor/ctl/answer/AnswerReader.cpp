#include "answer/AnswerReader.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <vector>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORTags.h"
#include "process/CtlError.h"

namespace QOR {
namespace {

/// The source as RapidJSON wants to see it. A zero byte stands for the end, as it does there.
class PieceStream {
public:
    using Ch = char;
    explicit PieceStream(AnswerSource& source) : m_source(source) { fill(); }

    Ch Peek() const { return m_at == m_end ? '\0' : *m_at; }
    Ch Take() {
        if (m_at == m_end) return '\0';
        const Ch c = *m_at++;
        if (m_at == m_end) fill();
        return c;
    }
    std::size_t Tell() const { return m_before + static_cast<std::size_t>(m_at - m_begin); }
    // Writing in place is never asked of a stream that is only read.
    Ch* PutBegin() { return nullptr; }
    void Put(Ch) {}
    void Flush() {}
    std::size_t PutEnd(Ch*) { return 0; }

private:
    void fill() {
        m_before += static_cast<std::size_t>(m_end - m_begin);
        const std::string_view piece = m_source.read();
        m_begin = m_at = piece.data();
        m_end = m_begin + piece.size();
    }

    AnswerSource& m_source;
    std::size_t m_before = 0;
    const char* m_begin = nullptr;
    const char* m_at = nullptr;
    const char* m_end = nullptr;
};

/// What a row set's elements become. Elements come as open, value, close; the path is kept by their tags. Operator
/// "pager" puts names and values into cells, and several values of one cell into cells of their own below it.
class RowSetBuilder {
public:
    explicit RowSetBuilder(RowSink& rows) : m_rows(rows) {}

    void open(QORTag tag) {
        m_path.push_back(tag);
        if (isRow()) m_cells.clear(), m_bytes.clear();
        if (isCell()) m_cells.push_back({Cell::Kind::Null, m_bytes.size(), 0});
        if (isName()) m_names.emplace_back();
    }

    void value(std::string_view bytes, Cell::Kind kind) {
        if (isValue()) {
            StoredCell& cell = m_cells.back();
            if (cell.kind != Cell::Kind::Null) m_bytes += listSeparator;
            m_bytes += bytes;
            cell.kind = kind;
            cell.size = m_bytes.size() - cell.offset;
        } else if (isName()) {
            m_names.back() = bytes;
        } else if (isPath(tag::statistics)) {
            m_rowCount = parseInt64(bytes);
        } else if (isPath(tag::total)) {
            m_totalCount = parseInt64(bytes);
        } else if (isPath(tag::exactness)) {
            m_isBound = bytes != "exact";
        } else if (isPath(tag::next)) {
            m_hasNext = !bytes.empty();
        }
    }

    bool hasNext() const noexcept { return m_hasNext; }

    void close() {
        if (isRow()) giveRow();
        if (m_path.size() == 1 && m_path[0] == tag::rowSet) giveEnd();
        m_path.pop_back();
    }

private:
    /// Between several values of one cell.
    static constexpr std::string_view listSeparator = ", ";

    struct StoredCell {
        Cell::Kind kind;
        std::size_t offset;
        std::size_t size;
    };

    bool isPath(QORTag second) const { return m_path.size() == 2 && m_path[0] == tag::rowSet && m_path[1] == second; }
    /// Whether the path leads from the row set through cells, up to `most` of them, to an element of that tag.
    bool isBelowCells(std::size_t first, std::size_t most, QORTag last) const {
        if (m_path.size() < first + 1 || m_path.size() > first + 1 + most || m_path.back() != last) return false;
        return std::all_of(m_path.begin() + static_cast<std::ptrdiff_t>(first), m_path.end() - 1,
                           [](QORTag tag) { return tag == tag::cell; });
    }
    bool isInRow() const { return m_path.size() > 2 && m_path[0] == tag::rowSet && m_path[1] == tag::row; }
    bool isName() const { return m_path.front() == tag::rowSet && isBelowCells(1, 2, tag::name); }
    bool isRow() const { return isPath(tag::row); }
    bool isCell() const {
        return isInRow() && m_path.size() == 3 && (m_path[2] == tag::value || m_path[2] == tag::cell);
    }
    bool isValue() const { return isInRow() && isBelowCells(2, 2, tag::value); }

    void begin() {
        if (!m_begun) m_rows.begin(m_names);
        m_begun = true;
    }
    void giveRow() {
        begin();
        m_views.resize(m_names.size());
        for (std::size_t at = 0; at < m_views.size(); ++at)
            m_views[at] =
                at < m_cells.size()
                    ? Cell{m_cells[at].kind, std::string_view(m_bytes).substr(m_cells[at].offset, m_cells[at].size)}
                    : Cell{};
        m_rows.row(m_views);
    }
    void giveEnd() {
        begin();
        std::optional<RowCounts> counts;
        if (m_rowCount && m_totalCount) counts = RowCounts{*m_rowCount, *m_totalCount, m_isBound};
        m_rows.end(counts);
    }

    RowSink& m_rows;
    std::vector<QORTag> m_path;
    std::vector<std::string> m_names;
    std::vector<StoredCell> m_cells;
    std::string m_bytes;  ///< of all cells of the row
    std::vector<Cell> m_views;
    std::optional<std::int64_t> m_rowCount;
    std::optional<std::int64_t> m_totalCount;
    bool m_isBound = false;
    bool m_hasNext = false;
    bool m_begun = false;
};

/// Follows the JSON of an answer. Returning false ends the reading.
class AnswerHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, AnswerHandler> {
public:
    explicit AnswerHandler(RowSink& rows) : m_elements(rows) {}

    bool Default() { return false; }
    bool Int(int value) { return number(value); }
    bool Uint(unsigned value) { return number(value); }

    bool StartObject() {
        switch (m_state) {
            case State::Begin:
                m_state = State::Member;
                return true;
            case State::ErrorValue:
                m_state = State::ErrorMember;
                m_error.emplace();
                return true;
            case State::Content:
                m_state = State::BinaryMember;
                return true;
            default:
                return false;
        }
    }

    bool EndObject(rapidjson::SizeType) {
        switch (m_state) {
            case State::Member:
                m_state = State::Done;
                return true;
            case State::ErrorMember:
                m_state = State::Member;
                return true;
            case State::BinaryEnd:
                m_state = State::ElementEnd;
                return true;
            default:
                return false;
        }
    }

    bool Key(const char* text, rapidjson::SizeType size, bool) {
        const std::string_view key(text, size);
        const auto pass = [&](State state, std::string_view name, State next) {
            if (m_state != state || key != name) return false;
            m_state = next;
            return true;
        };
        return pass(State::Member, "response", State::ResponseValue) ||
               pass(State::Member, "error", State::ErrorValue) || pass(State::ErrorMember, "code", State::ErrorCode) ||
               pass(State::ErrorMember, "message", State::ErrorText) ||
               pass(State::BinaryMember, "base64", State::BinaryValue);
    }

    bool StartArray() {
        if (m_state == State::ResponseValue || m_state == State::Content) {
            m_state = State::Elements;
            return true;
        }
        if (m_state != State::Elements) return false;
        m_state = State::Tag;
        return true;
    }

    /// Elements and lists of elements alternate, so the depth tells which of the two ends.
    bool EndArray(rapidjson::SizeType) {
        if (m_state == State::Elements && m_depth == 0) {
            m_state = State::Member;
            return true;
        }
        if (m_state == State::Elements) {
            m_state = State::ElementEnd;
            return true;
        }
        if (m_state != State::Content && m_state != State::ElementEnd) return false;
        m_elements.close();
        --m_depth;
        m_state = State::Elements;
        return true;
    }

    bool String(const char* text, rapidjson::SizeType size, bool) {
        const std::string_view value(text, size);
        switch (m_state) {
            case State::Content:
                m_elements.value(value, Cell::Kind::Text);
                m_state = State::ElementEnd;
                return true;
            case State::BinaryValue:
                return binary(value);
            case State::ErrorText:
                m_error->message = value;
                m_state = State::ErrorMember;
                return true;
            default:
                return false;
        }
    }

    bool isDone() const { return m_state == State::Done; }
    std::optional<AnsweredError>& error() { return m_error; }
    bool hasNext() const noexcept { return m_elements.hasNext(); }

private:
    enum class State {
        Begin,
        Member,
        ResponseValue,
        Elements,  ///< before an element or the end of their list
        Tag,
        Content,  ///< behind an element's tag
        ElementEnd,
        BinaryMember,
        BinaryValue,
        BinaryEnd,
        ErrorValue,
        ErrorMember,
        ErrorCode,
        ErrorText,
        Done,
    };

    bool number(std::int64_t value) {
        if (m_state == State::ErrorCode) {
            m_error->code = static_cast<int>(value);
            m_state = State::ErrorMember;
            return true;
        }
        if (m_state != State::Tag || value <= 0) return false;
        m_elements.open(static_cast<QORTag>(value));
        ++m_depth;
        m_state = State::Content;
        return true;
    }

    bool binary(std::string_view text) {
        const auto bytes = parseBase64(text);
        if (!bytes) return false;
        m_elements.value(*bytes, Cell::Kind::Binary);
        m_state = State::BinaryEnd;
        return true;
    }

    State m_state = State::Begin;
    std::size_t m_depth = 0;
    RowSetBuilder m_elements;
    std::optional<AnsweredError> m_error;
};

}  // namespace

std::optional<AnsweredError> readAnswer(AnswerSource& source, RowSink& rows, bool* hasNext) {
    PieceStream stream(source);
    AnswerHandler handler(rows);
    rapidjson::Reader reader;
    const auto result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
    if (result.IsError() || !handler.isDone())
        throw CtlError(CtlExit::AnsweredError, "the answer cannot be read: " +
                                                   std::string(result.Code() == rapidjson::kParseErrorTermination
                                                                   ? "it is no message notation"
                                                                   : rapidjson::GetParseError_En(result.Code())) +
                                                   " (at byte " + std::to_string(result.Offset()) + ")");
    if (hasNext != nullptr) *hasNext = handler.hasNext();
    return std::move(handler.error());
}

void ColumnOrder::begin(std::span<const std::string> names) {
    std::vector<std::string> known;
    for (std::string& name : m_wanted) {
        const auto found = std::find(names.begin(), names.end(), name);
        if (found == names.end()) continue;
        m_places.push_back(static_cast<std::size_t>(found - names.begin()));
        known.push_back(std::move(name));
    }
    m_cells.resize(m_places.size());
    m_next.begin(known);
}

void ColumnOrder::row(std::span<const Cell> cells) {
    for (std::size_t at = 0; at < m_places.size(); ++at)
        m_cells[at] = cells[m_places[at]];
    m_next.row(m_cells);
}

}  // namespace QOR
