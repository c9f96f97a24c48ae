// The source of operator "pager" that reads backups: one constant of the filter becomes a condition of the database,
// and every backup that satisfies it is a row.

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
        : m_filter(filter), m_storage(filter.environments(source().constant(QORConstantUse::Storage).name)) {}

    /// Tries what a filter may ask for, in turn, and stops at the first that ran.
    void fetch() {
        for (const QORSourceConstant& constant : source().constants) {
            if (constant.turn == QORConstantTurn::Alternative && fetchBy(constant) != 0) return;
        }
        fetchByDate();
    }
    const std::vector<QORBackup>& backups() const noexcept { return m_backups; }

private:
    static const QORSource& source() { return sourceOf(TCursorType::Info); }

    int fetchBy(const QORSourceConstant& constant);
    int fetchByFieldLike(const QORSourceConstant& constant, const ASAttribute& attribute);
    int fetchByInfo(const QORSourceConstant& constant, std::string_view infoKey);
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

int BackupQuery::fetchBy(const QORSourceConstant& constant) {
    switch (constant.use) {
        case QORConstantUse::Name:
            return fetchByFieldLike(constant, m_table.name);
        case QORConstantUse::HostName:
            return fetchByFieldLike(constant, m_table.hostname);
        case QORConstantUse::Container:
            return fetchByInfo(constant, "veid");
        case QORConstantUse::Address:
            return fetchByInfo(constant, "ip");
        case QORConstantUse::Unit:
        case QORConstantUse::Environment:
        case QORConstantUse::Storage:
        case QORConstantUse::Latest:
        case QORConstantUse::Earliest:
            break;  // do not find backups by themselves
    }
    return 0;
}

int BackupQuery::fetchByFieldLike(const QORSourceConstant& constant, const ASAttribute& attribute) {
    const std::optional<std::string> pattern = m_filter.find(constant);
    return pattern ? run(ASAttribute::Like(attribute, *pattern, 0), m_backups) : 0;
}

int BackupQuery::fetchByDate() {
    const std::optional<std::string> upper = m_filter.find(source().constant(QORConstantUse::Latest));
    const std::optional<std::string> lower = m_filter.find(source().constant(QORConstantUse::Earliest));
    if (!upper || !lower) return 0;
    const std::optional<std::int32_t> to = readSeconds(*upper);
    const std::optional<std::int32_t> from = readSeconds(*lower);
    if (!to || !from) return 0;
    const ASAttribute& time = m_table.time;
    return run(time <= ASTime(*to) && time >= ASTime(*from), m_backups);
}

/// By a parameter of the info document, which the database cannot look into.
int BackupQuery::fetchByInfo(const QORSourceConstant& constant, std::string_view infoKey) {
    std::optional<std::string> wanted = m_filter.find(constant);
    if (!wanted) return 0;
    const bool part = constant.operation == ttLike;
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

/// A field of times shows the backup's own, whatever its name is.
void writeBackUpInfoSqlRow(const QORBackup& backup, QORRowSet& rowSet) {
    rowSet.writeValues([&](const QORField& field) {
        return field.valueType == TValueType::Time ? time2str(backup.time) : getBackupValue(backup, field.name);
    });
}

}  // namespace

void QORPagerOperatorPrototype::selectBackups(QORMessageIterator& response) {
    m_evaluator->setExpression(withoutLower(m_request.where));
    if (m_evaluator->prepareSpecial()) {
        addError(&response, PagerErrors, pagerParsingError, withoutNuls(m_evaluator->getErrorMessage()).c_str());
        return;
    }
    QORRowSet rowSet(response, m_request.selectFields);
    const QORFilterConstants filter(&*m_evaluator);
    BackupQuery query(filter);
    query.fetch();
    QORRequestWatch watch;
    for (const QORBackup& backup : query.backups()) {
        watch.check();
        writeBackUpInfoSqlRow(backup, rowSet);
    }
    const auto count = static_cast<std::int64_t>(query.backups().size());
    if (m_request.statisticsWanted) rowSet.writeStatistics(count, count);
}

}  // namespace QOR
