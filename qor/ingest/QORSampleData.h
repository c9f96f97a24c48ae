/// \file
/// QORSampleData: made-up records to try things with, the same for the same seed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace QOR {

struct QORSampleOptions {
    std::uint64_t environments = 0;
    std::uint64_t operations = 0;
    std::uint64_t events = 0;
    std::uint64_t backups = 0;
    std::uint64_t seed = 1;
};

/// Writes environments, then operations, events and backups, each kind in the order of time, as lines of NDJSON.
///
/// The bytes depend on the options alone, not on the clock, the machine or the library: the times end on a day that
/// the seed chooses. Every record is made from the seed and its number, so that a million of them take no memory.
/// One environment in twenty, the first among them, is a host and the parent of others. Of each kind some records
/// lack what a record may lack, and some environments have several addresses.
class QORSampleData {
public:
    explicit QORSampleData(const QORSampleOptions& options);
    ~QORSampleData();
    QORSampleData(const QORSampleData&) = delete;
    QORSampleData& operator=(const QORSampleData&) = delete;

    /// Records in all.
    std::uint64_t total() const noexcept;
    /// Replaces `line` by the next record, without a line end. False, with `line` untouched, after the last.
    bool next(std::string& line);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace QOR
