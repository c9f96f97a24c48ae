/// \file
/// Rows in the forms that clients ask for. Whoever has rows with typed columns hands them here: selects from views and
/// from sources, and what is told of changes.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QORMessage/QORMessageStore.h"
#include "QORQuery/QORColumnKind.h"

namespace QOR {

/// A column of an answer.
struct AgentColumn {
    std::string name;
    QORColumnKind kind = QORColumnKind::Text;
    bool list = false;  ///< a value may be several: texts between which listSeparator stands
};

/// What is said of a page behind its rows. Members that are not there are not told.
struct AgentPage {
    std::int64_t returned = 0;
    std::optional<std::int64_t> total{};  ///< a lower bound unless it is exact
    std::string exactness{};              ///< "exact", "at_least", "between"; empty where nothing was counted
    std::optional<std::int64_t> most{};   ///< upper bound of the total
    std::optional<std::int64_t> spent{};  ///< milliseconds that counting took
    bool goesOn = false;                  ///< `next` says where; else it is null where pages have ends
    std::optional<std::string> next{};    ///< token of the next page; empty: this is the last
    std::optional<bool> changed{};        ///< whether rows came or went since the first page
};

enum class AgentFormat : std::uint8_t { Json, Ndjson, Csv, Xml, Notation };

/// In the order of the enumerators: words of the parameter `format`, and media types.
inline constexpr std::array<std::string_view, 5> agentFormatWords{"json", "ndjson", "csv", "xml", "notation"};
inline constexpr std::array<std::string_view, 5> agentFormatTypes{
    "application/json", "application/x-ndjson", "text/csv", "application/xml", "application/vnd.qor.notation+json"};

/// Writes one answer. Values come as answers of operators hold them: texts, bytes, or nothing for null.
///
/// JSON: `{"columns":[{"name":"op","type":"text"}],"rows":[["install",0,null]],"page":{...}}`. Whole numbers and
/// numbers are numbers with all their digits; what a number cannot say in JSON is a text ("NaN", "Infinity",
/// "-Infinity"). Times are RFC 3339 with `Z`. Bytes, and texts that are not UTF-8, are `{"base64":"..."}` for texts and
/// base64 for columns of bytes. Lists are arrays.
/// NDJSON: an object a row; the last line is `{"page":{...}}`.
/// CSV: RFC 4180 with the names in the first line; an empty field is null, an empty text is `""`.
/// XML: `<answer><columns><column name="" type=""/></columns><rows><row><v>..</v><v null="true"/></row></rows><page/>`.
/// Notation: as operators answer.
///
/// Used by one thread.
class AgentRowsWriter {
public:
    /// Takes text as it is written. \returns false when no more is wanted
    using Output = std::function<bool(std::string_view)>;
    virtual ~AgentRowsWriter() = default;
    AgentRowsWriter(const AgentRowsWriter&) = delete;
    AgentRowsWriter& operator=(const AgentRowsWriter&) = delete;

    /// What stands before the rows. Once, before everything else.
    virtual void begin(std::vector<AgentColumn> columns) = 0;
    /// As many values as columns.
    virtual void row(std::span<const QORRowValue> values) = 0;
    /// What stands behind them; hands everything over.
    virtual void end(const AgentPage& page) = 0;
    /// Hands over what is held back.
    void flush();

    /// Between the values of a list.
    static constexpr char listSeparator = '\x1f';

protected:
    explicit AgentRowsWriter(Output output) : m_output(std::move(output)) {}
    std::string& text() noexcept { return m_text; }
    /// Hands over when enough has come together.
    void settle() {
        if (m_text.size() >= block) flush();
    }

private:
    static constexpr std::size_t block = std::size_t{64} << 10;

    Output m_output;
    std::string m_text;
};

std::unique_ptr<AgentRowsWriter> makeRowsWriter(AgentFormat format, AgentRowsWriter::Output output);

}  // namespace QOR
