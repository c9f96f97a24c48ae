#include <algorithm>
#include <array>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORText.h"
#include "QORQuery/QORQueryField.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "select/SelectAdvice.h"

namespace QOR {
namespace {

bool isWanted(const QORViewColumn& column, const std::vector<std::string>& views) {
    return views.empty() || std::any_of(views.begin(), views.end(),
                                        [&](const std::string& view) { return isSameWord(view, column.view); });
}

std::vector<std::string_view> namesOf(const std::vector<QORViewColumn>& columns) {
    std::vector<std::string_view> names;
    for (const QORViewColumn& column : columns)
        if (std::find(names.begin(), names.end(), column.view) == names.end()) names.emplace_back(column.view);
    return names;
}

void requireAll(const std::vector<std::string>& views, const std::vector<QORViewColumn>& columns) {
    for (const std::string& view : views)
        if (std::none_of(columns.begin(), columns.end(),
                         [&](const QORViewColumn& column) { return isSameWord(view, column.view); }))
            throw CtlError(CtlExit::AnsweredError, "there is no view " + quoteText(view))
                .advised(adviseOnNames(view, namesOf(columns)));
}

Cell text(std::string_view bytes) {
    return {Cell::Kind::Text, bytes};
}

}  // namespace

void runViews(const ConnectionOptions& connection, const ViewsOptions& options) {
    const auto backend = makeBackend(connection, BackendUse::Inspect);
    const std::vector<QORViewColumn> columns = backend->views();
    requireAll(options.views, columns);

    const auto output = openOutput(options.print);
    Output& out = *output;
    const auto printer = makePrinter(options.print, false, out, {{"length", QORColumnKind::Integer}});
    const std::array<std::string, 4> names{"view", "column", "type", "length"};
    printer->begin(names);
    for (const QORViewColumn& column : columns) {
        if (!isWanted(column, options.views)) continue;
        const std::string length = std::to_string(column.length);
        const std::array<Cell, 4> cells{text(column.view), text(column.column),
                                        column.type.empty() ? Cell{} : text(column.type),
                                        column.length == 0 ? Cell{} : text(length)};
        printer->row(cells);
    }
    printer->end(std::nullopt);
    out.flush();
}

}  // namespace QOR
