/// \file
/// How commands that move records end when something fails on the way.
#pragma once

#include <string>

#include "QORCommon/QORException.h"
#include "process/CtlError.h"
#include "rdbmspp/engine/AException.h"

namespace QOR {

/// \param goesOn what becomes of what was moved, behind errors of a database \throws CtlError in place of what `work`
/// throws: NoConnection where a database went away, else AnsweredError
template <class Work>
auto endingWell(const char* goesOn, Work work) {
    try {
        return work();
    } catch (const AException& error) {
        const bool isAway = error.failure() == ASFailure::Unreachable || error.failure() == ASFailure::Undecided;
        throw CtlError(isAway ? CtlExit::NoConnection : CtlExit::AnsweredError, error.text() + "; " + goesOn);
    } catch (const QORException& error) {
        throw CtlError(CtlExit::AnsweredError, error.message());
    }
}

}  // namespace QOR
