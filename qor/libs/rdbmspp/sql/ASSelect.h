/// \file
/// ASSelect: one select over one domain, as a value. ASProject is what it selects, ASFilter that and its condition.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORExport.h"
#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASComparison.h"

namespace QOR {

class ASSession;
struct ASDialect;
struct ASWrittenSelect;
struct ASPlan;

/// The list of what is selected. `project << a << b`. Plain columns beside aggregates are grouped by.
class QOR_API ASProject {
public:
    struct Item;
    ASProject& operator<<(const ASAttribute& attribute);
    ASProject& operator<<(const ASGroupAttribute& attribute);

private:
    friend class ASFilter;
    friend class ASSelect;
    friend class ASSqlBuilder;
    friend class ASCursor;
    /// What is selected from; null for nothing.
    const ASDomain* domain() const noexcept;
    std::vector<std::shared_ptr<const Item>> m_items;
    bool m_distinct = false;
};

class QOR_API ASFilter {
public:
    /// Starts an empty projection, without or with removal of equal rows.
    ASProject& Project();
    ASProject& DistinctProject();
    /// Replaces the condition.
    void Set(const ASComparison& condition);
    /// Replaces what restricts the rows; none: all. Rows outside are not there for whatever is selected: the condition
    /// is asked of none of them, so that no failure of it tells of them.
    void Restrict(const ASComparison& access);

private:
    friend class ASSqlBuilder;
    friend class ASCursor;
    friend class ASSelect;
    ASProject m_project;
    ASComparison m_condition;
    ASComparison m_access;
};

/// Belongs to no connection: it is run by an ASCursor, and written in the dialect that it is given. A value type whose
/// copies share what they refer to; one thread at a time.
class QOR_API ASSelect {
public:
    ASFilter& Filter() noexcept {
        m_written.reset();
        return m_filter;
    }
    /// At most `size` rows from row `offset` (0-based) on. \param size above 0 \param offset 0 or more
    void Limit(std::int32_t size, std::int32_t offset);
    void Order(const ASOrder& order);
    /// Selects how many rows there would be: one row with one number. Rows beyond a limit are not looked at.
    /// \param receiver never null
    void Count(std::shared_ptr<ASInt64> receiver) {
        m_written.reset();
        m_count = std::move(receiver);
    }
    /// For a select that is run again and again: what a cursor writes it as is kept, for this one and the copies made
    /// from here on, until one of them is changed.
    void keepWritten();

    /// The select as SQL text, all values as literals. \throws AException for what the engine cannot take
    std::string Query(const ASDialect& dialect) const;
    /// The first of what is selected, which something has to be; only rdbmspp looks inside.
    const ASProject::Item& firstSelected() const noexcept { return *m_filter.m_project.m_items.front(); }

private:
    friend class ASSqlBuilder;
    friend class ASCursor;
    friend ASPlan explainSelect(ASSession& session, const ASSelect& select);
    /// The condition of the rows that there are.
    ASComparison where(const ASDialect& dialect) const;

    ASFilter m_filter;
    std::int32_t m_limit = 0;
    std::int32_t m_offset = 0;
    std::optional<ASOrder> m_order;
    std::shared_ptr<ASInt64> m_count;            ///< null: rows are selected
    std::shared_ptr<ASWrittenSelect> m_written;  ///< null: it is written each time
};

/// A select that stands in the condition of another one, where its one column is compared with columns. It is written
/// where it stands, when the other one is; what that one has to know of it beforehand is found out here. Immutable and
/// shared.
class QOR_API ASNestedSelect {
public:
    /// \throws AException for what the engine of the dialect cannot take, and for what selects nothing
    ASNestedSelect(ASSelect select, const ASDialect& dialect);

    const ASSelect& select() const noexcept { return m_select; }
    /// How many entries of its stack the engine's parser holds at most while it reads the select.
    std::size_t parserDepth() const noexcept { return m_parserDepth; }
    /// The select as SQL text, as it stands in the other one's.
    std::string Query() const;

private:
    ASSelect m_select;
    const ASDialect& m_dialect;
    std::size_t m_parserDepth;
};

}  // namespace QOR
