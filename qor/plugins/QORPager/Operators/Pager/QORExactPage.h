/// \file
/// A page of an exact request: which rows are on it, how many there are, and where the next one begins.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORMemory.h"
#include "QORCommon/QORRequestControl.h"
#include "QORLibAgent/QORCountLimit.h"
#include "QORPager/Operators/Pager/QORExactFilter.h"
#include "QORPager/Operators/Pager/QORRowOrder.h"
#include "QORPager/Operators/Pager/QORRowSource.h"

namespace QOR {

/// The filter cannot be evaluated on a row.
class QORFilterFailure : public QORException {
public:
    explicit QORFilterFailure(std::string reason) : QORException(errFailure, std::move(reason)) {}
    ~QORFilterFailure() override;
};

/// How the order that is asked for and the order in which the source is read go together.
enum class QORRowGrouping {
    Row,     ///< they are the same: a row is known to be next when it is read
    Second,  ///< rows of one second are to be sorted
    All,     ///< all rows are to be sorted
};

/// Where a page begins. What a page token holds of an exact request; a value.
struct QORExactPosition {
    /// The last row that was given, where the order asked for is not the source's.
    std::optional<QORRowRank> last{};
    /// How far the source has been read for the page.
    std::optional<QORRowPlace> read{};
    /// Rows that are to be left out still, and those that were given, the first ones that were left out among them.
    std::int64_t skip = 0;
    std::int64_t given = 0;
    /// Keys of what was found as far as the source was read, the first of its rows in the order asked for: of a page
    /// that its deadline cut off.
    std::vector<std::string> kept{};
    /// There were more than these, so that the page has no more rows than they are.
    bool trimmed = false;

    /// In the form of a token's key. \throws QORException 400 for what toKey() has not made for these keys
    std::vector<std::optional<std::string>> toKey() const;
    static QORExactPosition fromKey(const std::vector<std::optional<std::string>>& key, const QORRowOrder& order,
                                    bool uniqueIsNumber);
    /// About what the key takes in a token.
    static std::size_t bytesOf(const std::vector<std::optional<std::string>>& key) noexcept;
};

struct QORExactPageOptions {
    QORRowOrder order;
    QORRowGrouping grouping = QORRowGrouping::Row;
    std::optional<std::int64_t> size{};  ///< of the page, above 0; nothing: all rows
    bool isEveryRow = false;             ///< the filter need not be asked
    QORExactPosition begin{};
    std::size_t mostKeyBytes = 2048;  ///< of the position where the next page begins
};

/// Goes through the source as far as the page needs it. What it holds does not depend on how long that is: rows leave
/// as soon as it is certain that they are next, and of others it keeps no more than the page has room for. Once the
/// request's deadline has passed it stops, having read one piece at least; a page that has a size is then what there
/// is, and the next one goes on from there.
class QORExactPage {
public:
    using Write = std::function<void(const ArgCSP&)>;

    /// All of them must outlive the object.
    QORExactPage(QORRowSource& source, QORExactFilter& filter, const QORExactPageOptions& options, Write write);
    ~QORExactPage();

    /// Writes the rows. \throws QORFilterFailure; QORException errDeadline where there is no going on from what there
    /// is; what the source throws
    void run();

    std::int64_t written() const noexcept { return m_written; }
    /// Where the next page begins; nothing after the last one.
    const std::optional<QORExactPosition>& next() const noexcept { return m_next; }
    /// How many rows satisfy the filter, where the page has come to look at all of them.
    std::optional<std::uint64_t> total() const noexcept { return m_total; }

private:
    struct Kept {
        QORRowRank rank;
        ArgCSP row;
        std::string key;
        QORMemoryCharge memory;
    };

    bool comesBefore(const Kept& left, const Kept& right) const;
    std::optional<QORRowPlace> firstPlace() const;
    void takeUpKept();
    bool readOn();
    bool take(const QORFoundRow& found);
    bool matches(const QORFoundRow& found);
    QORRowRank rankOf(const QORFoundRow& found) const;
    void keep(const QORFoundRow& found, QORRowRank rank);
    std::optional<std::size_t> room() const;
    bool isFull() const noexcept { return m_options.size && m_written == *m_options.size; }
    std::size_t pieceSize() const;
    void endGroup();
    void give(const ArgCSP& row);
    void stop();
    QORExactPosition position() const;

    QORRowSource& m_source;
    QORExactFilter& m_filter;
    const QORExactPageOptions& m_options;
    Write m_write;
    QORRequestWatch m_watch;
    std::optional<QORRowPlace> m_read;
    std::optional<std::int64_t> m_second;
    std::optional<QORRowRank> m_last;
    std::vector<Kept> m_kept;  ///< a heap, the last one in the order on top
    std::optional<std::size_t> m_trimmedTo;
    bool m_dropped = false;
    bool m_wholly = true;  ///< everything from the first row on was looked at
    std::int64_t m_skip;
    std::int64_t m_given;
    std::int64_t m_written = 0;
    std::uint64_t m_matched = 0;
    std::size_t m_piece;
    std::optional<QORExactPosition> m_next;
    std::optional<std::uint64_t> m_total;
};

/// How many rows there are.
struct QORRowCount {
    std::uint64_t least = 0;
    bool exact = false;
    std::optional<std::uint64_t> most{};  ///< where that is known of rows that were not all looked at
    std::chrono::milliseconds spent{0};
};

/// Counts the rows of the source that satisfy the filter, as far as the limit and the request's deadline let it.
/// \param narrowing that the source was made with \throws QORFilterFailure; what the source throws
QORRowCount countRows(QORRowSource& source, QORExactFilter& filter, const QORNarrowing& narrowing,
                      const QORCountLimit& limit);

}  // namespace QOR
