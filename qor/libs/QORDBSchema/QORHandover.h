/// \file
/// QORHandover: some of a server's environments on their way to a new one, between the two commits that it takes.
///
/// The server that gives them away commits first, and by that they are the new one's; home says so afterwards. What it
/// will say it has noted before, so that whoever comes can say it when the one who began has ended in between.
#pragma once

#include <optional>
#include <string>

#include "QORCommon/QORExport.h"
#include "QORDBSchema/QORSpreadSchema.h"

namespace QOR {

struct QORHandover {
    std::string source;  ///< the server that gives; it keeps its remainder of the same modulus
    QORSpreadServer to;
};

/// Nothing where none has been begun, or is known of. \throws AException
QOR_API std::optional<QORHandover> readHandover(ASSession& home);
/// Takes the place of one that was begun before; its new server is one of the engine's own already. \throws AException
QOR_API void noteHandover(ASSession& home, const QORHandover& handover);
/// Whether the source has given the environments away. \throws AException
QOR_API bool hasLeft(ASSession& source, const QORHandover& handover);
/// Says who has what, in the caller's transaction, in which lockSpread() has been called. \throws AException
QOR_API void completeHandover(ASSession& home, const QORHandover& handover);

/// Whether the caller's transaction at home is, until it ends, the only one that changes which servers there are.
QOR_API bool takeSpread(ASSession& home);
/// Has everybody wait who reads records through home, in the caller's transaction, and waits for who does: a fifth of a
/// second at most, so that they do not wait for long either. \throws AException: ASFailure::Locked when that was too
/// short
QOR_API void lockSpread(ASSession& home);

/// What became of a hand-over of the process's database.
enum class QORHandoverState {
    None,     ///< nothing is on its way, or the environments are still the source's
    Between,  ///< they are the new server's, and home does not say so yet
};
/// Asks home, and the source where that is needed. \throws AException, of the source with its name
QOR_API QORHandoverState findHandover();
/// Says at home what is missing there, unless the one who began is about to. Must not be called by a thread that reads
/// through home. \returns false where it is to be tried again \throws AException
QOR_API bool settleHandover();

}  // namespace QOR
