/// \file
/// ASCursor: one select over one domain. ASFilter holds what it projects and its condition.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "QORCommon/QORExport.h"
#include "rdbmspp/sql/ASAttribute.h"

namespace QOR {

class ASSession;

/// The list of what is selected. `project << a << b`. Plain columns beside aggregates are grouped by.
class QOR_API ASProject {
public:
    ASProject& operator<<(const ASAttribute& attribute);
    ASProject& operator<<(const ASGroupAttribute& attribute);

private:
    friend class ASFilter;
    friend class ASSqlBuilder;
    friend class ASCursor;
    struct Item;
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
    ASProject m_project;
    ASComparison m_condition;
    ASComparison m_access;
};

/// Runs on the session it was made on and must not outlive it. Not shared between threads. Errors: AException.
class QOR_API ASCursor {
public:
    explicit ASCursor(ASSession& session);
    ~ASCursor();
    ASCursor(const ASCursor&) = delete;
    ASCursor& operator=(const ASCursor&) = delete;

    ASFilter& Filter() noexcept;
    /// At most `size` rows from row `offset` (0-based) on. \param size above 0 \param offset 0 or more
    void Limit(std::int32_t size, std::int32_t offset);
    void Order(const ASOrder& order);

    /// The next row into the data objects of the projection; runs the select at the first call. False at the end.
    bool Fetch();
    /// Rows fetched so far.
    std::int64_t GetAmount() const noexcept;
    /// The select as SQL text, all values as literals.
    std::string Query() const;
    /// The same as a part of another select, in whose conditions its one column is compared with columns.
    std::string NestedQuery() const;

    /// Whether a result may be so long that it is worth reading it as it is fetched (ASAccess::ReadLong).
    /// \param limit rows; 0 or less: no limit \param documents whether rows hold a document
    static bool isLong(std::int32_t limit, bool documents) noexcept;
    /// Whether values of the object may be of any length: bytes, or a text without a declared length.
    static bool isDocument(const ASData& data) noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
