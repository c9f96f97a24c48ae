/// \file
/// Which of the host's tables a database has.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"

namespace QOR {

class ASSession;

/// Other people's databases, and older ones of ours that are only read, lack some tables or all of them.
/// \param names quoted, with commas between them \param count how many they are \throws AException
QOR_API bool hasColumns(ASSession& session, std::string_view table, const std::string& names, std::int64_t count);

}  // namespace QOR
