/// \file
/// Backups as the host's database lists them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORMemory.h"
#include "QORLibAgent/QORInfo.h"
#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASCursor.h"
#include "rdbmspp/sql/ASData.h"

namespace QOR {

/// One backup.
struct QORBackup {
    std::int64_t time = 0;  ///< seconds since the epoch
    std::uint64_t size = 0;
    int type = 0;
    std::string id;
    QORInfo info;
    QOREID eid;
    std::string description;
    QOREID storage_eid;
    QORMemoryCharge memory;  ///< what the backup counts for the request that collects it

    /// The title of the environment when the backup was made, "" when the backup does not tell.
    std::string getEnvTitle() const;
};

/// The view "vBackupInfo" for one select: its columns and the data objects that a cursor fetches into.
struct QORBackupTable {
    QORBackupTable();

    ASDomainPtr domain;
    std::shared_ptr<ASVStr> id;
    std::shared_ptr<ASGuid> eid;
    std::shared_ptr<ASGuid> storageEid;
    std::shared_ptr<ASTime> time;
    std::shared_ptr<ASInt64> size;
    std::shared_ptr<ASInt> type;
    std::shared_ptr<ASVStr> description;
    std::shared_ptr<ASVStr> name;
    std::shared_ptr<ASVStr> hostname;
    std::shared_ptr<ASRealBlob> info;

    /// The attributes, each bound to the data object of its name.
    struct MetaData {
        MetaData();
        ASAttribute id, eid, storageEid, time, size, type, description, name, hostname, info;
    };
    MetaData metaData;

    void selectAllAttributes(ASProject& project) const;
    /// Newest first; those of one second by their identifiers.
    ASOrder order() const;
};

/// The backup in the row that was fetched last. \throws QORMemoryExceeded
QORBackup makeQORBackupInfo(const QORBackupTable& table);

/// Appends the backups that satisfy the condition, in the table's order. A client without full access (the client
/// context of the calling thread) finds only backups of the environments of its identities.
/// \param condition over the table's attributes; empty for every row \param storageEid when valid, the storage on
/// which they must be \throws AException
void getBackups(const QORBackupTable& table, const ASComparison& condition, std::vector<QORBackup>& backups,
                const QOREID& storageEid);

/// The value of a field of backups; "" for a name that is none.
std::string getBackupValue(const QORBackup& backup, std::string_view name);

}  // namespace QOR
