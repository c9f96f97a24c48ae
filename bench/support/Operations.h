/// \file
/// Operations that benchmarks store, the clients that ask for them, and the databases that hold them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "QORDBSchema/QORDBSchema.h"
#include "ingest/QORIngest.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "support/ClientContexts.h"
#include "support/Figures.h"

namespace QOR::bench {

inline constexpr std::int64_t firstSecond = 1600000000;
inline constexpr std::int64_t year = 365 * 86400;
inline constexpr unsigned environments = 100;

using test::eidOf;
using test::fullAccess;

/// Environments run on a few hosts, which some of their operations touch too.
inline QOREID hostOf(std::uint64_t environment) {
    return eidOf(environment % 8);
}

/// A year of operations in the order of their times, of any size: larger logs are denser.
inline QOROperationRecord makeOperation(std::uint64_t number, std::uint64_t size) {
    constexpr const char* kinds[] = {"start", "stop", "install", "remove"};
    QOROperationRecord record;
    const std::uint64_t mixed = (number + 1) * 0x9E3779B97F4A7C15U;
    char id[48];
    std::snprintf(id, sizeof id, "%016llx-%llu", static_cast<unsigned long long>(mixed),
                  static_cast<unsigned long long>(number));
    record.id = id;
    record.op = kinds[mixed >> 40 & 3];
    record.status = static_cast<std::int32_t>(mixed >> 60);
    record.time = firstSecond + static_cast<std::int64_t>(static_cast<double>(number) / static_cast<double>(size) *
                                                          static_cast<double>(year));
    record.eid = eidOf(mixed % environments);
    if (number % 3 == 0) record.eids.push_back(hostOf(mixed % environments));
    QORInfo message;
    message.add("task_id", std::to_string(number));
    record.message = std::move(message);
    return record;
}

inline std::vector<QORRecord> makeBatch(std::uint64_t first, std::uint64_t count, std::uint64_t size) {
    std::vector<QORRecord> batch;
    batch.reserve(count);
    for (std::uint64_t number = first; number < std::min(first + count, size); ++number)
        batch.emplace_back(makeOperation(number, size));
    return batch;
}

/// Stores the operations that come behind those `stored` ones. \returns seconds
inline double storeNext(const QORIngestOptions& options, std::uint64_t& stored, std::uint64_t count,
                        std::uint64_t size) {
    const std::vector<QORRecord> records = makeBatch(stored, count, size);
    stored += records.size();
    return wallSeconds([&] {
        const QORIngestResult result = QORIngest(options).store(records, false);
        check(!result.failure && result.accepted() == records.size(), "the records were not stored");
    });
}

inline ASDatabaseOptions optionsOf(const std::filesystem::path& file) {
    ASDatabaseOptions options;
    options.connectionString = "Driver=SQLite3;Database=" + file.string();
    return options;
}

inline void openEmpty(const std::filesystem::path& file) {
    for (const char* suffix : {"", "-wal", "-shm"})
        std::filesystem::remove(file.string() + suffix);
    QORDBSchema::open(optionsOf(file), QORSchemaMode::Own);
}

/// A client whose identities stand for environments from 0 on.
inline QORClientContextPtr accessTo(unsigned count) {
    std::vector<unsigned> numbers(count);
    std::iota(numbers.begin(), numbers.end(), 0U);
    return test::accessTo(numbers);
}

}  // namespace QOR::bench
