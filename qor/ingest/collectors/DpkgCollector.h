/// \file
/// The collector "dpkg": what was done to each package.
#pragma once

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Each action in the package manager's log (readPackageLog()) is an operation, whose status follows from what the log
/// tells later. The log is read whole each time: an action may come to its end after it was read.
class DpkgCollector final : public QORCollector {
public:
    DpkgCollector();
    bool collect(QORCollection& collection) override;
};

}  // namespace QOR
