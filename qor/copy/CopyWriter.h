/// \file
/// Writes rows that were read from a table of another database.
#pragma once

#include <string>
#include <vector>

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
    /// The same where rows that agree with one of them in one of these columns go first. Of PostgreSQL alone.
    void replace(ASSession& session, const CopyRows& rows, const std::vector<std::string>& columns) const;
    /// Why the engine cannot store a value that is what its column is for; null for one that it can.
    static const char* faultOf(ASEngine engine, QORSchemaColumnKind kind, std::string_view value);

private:
    void writeTogether(ASSession& session, const CopyRows& rows) const;
    std::string jsonOf(const CopyRows& rows) const;
    void writeEach(ASSession& session, const CopyRows& rows) const;

    const QORSchemaTable& m_table;
    std::string m_sql;
};

}  // namespace QOR
