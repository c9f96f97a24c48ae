// The source of operator "pager" that reads backups: one constant of the filter becomes a condition of the database,
// and every backup that satisfies it is a row.

#include <algorithm>
#include <array>
#include <utility>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORNulBytes.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORTime.h"
#include "QORPager/Operators/Pager/QORBackup.h"
#include "QORPager/Operators/Pager/QORFilterConstants.h"
#include "QORPager/Operators/Pager/QORPagerErrors.h"
#include "QORPager/Operators/Pager/QORRowSet.h"
#include "QORPager/Operators/QORPagerOperator.h"
#include "QORPager/Operators/QORPagerOperator2.h"
#include "rdbmspp/engine/AException.h"

namespace QOR {

namespace {

/// One attempt to fetch backups. Fetches return non-zero when they ran a query, whatever it found, and 0 when their
/// constant is not in the filter or the database failed.
class BackupQuery {
public:
    explicit BackupQuery(const QORFilterConstants& filter)
        : m_filter(filter), m_storage(filter.environments("pager.backup.storage_eid")) {}

    /// Tries what a filter may ask for, in turn, and stops at the first that ran.
    void fetch() {
        static_cast<void>(fetchByFieldLike("pager.backup.info.name", m_table.name) != 0 ||
                          fetchByFieldLike("pager.backup.info.hostname", m_table.hostname) != 0 ||
                          fetchByInfo("pager.backup.info.veid", ttEqual, "veid") != 0 ||
                          fetchByInfo("pager.backup.info.ip", ttLike, "ip") != 0 || fetchByDate() != 0);
    }
    const std::vector<QORBackup>& backups() const noexcept { return m_backups; }

private:
    int fetchByFieldLike(std::string_view identifier, const ASAttribute& attribute);
    int fetchByInfo(std::string_view identifier, TTokenType operation, std::string_view infoKey);
    int fetchByDate();
    int run(const ASComparison& condition, std::vector<QORBackup>& backups);

    const QORFilterConstants& m_filter;
    QORBackupTable m_table;
    QOREnvSelection m_storage;
    std::vector<QORBackup> m_backups;
};

int BackupQuery::run(const ASComparison& condition, std::vector<QORBackup>& backups) {
    if (m_storage.isNone()) return 1;
    const std::size_t before = backups.size();
    try {
        getBackups(m_table, condition, backups, m_storage.eid());
        return 1;
    } catch (const AException& exception) {
        logMessage(1, pagerLogModule, pagerSourcePath, "getBackups", "backups cannot be read: %s", exception.what());
        backups.resize(before);
        return 0;
    }
}

int BackupQuery::fetchByFieldLike(std::string_view identifier, const ASAttribute& attribute) {
    const std::optional<std::string> pattern = m_filter.find(identifier, ttLike);
    return pattern ? run(ASAttribute::Like(attribute, *pattern, 0), m_backups) : 0;
}

int BackupQuery::fetchByDate() {
    const std::optional<std::string> upper = m_filter.find("pager.backup.time", ttLowerOrEqual);
    const std::optional<std::string> lower = m_filter.find("pager.backup.time", ttGreaterOrEqual);
    if (!upper || !lower) return 0;
    const std::optional<std::int32_t> to = readSeconds(*upper);
    const std::optional<std::int32_t> from = readSeconds(*lower);
    if (!to || !from) return 0;
    const ASAttribute& time = m_table.time;
    return run(time <= ASTime(*to) && time >= ASTime(*from), m_backups);
}

/// By a parameter of the info document, which the database cannot look into.
int BackupQuery::fetchByInfo(std::string_view identifier, TTokenType operation, std::string_view infoKey) {
    std::optional<std::string> wanted = m_filter.find(identifier, operation);
    if (!wanted) return 0;
    const bool part = operation == ttLike;
    if (part) std::erase(*wanted, '%');
    std::vector<QORBackup> all;
    if (run(ASComparison(), all) == 0) return 0;
    for (QORBackup& backup : all) {
        const QORInfo* const parameter = backup.info.getParameter(infoKey);
        if (parameter == nullptr) continue;
        const std::string text = parameter->toString();
        if (part ? text.find(*wanted) != std::string::npos : text == *wanted) m_backups.push_back(std::move(backup));
    }
    return 1;
}

/// The database compares without regard to case, so that lowering it is left out of conditions. One pass from left to
/// right: what becomes the word by it stays.
std::string withoutLower(std::string_view text) {
    constexpr std::string_view word = "lower";
    std::string rest;
    rest.reserve(text.size());
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t found = std::min(text.find(word, at), text.size());
        rest.append(text, at, found - at);
        at = found + word.size();
    }
    return rest;
}

/// A field of times shows the backup's own, whatever its name is.
void writeBackUpInfoSqlRow(const QORBackup& backup, QORRowSet& rowSet) {
    rowSet.writeValues([&](const QORField& field) {
        return field.valueType == TValueType::Time ? time2str(backup.time) : getBackupValue(backup, field.name);
    });
}

}  // namespace

void QORPagerOperatorPrototype::selectBackups(QORMessageIterator& response) {
    m_evaluator->setExpression(withoutLower(m_where));
    if (m_evaluator->prepareSpecial()) {
        addError(&response, PagerErrors, pagerParsingError, withoutNuls(m_evaluator->getErrorMessage()).c_str());
        return;
    }
    QORRowSet rowSet(response, m_selectFields);
    const QORFilterConstants filter(&*m_evaluator);
    BackupQuery query(filter);
    query.fetch();
    QORRequestWatch watch;
    for (const QORBackup& backup : query.backups()) {
        watch.check();
        writeBackUpInfoSqlRow(backup, rowSet);
    }
    const auto count = static_cast<std::int64_t>(query.backups().size());
    if (m_statisticsWanted) rowSet.writeStatistics(count, count);
}

}  // namespace QOR
