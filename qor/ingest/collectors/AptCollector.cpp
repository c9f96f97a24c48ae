#include "ingest/collectors/AptCollector.h"

#include <string>
#include <utility>

#include "QORCommon/QORTime.h"
#include "ingest/QORAptHistory.h"
#include "ingest/QORMachine.h"
#include "ingest/RecordLines.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/CollectedSpan.h"

namespace QOR {
namespace {

constexpr std::int32_t done = 0;
constexpr std::int32_t failed = 1;
constexpr std::int32_t withoutEnd = 2;

QORInfo packageInfo(const QORAptPackage& package) {
    QORInfo info("package");
    addText(info, "name", package.name);
    addText(info, "version", package.version);
    addText(info, "old_version", package.oldVersion);
    addText(info, "architecture", package.architecture);
    addText(info, "action", package.action);
    if (package.automatic) info.add("automatic", "true");
    return info;
}

QORInfo messageOf(const QOREnvironmentRecord& machine, const QORAptTransaction& transaction) {
    QORInfo request("request");
    addText(request, "command", transaction.command);
    addText(request, "user", transaction.requester);
    addText(request, "comment", transaction.comment);
    QORInfo message;
    message.add(std::move(request));
    for (const QORAptPackage& package : transaction.packages)
        message.add(packageInfo(package));
    addText(message, "error", transaction.error);
    if (transaction.end) message.add("end", time2str(*transaction.end));
    addSource(message, machine);
    return message;
}

QOROperationRecord operationOf(const QOREnvironmentRecord& machine, const QORAptTransaction& transaction) {
    QOROperationRecord record = collectedOperation(
        machine, "apt " + std::to_string(transaction.repeated) + " " + transaction.start + " " + transaction.command);
    record.op = "apt";
    record.status = transaction.end ? done : withoutEnd;
    if (!transaction.error.empty()) record.status = failed;
    record.time = transaction.time;
    record.message = messageOf(machine, transaction);
    return record;
}

}  // namespace

AptCollector::AptCollector() : QORCollector({.name = "apt", .source = "/var/log/apt/history.log"}) {}

bool AptCollector::collect(QORCollection& collection) {
    CollectedSpan span(collection.position());
    const QORAptHistory history = readAptHistory(collection.root(), span.begin());
    if (history.files == 0) return false;
    const QOREnvironmentRecord machine = describeMachine(collection.root());
    for (const QORAptTransaction& transaction : history.transactions) {
        span.take(transaction.time);
        if (transaction.time >= span.begin()) collection.add(lineOf(operationOf(machine, transaction)));
    }
    span.end(collection, history);
    return true;
}

}  // namespace QOR
