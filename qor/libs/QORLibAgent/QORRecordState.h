/// \file
/// Whether records came, were changed or went since a moment, as far as one client may see them.
///
/// What came or was changed the sequence of changes tells (QORRecordChanges.h). Removals it does not tell; but where
/// nothing came, they have left fewer records.
#pragma once

#include <cstdint>

#include "QORCommon/QORExport.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "QORLibAgent/QORSecurity.h"

namespace QOR {

/// Records of one kind in the process's own database, at one moment.
struct QORRecordState {
    std::int64_t change = 0;   ///< the number of the database's last change, of whatever kind
    std::int64_t records = 0;  ///< how many the client sees
};

/// Within the caller's transaction, whose state is told of. Costs about the same however many records there are, but
/// for events and backups of a client without full access, whose records are counted one by one. \throws AException
QOR_API QORRecordState recordState(ASSession& session, QORChangeKind kind, const QORRowAccess& access);
/// Whether a record that the client sees may have come, changed or gone since. False only where none has; what happened
/// to records of others does not make it true, unless so much happened since that it is not known any more to whose.
/// \throws AException
QOR_API bool hasChangedSince(ASSession& session, QORChangeKind kind, const QORRowAccess& access,
                             const QORRecordState& since);

}  // namespace QOR
