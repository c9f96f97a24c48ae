#include "output/RowPrinter.h"

#include "output/CsvPrinter.h"
#include "output/JsonPrinter.h"
#include "output/TablePrinter.h"
#include "output/XmlPrinter.h"

namespace QOR {

std::unique_ptr<QORRowSink> makeRowPrinter(QORRowFormat format, const QORRowPrinterOptions& options, QOROutput& out) {
    switch (format) {
        case QORRowFormat::Json:
            return std::make_unique<QORJsonPrinter>(options.counts, out);
        case QORRowFormat::Csv:
            return std::make_unique<QORCsvPrinter>(out);
        case QORRowFormat::Xml:
            return std::make_unique<QORXmlPrinter>(out);
        case QORRowFormat::Table:
            break;
    }
    return std::make_unique<QORTablePrinter>(options.width, out);
}

std::string describeCounts(const QORRowCounts& counts) {
    return std::to_string(counts.rows) + " of " + std::to_string(counts.total) + (counts.total == 1 ? " row" : " rows");
}

}  // namespace QOR
