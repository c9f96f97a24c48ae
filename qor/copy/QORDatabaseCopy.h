/// \file
/// Moves a database into another one: all records and what is kept about them, exactly as they are.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace QOR {

/// How far a copy is. Each part walks all tables, or does one thing.
struct QORCopyProgress {
    enum class Part {
        Reading,   ///< everything that is to be copied, to see that it can be, and what it is
        Copying,   ///< what is not there yet
        Indexing,  ///< makes indexes and triggers; records tell nothing of how far that is
        Checking,  ///< what has been written, read back
        Counting,  ///< whether the counters agree with the records; likewise
    };
    Part part = Part::Reading;
    std::uint64_t records = 0;  ///< done, of this part
    std::uint64_t of = 0;
    std::uint64_t resumed = 0;  ///< of those done, by earlier runs
};

struct QORCopyOptions {
    std::string from;  ///< connection string
    std::string to;
    std::function<void(const QORCopyProgress&)> progress;  ///< called now and then
    std::function<bool()> stop;  ///< asked now and then; when it is true the copy ends, to be gone on with
};

/// A table that was copied.
struct QORCopiedTable {
    std::string name;
    std::uint64_t records = 0;
    std::string digest;  ///< of all its values, whichever engine keeps them
};

struct QORCopyReport {
    std::vector<QORCopiedTable> tables;
    bool resumed = false;              ///< an earlier run had begun
    bool stopped = false;              ///< the rest is still to do, and `tables` is empty
    std::uint64_t miscounted = 0;      ///< groups of records whose counters are as wrong as they are in the source
    std::vector<std::string> changed;  ///< tables of the source that others have written to meanwhile
};

/// Copies as the source was at one moment; whoever serves it goes on doing so, and what is written meanwhile is not in
/// the copy. The source is only read. The target is empty, or has a schema and no records, or is what an earlier
/// run of the same copy has left, which is gone on with: every batch is one transaction, and what is there tells where
/// the next one begins. Until all is there and has been found to be what the source has, everybody else refuses the
/// target.
///
/// Uses QORRdbms::instance() for the target. One at a time, used by one thread.
class QORDatabaseCopy {
public:
    /// Opens both. \throws QORException 1 for databases that are not fit for it; AException
    explicit QORDatabaseCopy(QORCopyOptions options);
    ~QORDatabaseCopy();
    QORDatabaseCopy(const QORDatabaseCopy&) = delete;
    QORDatabaseCopy& operator=(const QORDatabaseCopy&) = delete;

    /// \throws QORException 1 for a target that holds other records, values that cannot be copied, a source that is not
    /// what an earlier run has begun with, and a copy that differs from its source; AException
    QORCopyReport run();

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
