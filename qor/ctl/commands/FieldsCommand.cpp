#include <unistd.h>

#include <algorithm>
#include <array>

#include "QORPager/QORFieldSet.h"
#include "commands/Commands.h"
#include "commands/Printing.h"

namespace QOR {
namespace {

std::string_view sourceName(TCursorType type) {
    switch (type) {
        case TCursorType::Env:
            return "environments";
        case TCursorType::OpLog:
            return "operation log";
        case TCursorType::EventLog:
            return "event log";
        case TCursorType::Info:
            return "backups";
    }
    return "";
}

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
        const std::array<Cell, 4> cells{text(name), text(sourceName(source)), text(type), text(list ? "list" : "one")};
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

void printCaches(const QORVocMap& vocabulary, FieldPrinter& printer) {
    QORVocIterator entry;
    if (vocabulary.readCategory("pager_caches", entry) != 0 || entry.firstParameter() != 0) return;
    do {
        std::string prefix;
        if (entry.getString("info_prefix", prefix) == 0 && !prefix.empty())
            printer.printPrefix(prefix, TCursorType::Info);
    } while (entry.nextParameter() == 0);
}

}  // namespace

void runFields(const ConnectionOptions& connection, const FieldsOptions& options) {
    const auto backend = makeBackend(connection, BackendUse::Inspect);
    const QORPtr<const QORVocMap> vocabulary = backend->vocabulary();
    vocCacheLocal()->setVocabulary(vocabulary);
    QORFieldSet fields;
    fields.init(nullptr);

    FileOutput out(STDOUT_FILENO);
    const auto rows = makePrinter(options.print, false, out);
    FieldPrinter printer(*rows, options.prefixes);
    for (const QORField& field : fields)
        printer.print(field.name, field.cursorType, typeToString(field.valueType), field.isMulty());
    printer.printPrefix("pager.op_log.parameter.", TCursorType::OpLog);
    printer.printPrefix("pager.event_log.parameter.", TCursorType::EventLog);
    printCaches(*vocabulary, printer);
    printer.end();
    out.flush();
}

}  // namespace QOR
