#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORText.h"
#include "QORPager/QORFieldList.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "filter/FilterNames.h"
#include "select/SelectAdvice.h"

namespace QOR {
namespace {

/// Prints a line a field.
class FieldPrinter {
public:
    FieldPrinter(RowSink& rows, const std::vector<std::string>& prefixes) : m_rows(rows), m_prefixes(prefixes) {
        const std::array<std::string, 4> names{"field", "source", "type", "values"};
        m_rows.begin(names);
    }

    void print(const QOROpField& field) {
        const std::string name = field.prefix ? field.name + "*" : field.name;
        const bool wanted =
            m_prefixes.empty() || std::any_of(m_prefixes.begin(), m_prefixes.end(),
                                              [&](const std::string& prefix) { return name.starts_with(prefix); });
        if (!wanted) return;
        const std::array<Cell, 4> cells{text(name), text(field.title), text(field.type),
                                        text(field.list ? "list" : "one")};
        m_rows.row(cells);
        m_any = true;
    }
    bool isEmpty() const noexcept { return !m_any; }
    void end() { m_rows.end(std::nullopt); }

private:
    static Cell text(std::string_view bytes) { return {Cell::Kind::Text, bytes}; }

    RowSink& m_rows;
    const std::vector<std::string>& m_prefixes;
    bool m_any = false;
};

}  // namespace

void runFields(const ConnectionOptions& connection, const FieldsOptions& options) {
    const auto backend = makeBackend(connection, BackendUse::Inspect);
    const FilterNames names(backend->vocabulary());

    const auto output = openOutput(options.print);
    Output& out = *output;
    const auto rows = makePrinter(options.print, false, out);
    FieldPrinter printer(*rows, options.prefixes);
    for (const QOROpField& field : listFields(names.fields()))
        printer.print(field);
    printer.end();
    out.flush();
    if (!printer.isEmpty()) return;
    for (const std::string& prefix : options.prefixes) {
        const std::string advice = adviseOnNames(prefix, names.nearest(prefix));
        tellNote("no field begins with " + quoteText(prefix) + (advice.empty() ? "" : "; " + advice));
    }
}

}  // namespace QOR
