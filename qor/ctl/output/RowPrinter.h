/// \file
/// Rows for people and programs: what an answer's rows look like, and the forms they are printed in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "output/Output.h"

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
};

/// Takes the rows of one answer in turn: begin once, then rows, then end. One thread.
class RowSink {
public:
    virtual ~RowSink() = default;
    virtual void begin(std::span<const std::string> names) = 0;
    /// \pre as many cells as there are names
    virtual void row(std::span<const Cell> cells) = 0;
    virtual void end(const std::optional<RowCounts>& counts) = 0;
};

struct RowPrinterOptions {
    std::size_t width = 0;  ///< columns of the terminal that tables are fitted to; 0 cuts nothing
    bool counts = false;    ///< counts were asked for: JSON is then an object that holds them beside the rows
};

/// A form that rows are printed in.
struct RowForm {
    std::string_view name;  ///< as people give it
    /// Onto `out`, which must outlive the printer.
    std::unique_ptr<RowSink> (*makePrinter)(const RowPrinterOptions& options, Output& out);
    bool holdsCounts = true;  ///< else counts are told beside it, so that nothing but rows is in the output
    bool isAnswer = false;    ///< the answer itself: its columns stand where the answer has them
};

/// All forms, the first of which is taken when nobody says which. They live as long as the process.
///
/// - Table: aligned columns, numbers to the right, a null as "-"; what would disturb a terminal is made visible and
///   what does not fit is cut. Widths are settled by the first 10,000 rows. Counts stand beneath.
/// - Json: an array with an object a row; values are texts as the answer has them, null is null, binary values and
///   texts that are not UTF-8 are {"base64":"..."}. With counts {"rows":[...],"count":n,"total":m}.
/// - Csv: RFC 4180 with a header line; a null is an empty field, an empty text "", binary values are base64. Counts
/// stand
///   beside it.
/// - Xml: the answer's row set in the XML form of messages, an element of it a line.
std::span<const RowForm> rowForms();
/// \returns the form of that name, null when there is none
const RowForm* findRowForm(std::string_view name);

/// "10 of 400 rows".
std::string describeCounts(const RowCounts& counts);

}  // namespace QOR
