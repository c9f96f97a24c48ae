#include "QORFunctionality/QORErrors.h"

namespace QOR {

QORErrorTable QORErrors = {
    {errFailure, "%s"},
    {errBadRequest, "%s"},
    {errNoEnvCache, "environment cache is not available"},
};

}  // namespace QOR
