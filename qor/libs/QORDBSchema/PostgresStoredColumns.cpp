#include "QORDBSchema/PostgresStoredColumns.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string_view>
#include <utility>

#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

// What a view makes of its columns is not told by the catalogue, and the texts of views are for people.
// What it would do to read them, it says in a form for programs: a scan of one table, and for each column what it puts
// out. Nothing is put out that looks like a column of the table and is none but a value of another type, which the
// engine converts in silence; so the types have to be the same.

/// What may be said of a scan that hands its rows out and does nothing else.
constexpr std::array<std::string_view, 7> saidOfScan{"Node Type", "Parallel Aware", "Async Capable", "Relation Name",
                                                     "Schema",    "Alias",          "Output"};

// Types whose comparisons with values of their own kind the engine itself calls leak-proof: they fail for no value.
constexpr std::array<std::string_view, 9> leakProof{"int2", "int4",    "int8", "float4",   "float8",
                                                    "text", "varchar", "uuid", "timestamp"};

using Json = rapidjson::Value;

std::string textOf(const Json& value) {
    return value.IsString() ? std::string(value.GetString(), value.GetStringLength()) : std::string();
}

struct Type {
    std::string number;  ///< with its length: "1043 68"
    std::string name;
};
using Types = std::map<std::string, Type, std::less<>>;

/// By the names that are asked for. \param name of the column, an expression over pg_attribute a
Types typesOf(ASSession& session, const std::string& name, const std::string& where,
              const std::vector<std::string>& values) {
    ASStatement& select = session.prepare("SELECT " + name +
                                          ", a.atttypid || ' ' || a.atttypmod, CAST(t.typname AS text) FROM pg_class c "
                                          "JOIN pg_namespace n ON n.oid = c.relnamespace JOIN pg_attribute a ON "
                                          "a.attrelid = c.oid AND a.attnum > 0 AND NOT a.attisdropped JOIN pg_type t "
                                          "ON t.oid = a.atttypid WHERE " +
                                          where);
    for (unsigned i = 0; i < values.size(); ++i)
        select.bind(i + 1, values[i]);
    select.execute();
    Types types;
    while (select.fetch())
        types[std::string(select.text(1))] = {std::string(select.text(2)), std::string(select.text(3))};
    select.close();
    return types;
}

/// The plan of a select of the columns, as the engine writes it.
std::string planOf(ASSession& session, const std::string& view, const std::vector<std::string>& columns) {
    // However large the table is: one process, all rows, no index.
    session.execute(
        "SET LOCAL max_parallel_workers_per_gather = 0; SET LOCAL enable_seqscan = on; "
        "SET LOCAL enable_indexscan = off; SET LOCAL enable_indexonlyscan = off; SET LOCAL enable_bitmapscan = off");
    std::string sql = "EXPLAIN (VERBOSE, COSTS OFF, FORMAT JSON) SELECT ";
    for (const std::string& column : columns)
        sql += (&column == columns.data() ? "" : ", ") + ASSession::quoteIdentifier(column);
    ASStatement& explain = session.prepare(sql + " FROM " + ASSession::quoteIdentifier(view));
    explain.execute();
    std::string plan = explain.fetch() ? std::string(explain.text(1)) : std::string();
    explain.close();
    return plan;
}

/// The scan, where the plan is one and nothing else; null elsewhere.
const Json* plainScan(const rapidjson::Document& plan, std::size_t columns) {
    if (!plan.IsArray() || plan.Size() != 1 || !plan[0].IsObject()) return nullptr;
    const auto found = plan[0].FindMember("Plan");
    if (found == plan[0].MemberEnd() || !found->value.IsObject()) return nullptr;
    const Json& scan = found->value;
    for (const auto& member : scan.GetObject()) {
        if (std::find(saidOfScan.begin(), saidOfScan.end(), textOf(member.name)) == saidOfScan.end()) return nullptr;
    }
    for (const char* const name : {"Node Type", "Schema", "Relation Name", "Alias", "Output"}) {
        if (!scan.HasMember(name)) return nullptr;
    }
    const bool plain = textOf(scan["Node Type"]) == "Seq Scan" && scan["Output"].IsArray();
    return plain && scan["Output"].Size() == columns ? &scan : nullptr;
}

/// Whether what is put out is a column of the table as it is, or a constant number, of which all that is put out is its
/// digits.
bool isHandedOut(const std::string& output, const Type& type, const Types& ofTable) {
    const auto column = ofTable.find(output);
    if (column != ofTable.end()) return column->second.number == type.number;
    constexpr std::size_t mostDigits = 10;
    return type.name == "int4" && !output.empty() && output.size() <= mostDigits &&
           output.find_first_not_of("0123456789") == std::string::npos;
}

}  // namespace

QORStoredColumns storedInPostgres(ASSession& session, const std::string& view,
                                  const std::vector<std::string>& columns) {
    rapidjson::Document plan;
    const std::string text = planOf(session, view, columns);
    if (plan.Parse(text.data(), text.size()).HasParseError()) return {};
    const Json* const scan = plainScan(plan, columns.size());
    if (scan == nullptr) return {};
    const auto ofView =
        typesOf(session, "CAST(a.attname AS text)",
                "c.relname = CAST(? AS text) AND c.relkind IN ('v', 'm') AND pg_table_is_visible(c.oid)", {view});
    // Rows of a materialised view are scanned in itself, and its columns are then not called by any other name.
    const std::string relation = textOf((*scan)["Relation Name"]);
    const auto ofTable = typesOf(session,
                                 "CASE WHEN c.relkind = 'm' AND c.relname = CAST(? AS text) THEN '' ELSE "
                                 "quote_ident(CAST(? AS text)) || '.' END || quote_ident(a.attname)",
                                 "n.nspname = CAST(? AS text) AND c.relname = CAST(? AS text)",
                                 {view, textOf((*scan)["Alias"]), textOf((*scan)["Schema"]), relation});
    QORStoredColumns stored{{}, true};
    for (rapidjson::SizeType i = 0; i < columns.size(); ++i) {
        const auto type = ofView.find(columns[i]);
        if (type == ofView.end() || !isHandedOut(textOf((*scan)["Output"][i]), type->second, ofTable)) {
            stored.handsOutOnly = false;
        } else if (std::find(leakProof.begin(), leakProof.end(), type->second.name) != leakProof.end()) {
            stored.names.insert(columns[i]);
        }
    }
    return stored;
}

}  // namespace QOR
