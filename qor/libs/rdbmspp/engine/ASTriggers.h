/// \file
/// What becomes of a database's triggers while a statement runs.
#pragma once

namespace QOR {

/// Said with each execution, so that nobody finds triggers switched off who did not ask for it.
enum class ASTriggers {
    Fire,
    Skip,  ///< whoever says this does himself what the triggers of the table are for. They fire all the same where the
           ///< engine cannot be told: ASSession::skipsTriggers()
};

}  // namespace QOR
