/// \file
/// How records of the logs stand to each other.
#pragma once

#include <cstdint>
#include <string>

namespace QOR {

/// Which of the two logs.
enum class QORLogKind { Operations, Events };

/// Which way a log is gone through.
enum class QORLogOrder { NewestFirst, OldestFirst };

/// Where a record stands in its log: newest first, of one second the latest arrival first.
struct QORLogMark {
    std::int64_t seq = 0;
    std::string time;  ///< in the database's form

    /// In the order of the log.
    friend bool operator<(const QORLogMark& left, const QORLogMark& right) {
        return left.time != right.time ? left.time > right.time : left.seq > right.seq;
    }
};

}  // namespace QOR
