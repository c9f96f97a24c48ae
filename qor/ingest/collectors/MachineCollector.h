/// \file
/// The collector "machine": this machine as an environment.
#pragma once

#include "QORFunctionality/QORCollector.h"

namespace QOR {

/// As describeMachine() tells it; it is there always.
class MachineCollector final : public QORCollector {
public:
    MachineCollector();
    bool collect(QORCollection& collection) override;
};

}  // namespace QOR
