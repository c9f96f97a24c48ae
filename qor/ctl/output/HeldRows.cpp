#include "output/HeldRows.h"

#include <utility>

namespace QOR {

void HeldRows::begin(std::span<const std::string> names) {
    m_names.assign(names.begin(), names.end());
    m_next.begin(names);
}

void HeldRows::row(std::span<const Cell> cells) {
    if (m_passes) return m_next.row(cells);
    for (const Cell& cell : cells)
        m_values.push_back({cell.kind, std::string(cell.bytes)});
    if (m_values.size() <= m_most * m_names.size()) return;
    m_passes = true;
    passRows();
}

void HeldRows::passRows() {
    const std::vector<Value> values = std::exchange(m_values, {});
    std::vector<Cell> cells(m_names.size());
    for (std::size_t at = 0; at < values.size();) {
        for (Cell& cell : cells) {
            cell = {values[at].kind, values[at].bytes};
            ++at;
        }
        m_next.row(cells);
    }
}

void HeldRows::end(const std::optional<RowCounts>& counts) {
    m_ended = true;
    m_counts = counts;
    if (m_passes) m_next.end(counts);
}

void HeldRows::release() {
    if (std::exchange(m_passes, true)) return;
    passRows();
    if (m_ended) m_next.end(m_counts);
}

std::set<std::string> HeldRows::valuesOf(QORColumnKind kind, const ColumnKinds& kinds) const {
    std::set<std::string> found;
    const std::vector<QORColumnKind> all = kindsOf(m_names, kinds);
    for (std::size_t at = 0; at < m_values.size(); ++at) {
        if (all[at % all.size()] == kind && m_values[at].kind == Cell::Kind::Text) found.insert(m_values[at].bytes);
    }
    return found;
}

void ColumnNames::begin(std::span<const std::string> names) {
    std::vector<std::string> shown;
    for (const std::string& name : names) {
        const auto found = m_shown.find(name);
        shown.push_back(found == m_shown.end() ? name : found->second);
    }
    m_next.begin(shown);
}

}  // namespace QOR
