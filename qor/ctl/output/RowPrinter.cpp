#include "output/RowPrinter.h"

#include <algorithm>
#include <iterator>

#include "output/CsvPrinter.h"
#include "output/JsonPrinter.h"
#include "output/TablePrinter.h"
#include "output/XmlPrinter.h"

namespace QOR {
namespace {

constexpr RowForm forms[] = {
    {.name = "table",
     .makePrinter = [](const RowPrinterOptions& options, Output& out) -> std::unique_ptr<RowSink> {
         return std::make_unique<TablePrinter>(options.width, out);
     }},
    {.name = "json",
     .makePrinter = [](const RowPrinterOptions& options, Output& out) -> std::unique_ptr<RowSink> {
         return std::make_unique<JsonPrinter>(options.counts, out);
     }},
    {.name = "csv",
     .makePrinter = [](const RowPrinterOptions&, Output& out) -> std::unique_ptr<RowSink> {
         return std::make_unique<CsvPrinter>(out);
     },
     .holdsCounts = false},
    {.name = "xml",
     .makePrinter = [](const RowPrinterOptions&, Output& out) -> std::unique_ptr<RowSink> {
         return std::make_unique<XmlPrinter>(out);
     },
     .isAnswer = true},
};

}  // namespace

std::span<const RowForm> rowForms() {
    return forms;
}

const RowForm* findRowForm(std::string_view name) {
    const auto found =
        std::find_if(std::begin(forms), std::end(forms), [&](const RowForm& form) { return form.name == name; });
    return found == std::end(forms) ? nullptr : found;
}

std::string describeCounts(const RowCounts& counts) {
    return std::to_string(counts.rows) + " of " + std::to_string(counts.total) + (counts.total == 1 ? " row" : " rows");
}

}  // namespace QOR
