/// \file
/// Asks the engine what it would do for a select.
#pragma once

#include "QORCommon/QORExport.h"
#include "rdbmspp/engine/ASPlan.h"
#include "rdbmspp/sql/ASSelect.h"

namespace QOR {

class ASSession;

/// With the values that it would be run with; nothing of it is run. Where rows are spread over servers, it is what the
/// database itself would do, to which the servers' views are tables of others. \throws AException
QOR_API ASPlan explainSelect(ASSession& session, const ASSelect& select);

}  // namespace QOR
