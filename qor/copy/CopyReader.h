/// \file
/// Reads a table from one end to the other, in the order of its key, some rows at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "QORDBSchema/QORSchemaTables.h"
#include "copy/CopyRows.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// As what PostgreSQL is told to read the text of a value.
const char* copyTypeOf(QORSchemaColumnKind kind) noexcept;

/// Reads within the caller's transaction. Memory does not depend on how many rows there are, nor on how large they are
/// together. Used by one thread at a time.
class CopyReader {
public:
    /// The values of a row's key, as texts.
    using Key = std::vector<std::string>;

    /// \param after the row behind which it begins; empty: at the beginning
    /// \param condition in the engine's dialect, which rows are read; empty: all
    CopyReader(ASSession& session, const QORSchemaTable& table, Key after = {}, std::string condition = {});

    /// Takes the next rows in place of what `rows` holds: at most 4,000, of which all but one together have at most 4
    /// MiB. \returns false at the end \throws QORException 1 naming the row for a value that is not what its column is
    /// for, or that cannot be read as it stands; AException
    bool next(CopyRows& rows);

    /// The last key of a table; empty when it has no rows. \throws AException
    static Key last(ASSession& session, const QORSchemaTable& table);
    /// How many rows the table has. \throws AException
    static std::uint64_t count(ASSession& session, const QORSchemaTable& table);

private:
    std::optional<Key> findEnd();
    std::string where(std::string conditions) const;
    void bindKey(ASStatement& statement, unsigned first, const Key& key) const;
    void take(ASStatement& row, CopyRows& rows) const;
    [[noreturn]] void refuse(const ASStatement& row, const QORSchemaColumn* column, const std::string& reason) const;

    ASSession& m_session;
    const QORSchemaTable& m_table;
    Key m_after;
    std::string m_condition;
};

}  // namespace QOR
