/// \file
/// The databases that the security check asks: the whole one, and one for each client of what it may see.
#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"
#include "selfcheck/QORSecurityViews.h"

namespace QOR {

/// A database of the same views, each of which holds the rows that a client may see, and of the host's own tables, with
/// the client's records, if the whole one has them. Nothing else is there: no other row, and no table behind other
/// views.
struct QORVisiblePart {
    ASDatabaseOptions database;
    std::map<std::string, std::size_t> sizes;  ///< rows of each view; one that cannot be read as far as the client sees
                                               ///< it is left out
};

/// One engine's way to make them. One thread.
class QORSecurityCopies {
public:
    /// Chosen by the connection string. \throws QORException 1, AException: the database cannot be opened or copied
    static std::unique_ptr<QORSecurityCopies> of(const std::string& connectionString);

    QORSecurityCopies() = default;
    virtual ~QORSecurityCopies() = default;
    QORSecurityCopies(const QORSecurityCopies&) = delete;
    QORSecurityCopies& operator=(const QORSecurityCopies&) = delete;

    virtual QORCheckedDatabase& whole() = 0;
    /// How hosts reach the whole database, for reading only.
    virtual ASDatabaseOptions wholeOptions() const = 0;
    /// Whether others may write to the whole one meanwhile, so that a part is one of a moment that has gone by.
    virtual bool mayChange() const noexcept = 0;
    /// In the place of the part before, which is gone. \throws QORException 1
    virtual QORVisiblePart makePart(const std::vector<QORCheckedView>& views, const std::set<std::string>& eids) = 0;
};

/// The host's tables of records; `owner`: the column with the environment that one belongs to. An operation is there
/// before what it touches.
struct QORRecordTable {
    const char* name;
    const char* owner;
};
inline constexpr std::array<QORRecordTable, 4> checkedTables{{
    {"qor_environment", "eid"},
    {"qor_operation", "eid"},
    {"qor_operation_environment", "own"},
    {"qor_event", "eid"},
}};

/// The name of the table in a part that a view's rows lie in.
std::string rowsOf(const QORCheckedView& view);
/// `"name", "name"`: what a view's columns are selected by.
std::string columnsOf(const QORCheckedView& view);

}  // namespace QOR
