/// \file
/// Writes rows that were read from a table of another database.
#pragma once

#include <string>

#include "QORDBSchema/QORSchemaTables.h"
#include "copy/CopyRows.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// Immutable; refers to the table, whose columns are in the order of the rows' values.
class CopyWriter {
public:
    CopyWriter(ASEngine engine, const QORSchemaTable& table);

    /// Adds the rows, within the caller's transaction for writing. \throws AException also when there is one of them
    /// already
    void write(ASSession& session, const CopyRows& rows) const;
    /// Why the engine cannot store a value that is what its column is for; null for one that it can.
    static const char* faultOf(ASEngine engine, QORSchemaColumnKind kind, std::string_view value);

private:
    void writeTogether(ASSession& session, const CopyRows& rows) const;
    void writeEach(ASSession& session, const CopyRows& rows) const;

    const QORSchemaTable& m_table;
    std::string m_sql;
};

}  // namespace QOR
