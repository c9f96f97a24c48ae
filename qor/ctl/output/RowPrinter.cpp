#include "output/RowPrinter.h"

#include <algorithm>
#include <iterator>
#include <utility>

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
    {.name = "table", .makePrinter = make<TablePrinter>, .isForLines = true, .isForPeople = true},
    {.name = "wide",
     .makePrinter = [](const RowPrinterOptions& options, Output& out) -> std::unique_ptr<RowSink> {
         RowPrinterOptions uncut = options;
         uncut.width = 0;
         uncut.prefixes = false;
         return std::make_unique<TablePrinter>(std::move(uncut), out);
     },
     .isForLines = true,
     .isForPeople = true},
    {.name = "record", .makePrinter = make<RecordPrinter>, .isForLines = true, .isForPeople = true},
    {.name = "json", .makePrinter = make<JsonPrinter>, .tellsKinds = true},
    {.name = "ndjson",
     .makePrinter = make<NdjsonPrinter>,
     .holdsCounts = false,
     .tellsKinds = true,
     .isForLines = true},
    {.name = "csv", .makePrinter = make<CsvPrinter>, .holdsCounts = false, .isForLines = true},
    {.name = "tsv", .makePrinter = make<TsvPrinter>, .holdsCounts = false, .isForLines = true},
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

std::vector<QORColumnKind> kindsOf(std::span<const std::string> names, const ColumnKinds& kinds) {
    std::vector<QORColumnKind> found;
    for (const std::string& name : names) {
        const auto known = kinds.find(name);
        found.push_back(known == kinds.end() ? QORColumnKind::Text : known->second);
    }
    return found;
}

std::string describeCounts(const RowCounts& counts) {
    return std::to_string(counts.rows) + (counts.isBound ? " of at least " : " of ") + std::to_string(counts.total) +
           (counts.total == 1 ? " row" : " rows");
}

}  // namespace QOR
