#include "QORDBSchema/QORStoredColumns.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORDBSchema/PostgresStoredColumns.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

// Steps of SQLite's programs that move, read and compare, none of which fails on what a row holds. A program that has
// another one computes something; a step that a later version invents counts as such.
constexpr std::array<std::string_view, 56> harmlessSteps{
    "Affinity",  "BeginSubrtn", "Blob",         "Column",     "Copy",      "DeferredSeek",  "Eq",
    "Explain",   "Filter",      "FilterAdd",    "Found",      "Ge",        "Goto",          "Gt",
    "Halt",      "IdxGE",       "IdxGT",        "IdxInsert",  "IdxLE",     "IdxLT",         "IdxRowid",
    "If",        "IfNot",       "IfNullRow",    "Init",       "Int64",     "Integer",       "IsNull",
    "Last",      "Le",          "Lt",           "MakeRecord", "Ne",        "Next",          "Noop",
    "NotExists", "NotFound",    "NotNull",      "Null",       "Once",      "OpenAutoindex", "OpenRead",
    "Prev",      "Real",        "RealAffinity", "ResultRow",  "Rewind",    "Rowid",         "SCopy",
    "SeekGE",    "SeekGT",      "SeekLE",       "SeekLT",     "SeekRowid", "String8",       "Transaction",
};

bool isHarmless(std::string_view step) {
    return std::find(harmlessSteps.begin(), harmlessSteps.end(), step) != harmlessSteps.end();
}

/// Whether the program that reads the columns from all rows only moves, reads and compares. A view that is a union has
/// several places where rows come out; its columns have one type in each, of which only the first is told.
bool computesNothing(ASSession& session, const std::string& view, const std::string& columns) {
    constexpr unsigned stepColumn = 2;
    ASStatement& program = session.prepare("EXPLAIN SELECT " + columns + " FROM " + ASSession::quoteIdentifier(view));
    program.execute();
    bool harmless = true;
    unsigned results = 0;
    while (program.fetch()) {
        const std::string_view step = program.text(stepColumn);
        if (step == "ResultRow") ++results;
        harmless = harmless && isHarmless(step);
    }
    program.close();
    return harmless && results == 1;
}

QORStoredColumns ofSqlite(ASSession& session, const std::string& view, const std::vector<std::string>& columns) {
    QORStoredColumns stored;
    std::string all;
    for (const std::string& column : columns)
        all += (all.empty() ? "" : ", ") + ASSession::quoteIdentifier(column);
    if (computesNothing(session, view, all)) return {{columns.begin(), columns.end()}, true};
    for (const std::string& column : columns)
        if (computesNothing(session, view, ASSession::quoteIdentifier(column))) stored.names.insert(column);
    return stored;
}

}  // namespace

QORStoredColumns storedColumns(ASSession& session, const std::string& view, const std::vector<std::string>& columns) {
    if (columns.empty()) return {};
    try {
        return session.engine() == ASEngine::SQLite ? ofSqlite(session, view, columns)
                                                    : storedInPostgres(session, view, columns);
    } catch (const AException& error) {
        logMessage(3, "QORDBSchema", QOR_SOURCE_PATH, "storedColumns", "What view %s computes is not told: %s",
                   view.c_str(), error.what());
    }
    return {};
}

}  // namespace QOR
