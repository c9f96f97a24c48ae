/// \file
/// QORExportPosition: which records are exported, and up to where somebody has them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORGuid.h"
#include "ingest/QORRecords.h"

namespace QOR {

/// Which records are exported.
struct QORExportQuestion {
    std::vector<QORRecordKind> kinds{};  ///< in the order of QORRecordKind, each once; empty: all
    std::optional<std::int64_t> from{};  ///< seconds since the epoch; environments have no time, and are not bounded
    std::optional<std::int64_t> to{};    ///< included, as `from` is
    QOREID environment{};                ///< that one, and records that belong to it; invalid: all
};

/// Up to where somebody has an export. A value.
struct QORExportPosition {
    QORExportPosition() = default;
    /// Before the beginning.
    explicit QORExportPosition(QORExportQuestion what) : question(std::move(what)) {}
    /// \throws QORException errBadRequest for what text() has not written
    static QORExportPosition ofText(std::string_view text);

    /// An object of JSON, in one line.
    std::string text() const;
    /// What the end says: an object as well, with the counts alone.
    std::string countsText() const;
    /// The kinds that the question means.
    std::vector<QORRecordKind> kinds() const;
    /// Records of all kinds that are there.
    std::uint64_t records() const;

    QORExportQuestion question{};
    bool begun = false;                                   ///< the first line, a position, is there already
    std::optional<QORRecordKind> kind{};                  ///< whose records come next; nothing: the first
    std::string after{};                                  ///< of these those behind this one; empty: all
    std::array<std::uint64_t, recordKindCount> counts{};  ///< records that are there
    std::optional<std::uint64_t> of{};                    ///< records in all, where that was known at the beginning
    std::uint64_t unreadable = 0;                         ///< of these, those that lack a document
    std::string database{};                               ///< as databaseMark() tells it; empty: not known
};

/// What records of a kind are called together: "environments", "operations", "events", "backups".
std::string recordKindPlural(QORRecordKind kind);
/// The kind that is called so; nothing for any other word.
std::optional<QORRecordKind> recordKindOfPlural(std::string_view word);

}  // namespace QOR
