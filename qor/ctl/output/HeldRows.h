/// \file
/// Rows that wait for what is only known when all of them are there.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "output/RowPrinter.h"

namespace QOR {

/// Holds the rows of an answer back, as long as they are few, until release(); of more, passes all on as they come.
class HeldRows final : public RowSink {
public:
    HeldRows(RowSink& next, std::size_t most) : m_next(next), m_most(most) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override;

    /// The different values of the columns of that kind; none where the rows were too many.
    std::set<std::string> valuesOf(QORColumnKind kind, const ColumnKinds& kinds) const;
    /// Passes on what is held.
    void release();

private:
    struct Value {
        Cell::Kind kind;
        std::string bytes;
    };
    void passRows();

    RowSink& m_next;
    std::size_t m_most;
    std::vector<std::string> m_names;
    std::vector<Value> m_values;  ///< row by row
    bool m_passes = false;
    bool m_ended = false;
    std::optional<RowCounts> m_counts;
};

/// Gives columns other names than the answer has.
class ColumnNames final : public RowSink {
public:
    /// \param shown by the answer's names; what is missing stays
    ColumnNames(std::map<std::string, std::string> shown, RowSink& next) : m_shown(std::move(shown)), m_next(next) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override { m_next.row(cells); }
    void end(const std::optional<RowCounts>& counts) override { m_next.end(counts); }

private:
    std::map<std::string, std::string> m_shown;
    RowSink& m_next;
};

}  // namespace QOR
