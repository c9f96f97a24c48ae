#include "commands/Printing.h"

#include <unistd.h>

#include <iostream>

#include "output/TextWidth.h"

namespace QOR {

std::unique_ptr<QORRowSink> makePrinter(const QORPrintOptions& print, bool counts, QOROutput& out) {
    const std::size_t width = print.width ? *print.width : terminalWidth(STDOUT_FILENO);
    return makeRowPrinter(print.format, {width, counts}, out);
}

void tellPerson(std::string_view text) {
    std::cerr << "qorctl: " << text << (text.ends_with('\n') ? "" : "\n") << std::flush;
}

}  // namespace QOR
