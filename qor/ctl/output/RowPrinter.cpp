#include "output/RowPrinter.h"

#include "output/CsvPrinter.h"
#include "output/JsonPrinter.h"
#include "output/TablePrinter.h"
#include "output/XmlPrinter.h"

namespace QOR {

std::unique_ptr<RowSink> makeRowPrinter(RowFormat format, const RowPrinterOptions& options, Output& out) {
    switch (format) {
        case RowFormat::Json:
            return std::make_unique<JsonPrinter>(options.counts, out);
        case RowFormat::Csv:
            return std::make_unique<CsvPrinter>(out);
        case RowFormat::Xml:
            return std::make_unique<XmlPrinter>(out);
        case RowFormat::Table:
            break;
    }
    return std::make_unique<TablePrinter>(options.width, out);
}

std::string describeCounts(const RowCounts& counts) {
    return std::to_string(counts.rows) + " of " + std::to_string(counts.total) + (counts.total == 1 ? " row" : " rows");
}

}  // namespace QOR
