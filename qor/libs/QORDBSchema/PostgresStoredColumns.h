/// \file
/// Internal: PostgreSQL's part of QORStoredColumns.
#pragma once

#include <string>
#include <vector>

#include "QORDBSchema/QORStoredColumns.h"

namespace QOR {

/// As storedColumns(). \throws AException; then the transaction has failed
QORStoredColumns storedInPostgres(ASSession& session, const std::string& view, const std::vector<std::string>& columns);

}  // namespace QOR
