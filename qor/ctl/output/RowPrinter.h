/// \file
/// Rows for people and programs: what an answer's rows look like, and the forms they are printed in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "QORQuery/QORColumnKind.h"
#include "output/Output.h"
#include "output/PersonTimes.h"

namespace QOR {

/// One value of a row. The bytes belong to whoever hands the row over and live for the call.
struct Cell {
    enum class Kind : std::uint8_t { Null, Text, Binary };
    Kind kind = Kind::Null;
    std::string_view bytes;
};

/// The counts that an answer holds when they were asked for.
struct RowCounts {
    std::int64_t rows = 0;   ///< of this page
    std::int64_t total = 0;  ///< of all that match
    bool isBound = false;    ///< there are as many at least
};

/// Takes the rows of one answer in turn: begin once, then rows, then end. One thread.
class RowSink {
public:
    virtual ~RowSink() = default;
    virtual void begin(std::span<const std::string> names) = 0;
    /// \pre as many cells as there are names
    virtual void row(std::span<const Cell> cells) = 0;
    virtual void end(const std::optional<RowCounts>& counts) = 0;
    /// Nothing is waited for any more to decide how rows look: each is put out as it comes.
    virtual void settle() {}
};

/// What is known of columns by their names in the answer; of all others, that they hold texts.
using ColumnKinds = std::map<std::string, QORColumnKind, std::less<>>;

struct RowPrinterOptions {
    std::size_t width = 0;  ///< columns of the terminal that tables are fitted to; 0 cuts nothing
    bool counts = false;    ///< counts were asked for: JSON is then an object that holds them beside the rows
    bool header = true;     ///< a line of names above the rows, where the form has one
    bool colours = false;   ///< of tables and records
    bool prefixes = false;  ///< GUIDs of tables as far as they can be told apart
    bool sizes = false;     ///< columns that hold sizes (bytesOfOne()) are told in units
    TimeForm times = TimeForm::Answered;
    std::int64_t now = 0;  ///< seconds since the epoch, what relative times are told from
    ColumnKinds kinds{};   ///< for forms that tell numbers from texts
    /// What environments are called, which people are shown beside their identifiers; may be filled until the first row
    /// comes. Null: none.
    std::shared_ptr<const std::map<std::string, std::string>> environments{};
};

/// A form that rows are printed in.
struct RowForm {
    std::string_view name;  ///< as people give it
    /// Onto `out`, which must outlive the printer.
    std::unique_ptr<RowSink> (*makePrinter)(const RowPrinterOptions& options, Output& out);
    bool holdsCounts = true;   ///< else counts are told beside it, so that nothing but rows is in the output
    bool isAnswer = false;     ///< the answer itself: its columns stand where the answer has them
    bool tellsKinds = false;   ///< numbers look other than texts
    bool isForLines = false;   ///< each row is whole by itself, so that there need be no end
    bool isForPeople = false;  ///< may be coloured, and times be told as people read them
};

/// All forms, the first of which is taken when nobody says which. They live as long as the process.
///
/// - Table: aligned columns, numbers to the right, a null as "-"; what would disturb a terminal is made visible and
///   what does not fit is cut. Widths are settled by the first 10,000 rows. Counts stand beneath.
/// - Wide: the same, nothing cut.
/// - Record: a field a line, name and value, an empty line between rows; nothing is cut.
/// - Json: an array with an object a row; numbers are numbers, everything else is a text as the answer has it, null is
///   null, binary values and texts that are not UTF-8 are {"base64":"..."}. With counts
///   {"rows":[...],"count":n,"total":m}.
/// - Ndjson: such an object a line. Counts stand beside it.
/// - Csv: RFC 4180 with a header line; a null is an empty field, an empty text "", binary values are base64. Counts
///   stand beside it.
/// - Tsv: tabs between fields; backslash, tab, line feed and carriage return as \\, \t, \n, \r, a null as \N, binary
///   values as base64. Counts stand beside it.
/// - Yaml: a list with a mapping a row, values as in JSON, binary ones tagged !!binary. Counts stand beside it.
/// - Xml: the answer's row set in the XML form of messages, an element of it a line.
std::span<const RowForm> rowForms();
/// \returns the form of that name, null when there is none
const RowForm* findRowForm(std::string_view name);
/// A printer that fills a pattern in for each row: {NAME} becomes the column's value (nothing for a null), {{ and }}
/// are braces, \\n, \\t and \\\\ what they are in C; a line ends behind each row unless the pattern ends with \\n
/// itself. \throws CtlError BadUsage for a pattern that is not well formed, and from begin() for a column that is not
/// there
std::unique_ptr<RowSink> makeTemplatePrinter(std::string_view pattern, Output& out);

/// The kind of each column.
std::vector<QORColumnKind> kindsOf(std::span<const std::string> names, const ColumnKinds& kinds);

/// "10 of 400 rows".
std::string describeCounts(const RowCounts& counts);

}  // namespace QOR
