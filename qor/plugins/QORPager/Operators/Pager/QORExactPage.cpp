#include "QORPager/Operators/Pager/QORExactPage.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {

namespace {

constexpr std::size_t firstPiece = 32;
constexpr std::size_t largestPiece = 512;
/// Of the documents of one piece, about: where they are large, pieces are small.
constexpr std::size_t pieceBytes = std::size_t{4} << 20;
/// The beginning of a key that is an exact request's.
constexpr std::string_view form = "exact";

bool isDue() {
    const QORRequestControl* const control = QORRequestControl::current();
    return control != nullptr && control->isDue();
}

/// Roughly.
std::size_t memoryOf(const QORInfo& info) {
    std::size_t bytes = sizeof(QORInfo) + info.name().size() + info.value().size();
    for (const QORInfo& child : info.children())
        bytes += memoryOf(child);
    return bytes;
}

/// How many rows are read next after a piece.
std::size_t nextPiece(std::size_t most, const std::vector<QORFoundRow>& piece) {
    std::size_t bytes = 0;
    for (const QORFoundRow& found : piece)
        bytes += memoryOf(found.row->getInfo());
    if (bytes > pieceBytes) return std::max<std::size_t>(most / 4, 1);
    return bytes > pieceBytes / 4 ? most : std::min(most * 2, largestPiece);
}

void askFilter(QORExactFilter& filter, const QORRowSource& source, const QORFoundRow& found) {
    if (!filter.error().empty()) throw QORFilterFailure(filter.error() + " (" + source.describe(found) + ")");
}

[[noreturn]] void refuseKey() {
    throw QORException(errBadRequest, "after: the page token belongs to another question", QOR_SOURCE_PATH);
}

/// Takes a key apart from its beginning.
class KeyReader {
public:
    explicit KeyReader(const std::vector<std::optional<std::string>>& key) : m_key(key) {}

    const std::optional<std::string>& element() {
        if (m_at == m_key.size()) refuseKey();
        return m_key[m_at++];
    }
    std::string text() {
        const auto& one = element();
        return one ? *one : std::string();
    }
    std::int64_t number() {
        const auto value = parseInt64(text());
        if (!value) refuseKey();
        return *value;
    }
    bool atEnd() const noexcept { return m_at == m_key.size(); }

private:
    const std::vector<std::optional<std::string>>& m_key;
    std::size_t m_at = 0;
};

}  // namespace

QORFilterFailure::~QORFilterFailure() = default;

// ---- positions ------------------------------------------------------------------------------------------------------

std::vector<std::optional<std::string>> QORExactPosition::toKey() const {
    std::vector<std::optional<std::string>> key{std::string(form),   std::to_string(skip), std::to_string(given),
                                                trimmed ? "1" : "0", last ? "1" : "0",     read ? "1" : "0"};
    if (last) {
        for (const QORSortValue& value : last->values)
            key.push_back(value.toText());
        key.push_back(last->unique.toText());
    }
    if (read) {
        key.emplace_back(read->time);
        key.emplace_back(read->key);
    }
    key.insert(key.end(), kept.begin(), kept.end());
    return key;
}

QORExactPosition QORExactPosition::fromKey(const std::vector<std::optional<std::string>>& key, const QORRowOrder& order,
                                           bool uniqueIsNumber) {
    KeyReader from(key);
    if (from.text() != form) refuseKey();
    QORExactPosition position;
    position.skip = from.number();
    position.given = from.number();
    position.trimmed = from.number() != 0;
    const bool hasLast = from.number() != 0;
    const bool hasRead = from.number() != 0;
    if (hasLast) {
        position.last.emplace();
        for (const QORSortKey& one : order.keys) {
            const auto value = QORSortValue::fromText(*one.field, from.element());
            if (!value) refuseKey();
            position.last->values.push_back(*value);
        }
        position.last->unique = uniqueIsNumber ? QORSortValue::of(from.number()) : QORSortValue::of(from.text());
    }
    if (hasRead) {
        position.read.emplace();
        position.read->time = from.text();
        position.read->key = from.text();
    }
    while (!from.atEnd())
        position.kept.push_back(from.text());
    return position;
}

std::size_t QORExactPosition::bytesOf(const std::vector<std::optional<std::string>>& key) noexcept {
    constexpr std::size_t around = 2;
    std::size_t bytes = 0;
    for (const auto& element : key)
        bytes += around + (element ? element->size() : 0);
    return bytes;
}

// ---- the page -------------------------------------------------------------------------------------------------------

QORExactPage::QORExactPage(QORRowSource& source, QORExactFilter& filter, const QORExactPageOptions& options,
                           Write write)
    : m_source(source),
      m_filter(filter),
      m_options(options),
      m_write(std::move(write)),
      m_read(firstPlace()),
      m_last(options.begin.last),
      m_skip(options.begin.skip),
      m_given(options.begin.given),
      m_piece(firstPiece) {
    m_wholly = !m_read && !m_last;
}

QORExactPage::~QORExactPage() = default;

bool QORExactPage::comesBefore(const Kept& left, const Kept& right) const {
    return m_options.order.compare(left.rank, right.rank) < 0;
}

/// Rows of earlier seconds than the last one's need not be read again.
std::optional<QORRowPlace> QORExactPage::firstPlace() const {
    const QORExactPosition& begin = m_options.begin;
    if (begin.read) return begin.read;
    if (m_options.grouping != QORRowGrouping::Second || !begin.last) return std::nullopt;
    return m_source.beginOf(begin.last->values.front().number);
}

void QORExactPage::run() {
    takeUpKept();
    while (readOn()) {
    }
    if (!m_options.size) m_next.reset();
}

/// What was found before the page was cut off, as far as it is there still.
void QORExactPage::takeUpKept() {
    const QORExactPosition& begin = m_options.begin;
    for (const QORFoundRow& found : m_source.find(begin.kept)) {
        if (m_options.grouping == QORRowGrouping::Second) m_second = found.second;
        if (matches(found)) keep(found, rankOf(found));
    }
    if (!begin.trimmed) return;
    // What follows the last of them is not known, so that no other one may take the place of one that has gone.
    m_trimmedTo = m_kept.size();
    m_dropped = true;
}

std::size_t QORExactPage::pieceSize() const {
    if (isFull()) return 1;  // whether there is a row behind the page
    if (!m_options.isEveryRow || m_options.grouping != QORRowGrouping::Row || !m_options.size) return m_piece;
    const auto wanted = static_cast<std::size_t>(m_skip + *m_options.size - m_written) + 1;
    return std::min(wanted, largestPiece);
}

/// \returns whether there is more to be read
bool QORExactPage::readOn() {
    const std::size_t most = pieceSize();
    const std::vector<QORFoundRow> piece = m_source.read(m_read ? &*m_read : nullptr, most);
    for (const QORFoundRow& found : piece) {
        m_watch.check();
        if (!take(found)) return false;
    }
    if (piece.size() < most) {
        endGroup();
        if (m_wholly) m_total = m_matched;
        return false;
    }
    m_piece = nextPiece(m_piece, piece);
    if (!isDue() || isFull()) return true;
    stop();
    return false;
}

/// \returns false where the page ends before the row
bool QORExactPage::take(const QORFoundRow& found) {
    const bool newGroup = m_options.grouping == QORRowGrouping::Row ||
                          (m_options.grouping == QORRowGrouping::Second && m_second && *m_second != found.second);
    if (newGroup) endGroup();
    if (m_next) return false;
    if (isFull()) {
        m_next = position();
        return false;
    }
    m_second = found.second;
    m_read = found.place;
    if (!matches(found)) return true;
    if (m_options.grouping == QORRowGrouping::Row) {
        ++m_matched;
        give(found.row);
        return true;
    }
    QORRowRank rank = rankOf(found);
    if (m_last && m_options.order.compare(rank, *m_last) <= 0) return true;
    ++m_matched;
    keep(found, std::move(rank));
    return true;
}

bool QORExactPage::matches(const QORFoundRow& found) {
    const bool holds = m_filter.holds(*found.row);
    askFilter(m_filter, m_source, found);
    return holds;
}

QORRowRank QORExactPage::rankOf(const QORFoundRow& found) const {
    QORRowRank rank;
    rank.values.reserve(m_options.order.keys.size());
    for (const QORSortKey& key : m_options.order.keys)
        rank.values.push_back(QORSortValue::read(*key.field, *found.row));
    rank.unique = found.unique;
    return rank;
}

/// How many rows may be kept: those of the page, and those that are left out before it.
std::optional<std::size_t> QORExactPage::room() const {
    std::optional<std::size_t> most;
    if (m_options.size) most = static_cast<std::size_t>(m_skip + *m_options.size - m_written);
    if (m_trimmedTo) most = std::min(*m_trimmedTo, most.value_or(*m_trimmedTo));
    return most;
}

void QORExactPage::keep(const QORFoundRow& found, QORRowRank rank) {
    const auto before = [this](const Kept& left, const Kept& right) { return comesBefore(left, right); };
    const auto most = room();
    const bool crowded = most && m_kept.size() >= *most;
    m_dropped = m_dropped || crowded;
    if (crowded && (m_kept.empty() || m_options.order.compare(rank, m_kept.front().rank) >= 0)) return;
    if (crowded) {
        std::pop_heap(m_kept.begin(), m_kept.end(), before);
        m_kept.pop_back();
    }
    Kept kept{std::move(rank), found.row, found.place.key, {}};
    std::size_t bytes = sizeof(Kept) + sizeof(QORProgressArg) + memoryOf(found.row->getInfo());
    for (const QORSortValue& value : kept.rank.values)
        bytes += sizeof value + value.text.size();
    kept.memory.add(bytes, "the rows to be sorted");
    m_kept.push_back(std::move(kept));
    std::push_heap(m_kept.begin(), m_kept.end(), before);
}

/// Nothing that comes before what is kept is to be read any more.
void QORExactPage::endGroup() {
    if (m_kept.empty() && !m_dropped) return;
    std::sort_heap(m_kept.begin(), m_kept.end(),
                   [this](const Kept& left, const Kept& right) { return comesBefore(left, right); });
    for (Kept& kept : m_kept) {
        m_last = std::move(kept.rank);
        give(kept.row);
        kept.row = nullptr;
        kept.memory.release();
    }
    m_kept.clear();
    if (m_dropped) m_next = position();
    m_dropped = false;
    m_trimmedTo.reset();
}

void QORExactPage::give(const ArgCSP& row) {
    ++m_given;
    if (m_skip > 0) {
        --m_skip;
        return;
    }
    m_write(row);
    ++m_written;
}

/// Where the next page begins when this one ends with what was given.
QORExactPosition QORExactPage::position() const {
    QORExactPosition next;
    next.skip = m_skip;
    next.given = m_given;
    if (m_options.grouping == QORRowGrouping::Row) {
        next.read = m_read;
    } else {
        next.last = m_last;
    }
    if (!next.last || QORExactPosition::bytesOf(next.toKey()) <= m_options.mostKeyBytes) return next;
    // The values are too long to be kept, so the next page leaves out what was given by its number.
    next.last.reset();
    next.skip = m_given;
    next.given = 0;
    return next;
}

/// The deadline has passed: the page is what was given, and what is kept is taken up by the next one.
void QORExactPage::stop() {
    QORExactPosition next;
    next.skip = m_skip;
    next.given = m_given;
    next.read = m_read;
    if (m_options.grouping != QORRowGrouping::Row) next.last = m_last;
    std::sort_heap(m_kept.begin(), m_kept.end(),
                   [this](const Kept& left, const Kept& right) { return comesBefore(left, right); });
    std::size_t bytes = QORExactPosition::bytesOf(next.toKey());
    next.trimmed = m_dropped;
    for (const Kept& kept : m_kept) {
        bytes += QORExactPosition::bytesOf({kept.key});
        if (bytes > m_options.mostKeyBytes) {
            next.trimmed = true;
            break;
        }
        next.kept.push_back(kept.key);
    }
    const bool goesOn = bytes <= m_options.mostKeyBytes || !next.kept.empty();
    const bool hasRoom = !next.trimmed || static_cast<std::int64_t>(next.kept.size()) > m_skip;
    if (!m_options.size || !goesOn || !hasRoom)
        throw QORException(errDeadline, QORRequestControl::current()->dueText());
    m_next = std::move(next);
}

// ---- counting -------------------------------------------------------------------------------------------------------

namespace {

class RowCounter {
public:
    RowCounter(QORRowSource& source, QORExactFilter& filter, const QORCountLimit& limit)
        : m_source(source), m_filter(filter), m_limit(limit) {}

    QORRowCount run(bool all) {
        if (all && (m_limit.kind == QORCountLimit::Kind::Exact || m_source.countsQuickly())) {
            m_count.least = m_source.count();
            m_count.exact = true;
        } else {
            look();
        }
        m_count.spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - m_begin);
        return m_count;
    }

private:
    using Clock = std::chrono::steady_clock;

    void look() {
        std::optional<QORRowPlace> read;
        std::size_t most = firstPiece;
        for (;;) {
            const std::vector<QORFoundRow> piece = m_source.read(read ? &*read : nullptr, most);
            for (const QORFoundRow& found : piece) {
                m_watch.check();
                if (!look(found)) return;
            }
            m_count.exact = piece.size() < most;
            if (m_count.exact) return;
            if (isUp()) return bound();
            read = piece.back().place;
            most = nextPiece(most, piece);
        }
    }

    /// \returns false where it is enough
    bool look(const QORFoundRow& found) {
        ++m_looked;
        if (!m_filter.holds(*found.row)) return askFilter(m_filter, m_source, found), true;
        if (m_limit.kind == QORCountLimit::Kind::Capped && m_count.least == QORCountLimit::cap) return false;
        ++m_count.least;
        return true;
    }

    bool isUp() const {
        return isDue() || (m_limit.kind == QORCountLimit::Kind::Timed && Clock::now() - m_begin >= m_limit.time);
    }

    /// Those that were not looked at may all be among them.
    void bound() {
        if (m_limit.kind != QORCountLimit::Kind::Timed || !m_source.countsQuickly() || isDue()) return;
        const std::uint64_t all = m_source.count();
        m_count.most = m_count.least + (all > m_looked ? all - m_looked : 0);
    }

    QORRowSource& m_source;
    QORExactFilter& m_filter;
    const QORCountLimit& m_limit;
    QORRequestWatch m_watch;
    const Clock::time_point m_begin = Clock::now();
    std::uint64_t m_looked = 0;
    QORRowCount m_count;
};

}  // namespace

QORRowCount countRows(QORRowSource& source, QORExactFilter& filter, const QORNarrowing& narrowing,
                      const QORCountLimit& limit) {
    return RowCounter(source, filter, limit).run(narrowing.isAll);
}

}  // namespace QOR
