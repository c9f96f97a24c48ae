/// \file
/// Where an exact request reads its candidates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QORLibAgent/QOREnvCache.h"
#include "QORPager/Operators/Pager/QORNarrowing.h"
#include "QORPager/Operators/Pager/QORRowOrder.h"
#include "QORPager/QORArg.h"

namespace QOR {

/// Where a row stands in the order in which its source is read: by its time where it has one, then by its key. Without
/// a key, before all rows of the next second.
struct QORRowPlace {
    std::string time;
    std::string key;
};

struct QORFoundRow {
    ArgCSP row;
    QORRowPlace place;
    std::int64_t second = 0;  ///< since the epoch, of the place
    QORSortValue unique;      ///< the key, in its order
};

/// The directions in which a source is read.
struct QORReadOrder {
    bool newestFirst = true;
    bool keyDescending = true;
};

/// The rows of one source that the client of the calling thread may see, less those that a narrowing rules out, a piece
/// at a time. A row has its record's environment, with all that is known of it. One request, one thread.
/// \throws AException, QORException from every method
class QORRowSource {
public:
    virtual ~QORRowSource();

    /// The first rows, or those behind a place, which need not be a row's; fewer than `most` at the end.
    virtual std::vector<QORFoundRow> read(const QORRowPlace* behind, std::size_t most) = 0;
    /// Those of the rows with these keys that there are still.
    virtual std::vector<QORFoundRow> find(const std::vector<std::string>& keys) = 0;
    /// How many rows there are to be read.
    virtual std::uint64_t count() = 0;
    /// Whether count() costs no more than a page, however many there are.
    virtual bool countsQuickly() const { return true; }
    /// A number that is another one once rows were added or removed.
    virtual std::uint64_t state() = 0;
    /// Which row it is, for people: `operation "42"`.
    virtual std::string describe(const QORFoundRow& found) const = 0;
    /// The place from which on reading comes to all rows of a second and to none of those before it.
    QORRowPlace beginOf(std::int64_t second) const;

protected:
    explicit QORRowSource(const QORReadOrder& order) noexcept : m_order(order) {}
    const QORReadOrder& order() const noexcept { return m_order; }

private:
    QORReadOrder m_order;
};

/// What all of them are made from. \pre logs: keys in the direction of the times
struct QORRowSourceOptions {
    QORNarrowing narrowing;
    QORReadOrder order;
    QORPtr<const QOREnvList> envs;
};

std::unique_ptr<QORRowSource> makeOperationSource(const QORRowSourceOptions& options);
std::unique_ptr<QORRowSource> makeEventSource(const QORRowSourceOptions& options);
std::unique_ptr<QORRowSource> makeBackupSource(const QORRowSourceOptions& options);
/// In the order of their identifiers, whatever the options say.
std::unique_ptr<QORRowSource> makeEnvSource(const QORRowSourceOptions& options);

/// The environment of a record; all that is known of one that is not in the list is its identifier.
QORPtr<const QOREnv> envOf(const QOREnvList& envs, const QOREID& eid);

/// Numbers that tell states apart are made by adding one value after the other.
class QORStateSum {
public:
    QORStateSum& add(std::string_view text) noexcept;
    QORStateSum& add(std::uint64_t number) noexcept;
    std::uint64_t value() const noexcept { return m_value; }

private:
    std::uint64_t m_value = 14695981039346656037U;
};

}  // namespace QOR
