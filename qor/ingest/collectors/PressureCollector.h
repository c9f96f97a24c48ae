/// \file
/// The collector "pressure": when work stands still because a resource is short.
#pragma once

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// Reads what the kernel tells of stalled tasks (/proc/pressure). A resource whose share of stalled time passes a bound
/// is an event of the category resource_alert, and another one when it has fallen below a lower bound: what goes up and
/// down between the two raises nothing. The position names the resources of which an alert is raised.
class PressureCollector final : public QORCollector {
public:
    PressureCollector();
    bool collect(QORCollection& collection) override;
};

}  // namespace QOR
