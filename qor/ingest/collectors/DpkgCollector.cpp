#include "ingest/collectors/DpkgCollector.h"

#include "ingest/QORMachine.h"
#include "ingest/QORPackageLog.h"
#include "ingest/RecordLines.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/CollectedSpan.h"

namespace QOR {
namespace {

QORInfo messageOf(const QOREnvironmentRecord& machine, const QORPackageAction& action) {
    QORInfo package("package");
    addText(package, "name", action.package);
    addText(package, "version", action.version);
    addText(package, "old_version", action.oldVersion);
    addText(package, "architecture", action.architecture);
    addText(package, "state", action.state);
    QORInfo message;
    message.add(std::move(package));
    addSource(message, machine);
    return message;
}

/// The log has no identifiers: the line is one, with the number of equal lines before it.
QOROperationRecord operationOf(const QOREnvironmentRecord& machine, const QORPackageAction& action) {
    QOROperationRecord record =
        collectedOperation(machine, "dpkg " + std::to_string(action.repeated) + " " + action.line);
    record.op = action.action;
    record.status = action.status;
    record.time = action.time;
    record.message = messageOf(machine, action);
    return record;
}

}  // namespace

DpkgCollector::DpkgCollector() : QORCollector({.name = "dpkg", .source = "/var/log/dpkg.log"}) {}

bool DpkgCollector::collect(QORCollection& collection) {
    QORPackageLog log = readPackageLog(collection.root());
    if (log.files == 0) return false;
    const QOREnvironmentRecord machine = describeMachine(collection.root());
    CollectedSpan span(collection.position());
    for (const QORPackageAction& action : log.actions) {
        span.take(action.time);
        if (action.time >= span.begin()) collection.add(lineOf(operationOf(machine, action)));
    }
    span.end(collection, log);
    return true;
}

}  // namespace QOR
