/// \file
/// A database over which records are spread, or the one that they are spread from.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "QORDBSchema/QORSchemaRows.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// One of them, open. Used by one thread at a time.
class ShardDatabase {
public:
    /// \param what it is called in errors, such as `server "s1"` \throws AException that says so when it cannot be
    /// opened
    ShardDatabase(std::string what, std::string connection);

    const std::string& what() const noexcept { return m_what; }
    const std::string& connection() const noexcept { return m_connection; }
    QORRdbms& rdbms() noexcept { return *m_rdbms; }

    /// As readRows() and readCell(), in a transaction of its own. \throws AException
    std::vector<QORSchemaRow> rows(const std::string& sql, unsigned columns);
    std::string cell(const std::string& sql);
    /// As QORRdbms::write(). \throws AException that says which database it is
    void write(const std::function<void(ASSession&)>& work);

    /// Makes it one of this program's, of this version. \throws QORException 1 for another program's or a newer one;
    /// AException
    void migrate();
    /// What no other database has.
    std::string identity() { return cell("SELECT id FROM qor_database"); }

    /// Throws a QORException 1 that begins with what it is called.
    [[noreturn]] void refuse(const std::string& why) const;

private:
    [[noreturn]] void rethrow(const AException& error) const;

    std::string m_what;
    std::string m_connection;
    std::unique_ptr<QORRdbms> m_rdbms = std::make_unique<QORRdbms>();
};

}  // namespace QOR
