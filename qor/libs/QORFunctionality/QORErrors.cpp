#include "QORFunctionality/QORErrors.h"

#include "QORCommon/QORRequestControl.h"

namespace QOR {

QORErrorTable QORErrors = {
    {errFailure, "%s"},
    {errBadRequest, "%s"},
    {errDeadline, "%s"},
    {errNoEnvCache, "environment cache is not available"},
};

}  // namespace QOR
