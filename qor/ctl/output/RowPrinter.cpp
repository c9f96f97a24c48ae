#include "output/RowPrinter.h"

#include <algorithm>
#include <iterator>

#include "output/CsvPrinter.h"
#include "output/JsonPrinter.h"
#include "output/TablePrinter.h"
#include "output/XmlPrinter.h"
#include "output/YamlPrinter.h"

namespace QOR {
namespace {

template <class Printer>
std::unique_ptr<RowSink> make(const RowPrinterOptions& options, Output& out) {
    return std::make_unique<Printer>(options, out);
}

constexpr RowForm forms[] = {
    {.name = "table",
     .makePrinter = [](const RowPrinterOptions& options, Output& out) -> std::unique_ptr<RowSink> {
         return std::make_unique<TablePrinter>(options.width, options.header, out);
     }},
    {.name = "wide",
     .makePrinter = [](const RowPrinterOptions& options, Output& out) -> std::unique_ptr<RowSink> {
         return std::make_unique<TablePrinter>(0, options.header, out);
     }},
    {.name = "record",
     .makePrinter = [](const RowPrinterOptions&, Output& out) -> std::unique_ptr<RowSink> {
         return std::make_unique<RecordPrinter>(out);
     }},
    {.name = "json", .makePrinter = make<JsonPrinter>, .tellsKinds = true},
    {.name = "ndjson", .makePrinter = make<NdjsonPrinter>, .holdsCounts = false, .tellsKinds = true},
    {.name = "csv", .makePrinter = make<CsvPrinter>, .holdsCounts = false},
    {.name = "tsv", .makePrinter = make<TsvPrinter>, .holdsCounts = false},
    {.name = "yaml", .makePrinter = make<YamlPrinter>, .holdsCounts = false, .tellsKinds = true},
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
