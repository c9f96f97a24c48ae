/// \file
/// SchemaTable: what views the database has, and their columns, as the database itself tells.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "QORCommon/QORExport.h"
#include "rdbmspp/engine/ASEngine.h"
#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASData.h"
#include "rdbmspp/sql/ASTable.h"

namespace QOR {

class ASSession;

/// The domain "SchemaTable": one row a column of a view, every view of the database but SchemaTable itself. It is a
/// select over the engine's own catalogue, not a view, so that it needs nothing in the database.
///
/// Holds the data objects that a cursor fetches into; used by one thread at a time.
struct QOR_API SchemaTable {
    /// For the database that QORRdbms is configured with.
    SchemaTable();
    /// Also tries the views: one that the engine cannot make sense of (it selects from a table that is gone) would
    /// fail the whole select; it is logged and left out.
    explicit SchemaTable(ASSession& session);

    struct MetaData : ASTable {
        explicit MetaData(ASDomainPtr domain) : ASTable(std::move(domain)) {}
        ASColumn<ASVStr> viewName{*this, "viewName", capacity};
        ASColumn<ASVStr> name{*this, "name", capacity};
        /// In lower case, without its length; empty for an expression, whose type the engine does not tell.
        ASColumn<ASVStr> type{*this, "type", capacity};
        /// As declared, 0 when it is not.
        ASColumn<ASInt> length{*this, "length"};
        ASColumn<ASVStr> charSet{*this, "charSet", capacity};
        ASColumn<ASVStr> collation{*this, "collation", capacity};
    };

    MetaData metaData;

    /// Where the column stands in its view, counted from 0: a sort key, which is not projected.
    ASAttribute position;

    /// By view name, then by the place in the view.
    ASOrder order() const;

private:
    static constexpr std::size_t capacity = 128;
    explicit SchemaTable(const std::string& sql);
};

/// Projects viewName, name, type, length, charSet and collation, in this order.
QOR_API void selectAllAttributes(ASProject& project, const SchemaTable& table);

/// A column of a view.
struct QORViewColumn {
    std::string view;
    std::string column;
    std::string type;
    std::int32_t length = 0;  ///< as declared, 0 when it is not
};

/// Every column of every view, in SchemaTable's order. \throws AException
QOR_API std::vector<QORViewColumn> readViews(ASSession& session);

/// The columns of views, by view, whose type says less than a statement has to know of them; none for an engine that
/// compares whatever it finds. \throws AException
QOR_API std::map<std::string, ASStorages, std::less<>> columnStorages(ASSession& session);

/// The select behind SchemaTable, with a column position beside the six, in an engine's dialect. \param without names
/// of views to leave out
std::string schemaTableSql(ASEngine engine, const std::vector<std::string>& without);

}  // namespace QOR
