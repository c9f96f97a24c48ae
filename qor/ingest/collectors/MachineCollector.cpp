#include "ingest/collectors/MachineCollector.h"

#include "ingest/QORMachine.h"
#include "ingest/RecordLines.h"

namespace QOR {

MachineCollector::MachineCollector() : QORCollector({.name = "machine", .source = "/etc/os-release and /proc"}) {}

bool MachineCollector::collect(QORCollection& collection) {
    collection.add(lineOf(describeMachine(collection.root())));
    return true;
}

}  // namespace QOR
