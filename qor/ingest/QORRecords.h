/// \file
/// Records on the way in: what a line of NDJSON says, checked and typed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QOREnv.h"
#include "QORLibAgent/QORInfo.h"
#include "rdbmspp/engine/ASDialect.h"

namespace QOR {

/// The code of the exception for records that their sender may not store.
inline constexpr int errForbidden = 403;

/// In the order of QORRecord's alternatives.
enum class QORRecordKind : std::size_t { Environment, Operation, Event, Backup };
constexpr std::size_t recordKindCount = 4;
/// "environment", "operation", "event", "backup".
std::string_view recordKindName(QORRecordKind kind);

/// A configuration or virtual configuration: what the record gave. The configuration made of it cannot stand for it,
/// because that knows no null beside the empty text, and no empty address.
struct QORConfigRecord {
    QORConfigRecord() : QORConfigRecord(QORInfo()) {}
    explicit QORConfigRecord(QORInfo members)
        : document(std::move(members)), config(makeQORPtr<QOREnvConfig>(QOREnvConfigData::fromDocument(document))) {}

    /// What the record gave; empty where it lacks the member or gave null.
    const std::optional<std::string>& text(QOREnvMember member) const {
        static const std::optional<std::string> none;
        return nulls[static_cast<std::size_t>(member)] ? none : config->text(member);
    }

    QORInfo document;                          ///< all members, those beyond the named ones too
    QORPtr<const QOREnvConfig> config;         ///< what the document says; never null
    std::array<bool, envMemberCount> nulls{};  ///< members that were given as null
    std::vector<std::string> addresses;        ///< as given
    std::optional<std::int64_t> memory;        ///< MiB, where a member "memory" is a whole number
    std::optional<std::int64_t> bootTime;      ///< seconds since the epoch, where a member "boot_time" is a time
};

/// What belongs to any record and cannot be said by it.
struct QORStampedRecord {
    std::optional<std::string> reporter;  ///< the identity that brought it; nothing for who needs none
};

struct QOREnvironmentRecord : QORStampedRecord {
    QOREID eid;
    QOREID parentEid;  ///< invalid for none
    std::optional<std::string> title;
    std::int32_t state = 0;
    std::int32_t transition = 0;
    std::optional<QORConfigRecord> config;
    std::optional<QORConfigRecord> virtualConfig;
};

struct QOROperationRecord : QORStampedRecord {
    /// More environments than one operation can mean; each of them costs some pages of the database.
    static constexpr std::size_t mostEids = 10000;

    std::string id;
    std::optional<std::string> parentId;
    std::optional<std::string> op;
    std::int32_t status = 0;
    std::int64_t time = 0;     ///< seconds since the epoch, as all times of records
    QOREID eid;                ///< invalid for an operation of no environment
    std::vector<QOREID> eids;  ///< each once, at most mostEids
    std::optional<QORInfo> message;
};

struct QOREventRecord : QORStampedRecord {
    QORGUIDBase id;  ///< by which it is stored once; invalid for none
    std::int64_t time = 0;
    QOREID eid;
    std::optional<std::string> source;
    std::optional<std::string> category;
    std::optional<QORInfo> info;
};

struct QORBackupRecord : QORStampedRecord {
    std::string id;
    QOREID eid;
    QOREID storageEid;
    std::int64_t time = 0;
    std::int64_t size = 0;  ///< bytes
    std::int32_t type = 0;
    std::optional<std::string> description;
    std::optional<std::string> name;
    std::optional<std::string> hostname;
    std::optional<QORInfo> info;
};

using QORRecord = std::variant<QOREnvironmentRecord, QOROperationRecord, QOREventRecord, QORBackupRecord>;

inline QORRecordKind kindOf(const QORRecord& record) {
    return static_cast<QORRecordKind>(record.index());
}

/// What a database can keep.
struct QORRecordBounds {
    std::int64_t firstSecond = firstDbSecond;  ///< since the epoch
    /// Bytes of identifiers, categories, hostnames and addresses, which indexes hold.
    std::size_t longestIndexed = std::numeric_limits<std::size_t>::max();

    static QORRecordBounds of(const ASDialect& dialect) noexcept;
};

/// Reads lines. Keeps its buffers from line to line; one thread at a time.
///
/// A line is one JSON object with a member "kind". Required are an environment's eid, an operation's id and time, an
/// event's time, a backup's id and time; any other member may be absent or null, which is a missing value (0 for
/// numbers). What is there must be of its type: texts are texts, numbers whole and in range, times whole seconds or a
/// text for parseTime from the year 0 to 9999, GUIDs what the GUID parser takes ("" is none); the database may have
/// narrower bounds. Members that a kind does not have are refused, but for those of configurations, which are kept in
/// the document.
///
/// Info documents: an object becomes parameters, an array repeats its parameter (an array in an array has parameters
/// "item"), numbers, true and false are the text that JSON has for them, null is the empty text.
class QORRecordParser {
public:
    explicit QORRecordParser(const QORRecordBounds& bounds = {});
    ~QORRecordParser();
    QORRecordParser(const QORRecordParser&) = delete;
    QORRecordParser& operator=(const QORRecordParser&) = delete;

    /// \throws QORException 400; the text names the member and the value that are wrong
    QORRecord parse(std::string_view line);

    /// Whether the line is one that an export has beside its records: an object whose only member is an object
    /// "position" or "end". It is no record and no mistake.
    bool isAside(std::string_view line);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
