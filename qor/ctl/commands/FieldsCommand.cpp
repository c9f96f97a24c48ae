#include <algorithm>
#include <array>

#include "QORPager/QORSources.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "filter/FilterNames.h"

namespace QOR {
namespace {

/// Prints a line a field.
class FieldPrinter {
public:
    FieldPrinter(RowSink& rows, const std::vector<std::string>& prefixes) : m_rows(rows), m_prefixes(prefixes) {
        const std::array<std::string, 4> names{"field", "source", "type", "values"};
        m_rows.begin(names);
    }

    void print(std::string_view name, TCursorType source, std::string_view type, bool list) {
        const bool wanted =
            m_prefixes.empty() || std::any_of(m_prefixes.begin(), m_prefixes.end(),
                                              [name](const std::string& prefix) { return name.starts_with(prefix); });
        if (!wanted) return;
        const std::array<Cell, 4> cells{text(name), text(sourceOf(source).title), text(type),
                                        text(list ? "list" : "one")};
        m_rows.row(cells);
    }
    /// Every name that begins so.
    void printPrefix(std::string_view prefix, TCursorType source) {
        print(std::string(prefix) + "*", source, typeToString(TValueType::String), false);
    }
    void end() { m_rows.end(std::nullopt); }

private:
    static Cell text(std::string_view bytes) { return {Cell::Kind::Text, bytes}; }

    RowSink& m_rows;
    const std::vector<std::string>& m_prefixes;
};

}  // namespace

void runFields(const ConnectionOptions& connection, const FieldsOptions& options) {
    const auto backend = makeBackend(connection, BackendUse::Inspect);
    const FilterNames names(backend->vocabulary());

    const auto output = openOutput(options.print);
    Output& out = *output;
    const auto rows = makePrinter(options.print, false, out);
    FieldPrinter printer(*rows, options.prefixes);
    for (const QORField& field : names.fields())
        printer.print(field.name, field.cursorType, typeToString(field.valueType), field.isMulty());
    for (const QORSource& source : pagerSources()) {
        for (const auto& [prefix, description] : names.fields().prefixes())
            if (description.cursorType == source.cursorType) printer.printPrefix(prefix, source.cursorType);
    }
    printer.end();
    out.flush();
}

}  // namespace QOR
