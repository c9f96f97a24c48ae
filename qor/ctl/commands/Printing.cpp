#include "commands/Printing.h"

#include <unistd.h>

#include <iostream>

#include "output/TextWidth.h"

namespace QOR {

std::unique_ptr<RowSink> makePrinter(const PrintOptions& print, bool counts, Output& out) {
    const std::size_t width = print.width ? *print.width : terminalWidth(STDOUT_FILENO);
    return makeRowPrinter(print.format, {width, counts}, out);
}

void tellOfNoEnvironment(Backend& backend, const std::vector<std::string>& client) {
    const bool none = client.empty() ? !backend.seesEnvironments() : client == std::vector<std::string>{"none"};
    if (!none) return;
    tellPerson(client.empty()
                   ? "note: you stand for no environment, so no row of an environment is shown to you; root and "
                     "the agent's user see all"
                   : "note: this client stands for no environment, so no row of an environment is shown to it");
}

void tellPerson(std::string_view text) {
    std::cerr << "qorctl: " << text << (text.ends_with('\n') ? "" : "\n") << std::flush;
}

}  // namespace QOR
