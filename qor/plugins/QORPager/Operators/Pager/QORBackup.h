/// \file
/// Backups as the host's database lists them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORMemory.h"
#include "QORLibAgent/QORInfo.h"
#include "QORPager/QORArg.h"
#include "QORPager/QORField.h"
#include "rdbmspp/sql/ASTable.h"

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
    std::string name;
    std::string hostname;
    QORMemoryCharge memory;  ///< what the backup counts for the request that collects it

    /// The title of the environment when the backup was made, "" when the backup does not tell.
    std::string getEnvTitle() const;
};

/// A backup as a row.
class QORBackupArg final : public QORArg {
public:
    QORBackupArg(QORPtr<const QOREnv> environment, QORBackup of)
        : QORArg(std::move(environment)), backup(std::move(of)) {}
    ~QORBackupArg() override;
    const QORInfo& getInfo() const override { return backup.info; }

    QORBackup backup;
};

/// The view "vBackupInfo" for one select.
struct QORBackupTable : ASTable {
    QORBackupTable();

    /// Characters of columns with a declared length, the terminator included; others are read in pieces.
    static constexpr std::size_t noDeclaredLength = 1;

    ASColumn<ASVStr> id{*this, "id", 129};
    ASColumn<ASGuid> eid{*this, "eid"};
    ASColumn<ASGuid> storageEid{*this, "storage_eid"};
    ASColumn<ASTime> time{*this, "time"};
    ASColumn<ASInt64> size{*this, "size"};
    ASColumn<ASInt> type{*this, "type"};
    ASColumn<ASVStr> description{*this, "description", noDeclaredLength};
    ASColumn<ASVStr> name{*this, "name", 256};
    ASColumn<ASVStr> hostname{*this, "hostname", 256};
    ASColumn<ASRealBlob> info{*this, "info"};

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

/// The value of a field, with those that backups are found by and all parameters of the info document.
std::string getStoredValue(const QORBackup& backup, const QORField& field);

}  // namespace QOR
