#include "rdbmspp/engine/ASPlan.h"

#include <utility>

#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

bool has(std::string_view line, std::string_view words) {
    return line.find(words) != std::string_view::npos;
}

/// Of "Sort  (cost=0.00..1.00 rows=5 width=8)".
std::optional<std::int64_t> rowsIn(std::string_view line) {
    constexpr std::string_view name = " rows=";
    const std::size_t at = line.find(name);
    if (at == std::string_view::npos) return std::nullopt;
    line.remove_prefix(at + name.size());
    return parseInt64(line.substr(0, line.find_first_not_of("0123456789")));
}

}  // namespace

std::string_view ASPlan::command(ASEngine engine) noexcept {
    return engine == ASEngine::SQLite ? "EXPLAIN QUERY PLAN " : "EXPLAIN ";
}

void ASPlan::add(ASEngine engine, std::string_view line, std::size_t depth) {
    steps.push_back(std::string(2 * depth, ' ').append(line));
    engine == ASEngine::SQLite ? addSqlite(line, depth) : addPostgres(line);
}

// Views are read as if they were not there, so that the select itself is what stands at the top; one that is not stands
// there by its name, and its own steps stand below.
void ASPlan::addSqlite(std::string_view line, std::size_t depth) {
    if (depth > 0) return;
    m_scans = m_scans || line.starts_with("SCAN ");
    seeks = !m_scans && (seeks || line.starts_with("SEARCH "));
    const bool inPart = has(line, " RIGHT PART OF ") || has(line, " LAST ");
    sorts = sorts || (line.starts_with("USE TEMP B-TREE") && !inPart);
}

// Steps stand behind arrows and what is said of them below; selects within come with headings of their own.
void ASPlan::addPostgres(std::string_view line) {
    if (!rows) rows = rowsIn(line);
    m_within = m_within || has(line, "SubPlan ") || has(line, "InitPlan ");
    if (m_within) return;
    m_scans = m_scans || has(line, "Seq Scan on ");
    seeks = !m_scans && (seeks || has(line, "Index Cond: "));
    if (has(line, "Sort Key: ")) m_sortedBefore = std::exchange(sorts, true);
    if (has(line, "Presorted Key: ")) sorts = m_sortedBefore;
}

}  // namespace QOR
