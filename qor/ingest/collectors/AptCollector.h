/// \file
/// The collector "apt": who asked for which packages.
#pragma once

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Each transaction of apt's history (readAptHistory()) is an operation that names its packages, beside those that the
/// package manager's own log tells of each package. Its position is the beginning of the last one, in seconds:
/// rotations that are older are not read again.
class AptCollector final : public QORCollector {
public:
    AptCollector();
    bool collect(QORCollection& collection) override;
};

}  // namespace QOR
