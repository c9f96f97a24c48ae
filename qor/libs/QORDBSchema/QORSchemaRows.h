/// \file
/// Small answers of the host's own selects, read whole.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

using QORSchemaRow = std::vector<std::string>;

/// All rows, as texts; null is the empty text. \param columns how many the select has \throws AException
QOR_API std::vector<QORSchemaRow> readRows(ASSession& session, std::string_view sql, unsigned columns);

/// The first cell; the empty text where there is no row. \throws AException
QOR_API std::string readCell(ASSession& session, std::string_view sql);

/// The first cell, a whole number; 0 where there is no row. \throws AException
QOR_API std::int64_t readNumber(ASSession& session, std::string_view sql);

}  // namespace QOR
