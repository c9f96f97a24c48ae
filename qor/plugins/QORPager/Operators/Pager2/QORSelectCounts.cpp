// How many rows there are on all pages together.
#include <algorithm>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "QORLibAgent/QORCountLimit.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"
#include "rdbmspp/sql/ASSpread.h"

namespace QOR {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto cap = static_cast<std::int64_t>(QORCountLimit::cap);
/// Of a count within a time: what is counted first, and how many times more each time. What was counted before is
/// counted again, which costs a seventh.
constexpr std::int64_t firstStep = 1'000;
constexpr std::int64_t stepFactor = 8;

/// The tables behind the host's own views, and the numbers that tell their records apart.
struct CountedTable {
    std::string_view view;
    const char* sql;  ///< no fewer than the records that there are, from the two ends of an index
};
constexpr CountedTable countedTables[] = {
    {"vEnvironment", "SELECT max(rowid) - min(rowid) + 1 FROM qor_environment"},
    {"vOpLog", "SELECT max(seq) - min(seq) + 1 FROM qor_operation"},
    {"vEventLog", "SELECT max(seq) - min(seq) + 1 FROM qor_event"},
    {"vBackupInfo", "SELECT max(seq) - min(seq) + 1 FROM qor_backup"},
};

}  // namespace

const ASSelect& SelectStmnt::countOfAll() const {
    if (m_countOfAll) return *m_countOfAll;
    ASGroupAttribute allRows;
    allRows.Register(m_all, m_domain);
    ASFilter& filter = m_countOfAll.emplace().Filter();
    ASProject& projection = m_distinct ? filter.DistinctProject() : filter.Project();
    projection << allRows;
    restrict(filter, {});
    m_countOfAll->keepWritten();
    return *m_countOfAll;
}

bool SelectStmnt::countUnlimited(ASSession& database, std::int64_t& total) const {
    ASCursor cursor(database);
    cursor.Select() = countOfAll();
    if (!cursor.Fetch()) return false;
    total = m_all->value();
    return true;
}

/// Rows as they are answered: distinct ones and groups once. \param most looks no further; 0: at all
std::int64_t SelectStmnt::countUpTo(ASSession& database, std::int64_t most) const {
    const bool plain = !m_distinct && !isGrouped();
    std::int64_t total = 0;
    if (plain && most == 0) {
        countUnlimited(database, total);
        return total;
    }
    ASCursor cursor(database);
    ASProject& projection = m_distinct ? cursor.Filter().DistinctProject() : cursor.Filter().Project();
    for (const OutputField& field : m_outputFields) {
        if (field.cell.getAggrAttr()) {
            projection << *field.cell.getAggrAttr();
        } else {
            projection << *field.cell.getAttr();
        }
        if (plain) break;
    }
    restrict(cursor.Filter(), {});
    if (most > 0) cursor.Limit(static_cast<std::int32_t>(most), 0);
    const auto count = std::make_shared<ASInt64>();
    cursor.Select().Count(count);
    cursor.Fetch();
    return count->value();
}

/// A number that the rows of the view do not exceed, where it is at hand and tells of no rows but those that the client
/// may see.
std::optional<std::int64_t> SelectStmnt::mostRows(ASSession& database) const {
    if (m_columns->key.empty() || isSecurityNeeded()) return std::nullopt;
    if (m_domain->spread() != nullptr && m_domain->spread()->places() != nullptr) return std::nullopt;
    for (const CountedTable& table : countedTables) {
        if (table.view != m_columns->viewName) continue;
        ASStatement& select = database.prepare(table.sql);
        select.execute();
        const std::int64_t most = select.fetch() && !select.isNull(1) ? select.integer(1) : 0;
        select.close();
        return most;
    }
    return std::nullopt;
}

SelectStmnt::Total SelectStmnt::countWithin(ASSession& database, const Page& page) const {
    const Clock::time_point end = Clock::now() + m_countTime;
    Total total{page.rows + (page.isLast ? 0 : 1), std::nullopt};
    if (m_pageSize > 0) total.most = mostRows(database);
    try {
        for (std::int64_t step = firstStep;; step *= stepFactor) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            if (left.count() <= 0) break;
            // The request's own bounds are asked again when this is over, which is soon.
            const QORRequestScope scope(std::make_shared<QORRequestControl>(left));
            const std::int64_t counted = countUpTo(database, step);
            total.least = std::max(total.least, counted);
            if (counted == step) continue;
            total.most = total.least = counted;
            break;
        }
    } catch (const QORException& ended) {
        if (ended.code() != errDeadline) throw;
    }
    QORRequestControl::checkCurrent();
    if (total.most) total.most = std::max(*total.most, total.least);
    return total;
}

SelectStmnt::Total SelectStmnt::countRows(ASSession& database, const Page& page) const {
    if (m_counting == Counting::Within) return countWithin(database, page);
    if (m_counting == Counting::Exact) {
        const std::int64_t all = countUpTo(database, 0);
        return {all, all};
    }
    const std::int64_t counted = countUpTo(database, cap + 1);
    if (counted > cap) return {cap, std::nullopt};
    return {counted, counted};
}

void SelectStmnt::writeCounts(QORBinaryIterator& out, ASSession& database, const Page& page) const {
    if (m_counting == Counting::Legacy) {
        std::int64_t total = 0;
        const bool counted = countUnlimited(database, total);
        expectWritten(out.putInt(counted ? static_cast<std::int32_t>(page.rows) : 0, tag::statistics));
        expectWritten(out.putInt64(counted ? total : 0, tag::total));
        return;
    }
    const Clock::time_point began = Clock::now();
    expectWritten(out.putInt(static_cast<std::int32_t>(page.rows), tag::statistics));
    if (m_counting == Counting::PageOnly) return;
    const Total total = countRows(database, page);
    expectWritten(out.putInt64(total.least, tag::total));
    const char* const exactness = total.isExact() ? "exact" : total.most ? "between" : "at_least";
    expectWritten(out.putValue(exactness, tag::exactness));
    if (total.most && !total.isExact()) expectWritten(out.putInt64(*total.most, tag::most));
    if (m_counting != Counting::Within) return;
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began);
    expectWritten(out.putInt64(spent.count(), tag::spent));
}

}  // namespace QOR
