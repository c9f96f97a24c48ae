#include "ingest/collectors/LibvirtTelling.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORTime.h"
#include "ingest/QORMachine.h"
#include "ingest/RecordLines.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/GoneEnvironment.h"
#include "ingest/collectors/LibvirtConnection.h"
#include "ingest/collectors/LibvirtDefinition.h"

namespace QOR {
namespace {

// Types of backups. Contract: never renumbered.
constexpr std::int32_t snapshotType = 1;
constexpr std::int32_t checkpointType = 2;
constexpr std::int32_t deletedType = 3;

constexpr std::size_t digestLength = 16;

std::string shortDigest(const std::string& line) {
    return QORDigest().add(line).hex().substr(0, digestLength);
}

std::string oneText(const std::string& name, const std::string& description) {
    return description.empty() ? name : name + ": " + description;
}

}  // namespace

LibvirtTelling::LibvirtTelling(QORCollection& collection, const LibvirtCollector::Bounds& most)
    : m_collection(collection), m_most(most), m_machine(describeMachine(collection.root())) {}

void LibvirtTelling::tell(const QOREnvironmentRecord& environment, LibvirtToldDomain& told) {
    const std::string line = lineOf(environment);
    std::string digest = shortDigest(line);
    if (digest == told.digest) return;
    m_collection.add(line);
    told.digest = std::move(digest);
}

void LibvirtTelling::tellGone(const QOREID& eid, const LibvirtToldDomain& told) {
    if (told.digest.empty()) return;
    if (const auto record = goneEnvironment(eid, m_collection.machine())) m_collection.add(lineOf(*record));
}

QORInfo LibvirtTelling::messageOf(const LibvirtChange& change, const QOREID& eid, const LibvirtToldDomain& told) const {
    QORInfo domain("domain");
    addText(domain, "name", libvirtText(told.name));
    QORInfo message;
    message.add(std::move(domain));
    addText(message, "event", change.event);
    addText(message, "detail", change.detail);
    message.add("old_state", std::to_string(numberOf(told.life)));
    message.add("new_state", std::to_string(numberOf(change.life.value_or(told.life))));
    QORInfo env("env");
    env.add("eid", eid.toString());
    message.add(std::move(env));
    return message;
}

void LibvirtTelling::tell(const LibvirtChange& change, const QOREID& eid, LibvirtToldDomain& told, std::int64_t time) {
    const std::string name =
        "libvirt " + eid.toString() + " " + std::to_string(told.number++) + " " + std::string(change.event);
    std::size_t& ofOne = m_ofOne[eid];
    if (m_told >= m_most.changes || ofOne >= m_most.ofOne) {
        if (m_leftOut++ == 0) {
            m_firstLeftOut = name;
            m_mostOf = told.name;
            m_from = time;
        }
        m_until = std::max(m_until, time);
        told.life = change.life.value_or(told.life);
        return;
    }
    ++m_told;
    ++ofOne;
    QORInfo message = messageOf(change, eid, told);
    QOREventRecord event;
    event.id = QORGUIDBase::fromName(m_machine.eid, "event of " + name);
    event.time = time;
    event.eid = eid;
    event.source = "libvirt";
    event.category = "env_status";
    event.info = message;
    QOROperationRecord operation = collectedOperation(m_machine, name);
    operation.op = std::string(change.op);
    operation.status = change.isFailure ? 1 : 0;
    operation.time = time;
    operation.eid = eid;
    operation.eids = {eid, m_machine.eid};
    operation.message = std::move(message);
    m_collection.add(lineOf(operation));
    m_collection.add(lineOf(event));
    told.life = change.life.value_or(told.life);
}

std::string LibvirtTelling::backupId(const QOREID& eid, bool isCheckpoint, const std::string& name, std::int64_t time) {
    return QORGUIDBase::fromName(
               eid, (isCheckpoint ? "libvirt checkpoint " : "libvirt snapshot ") + std::to_string(time) + " " + name)
        .toString();
}

bool LibvirtTelling::tell(const LibvirtSaving& saving, bool isCheckpoint, const QOREnvironmentRecord& environment,
                          LibvirtToldDomain& told) {
    const std::optional<LibvirtSavingDefinition> definition = readLibvirtSaving(saving.definition);
    if (!definition) return false;
    const std::string name = libvirtText(saving.name);
    QORBackupRecord record;
    record.id = backupId(environment.eid, isCheckpoint, saving.name, definition->time);
    record.eid = environment.eid;
    record.storageEid = m_machine.eid;
    record.time = definition->time;
    record.type = isCheckpoint ? checkpointType : snapshotType;
    record.description = oneText(name, definition->description);
    record.name = libvirtText(told.name);
    QORInfo info;
    addText(info, "title", environment.title.value_or(""));
    addText(info, isCheckpoint ? "checkpoint" : "snapshot", name);
    addText(info, "parent", definition->parent);
    addText(info, "state", definition->state);
    addText(info, "memory", definition->memory);
    if (saving.isCurrent) info.add("current", "true");
    record.info = std::move(info);
    const std::string line = lineOf(record);
    LibvirtToldBackup now{definition->time, shortDigest(line)};
    LibvirtToldBackup& before = told.backups[{isCheckpoint, saving.name}];
    // Another one of the same name was made since.
    if (!before.digest.empty() && before.time != now.time)
        tellDeleted(isCheckpoint, saving.name, before, environment.eid, told);
    if (before.digest != now.digest) m_collection.add(line);
    before = std::move(now);
    return true;
}

void LibvirtTelling::tellDeleted(bool isCheckpoint, const std::string& name, const LibvirtToldBackup& backup,
                                 const QOREID& eid, const LibvirtToldDomain& told) {
    QORBackupRecord record;
    record.id = backupId(eid, isCheckpoint, name, backup.time);
    record.eid = eid;
    record.storageEid = m_machine.eid;
    record.time = backup.time;
    record.type = deletedType;
    record.description = libvirtText(name);
    record.name = libvirtText(told.name);
    QORInfo info;
    addText(info, "title", libvirtText(told.name));
    addText(info, isCheckpoint ? "checkpoint" : "snapshot", libvirtText(name));
    info.add("deleted", "true");
    record.info = std::move(info);
    m_collection.add(lineOf(record));
}

void LibvirtTelling::end() {
    if (m_leftOut == 0) return;
    QOREventRecord event;
    event.time = m_until;
    event.eid = m_machine.eid;
    event.id = QORGUIDBase::fromName(event.eid, "left out from " + m_firstLeftOut);
    event.source = "libvirt";
    event.category = "env_status";
    QORInfo info;
    info.add("left_out", std::to_string(m_leftOut));
    info.add("from", time2str(m_from));
    info.add("until", time2str(m_until));
    addText(info, "first_of", libvirtText(m_mostOf));
    event.info = std::move(info);
    m_collection.add(lineOf(event));
}

}  // namespace QOR
