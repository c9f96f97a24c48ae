#include "ingest/QORCollectors.h"

#include <utility>

#include "ingest/QORMachine.h"
#include "ingest/QORPackageLog.h"

namespace QOR {
namespace {

/// The machine as documents name the environment that an operation comes from.
QORInfo sourceOf(const QOREnvironmentRecord& machine) {
    QORInfo source("source_env");
    source.add("eid", machine.eid.toString());
    if (machine.title) source.add("title", *machine.title);
    source.add("type", "host");
    return source;
}

void addText(QORInfo& info, const char* name, const std::string& value) {
    if (!value.empty()) info.add(name, value);
}

QORInfo messageOf(const QOREnvironmentRecord& machine, const QORPackageAction& action) {
    QORInfo package("package");
    addText(package, "name", action.package);
    addText(package, "version", action.version);
    addText(package, "old_version", action.oldVersion);
    addText(package, "architecture", action.architecture);
    addText(package, "state", action.state);
    QORInfo env("env");
    env.add("eid", machine.eid.toString());
    QORInfo message;
    message.add(std::move(package)).add(std::move(env)).add(sourceOf(machine));
    return message;
}

/// The log has no identifiers: the line is one, with the number of equal lines before it.
QOROperationRecord operationOf(const QOREnvironmentRecord& machine, const QORPackageAction& action) {
    QOROperationRecord record;
    record.id =
        QORGUIDBase::fromName(machine.eid, "dpkg " + std::to_string(action.repeated) + " " + action.line).toString();
    record.op = action.action;
    record.status = action.status;
    record.time = action.time;
    record.eid = machine.eid;
    record.eids.push_back(machine.eid);
    record.message = messageOf(machine, action);
    return record;
}

}  // namespace

QORCollectResult collect(const QORCollectOptions& options, const std::stop_token& stop) {
    QORCollectResult result;
    const QOREnvironmentRecord machine = describeMachine(options.root);
    QORPackageLog log = readPackageLog(options.root);
    result.malformed = log.malformed;
    result.unreadable = std::move(log.unreadable);
    std::vector<QORRecord> records;
    records.reserve(log.actions.size() + 1);
    records.emplace_back(machine);
    for (const QORPackageAction& action : log.actions)
        records.emplace_back(operationOf(machine, action));
    result.stored = QORIngest(options.ingest).store(records, true, stop);
    return result;
}

}  // namespace QOR
