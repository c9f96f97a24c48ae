// The backups as a source of exact requests.

#include <memory>
#include <utility>

#include "QORCommon/QORTime.h"
#include "QORPager/Operators/Pager/QORBackup.h"
#include "QORPager/Operators/Pager/QORRowSource.h"
#include "QORPager/Operators/QORAccessCondition.h"
#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR {

namespace {

class BackupSource final : public QORRowSource {
public:
    explicit BackupSource(const QORRowSourceOptions& options)
        : QORRowSource(options.order), m_narrowing(options.narrowing), m_envs(options.envs) {}

    std::vector<QORFoundRow> read(const QORRowPlace* behind, std::size_t most) override {
        return select(behind == nullptr ? wanted() : wanted() && beyond(*behind), most);
    }
    std::vector<QORFoundRow> find(const std::vector<std::string>& keys) override {
        std::string list;
        for (const std::string& key : keys)
            list.append(list.empty() ? "" : ", ").append(ASSession::quoteLiteral(key));
        if (list.empty()) return {};
        return select(visible() && ASAttribute::In(m_table.id, list), 0);
    }
    std::uint64_t count() override {
        std::int64_t rows = 0;
        QORRdbms::instance().read(ASAccess::ReadOne, [&](ASSession& session) {
            const auto number = std::make_shared<ASInt64>();
            ASGroupAttribute all;
            all.Register(number, m_table.domain());
            ASCursor cursor(session);
            cursor.Filter().Project() << all;
            cursor.Filter().Set(wanted());
            rows = cursor.Fetch() ? number->value() : 0;
        });
        return static_cast<std::uint64_t>(rows);
    }
    bool countsQuickly() const override { return false; }
    std::uint64_t state() override {
        QORStateSum sum;
        sum.add(count());
        for (const QORFoundRow& found : read(nullptr, 1))
            sum.add(found.place.time).add(found.place.key);
        return sum.value();
    }
    std::string describe(const QORFoundRow& found) const override { return "backup \"" + found.place.key + "\""; }

private:
    ASComparison visible() const {
        return ASComparison("1 = 1") && accessCondition(QORRowAccess::current(), {m_table.eid});
    }
    ASComparison wanted() const {
        const ASAttribute& time = m_table.time;
        ASComparison condition = visible();
        if (m_narrowing.nothing) return ASComparison("1 = 0");
        if (m_narrowing.from > firstDbSecond) condition = std::move(condition) && time >= ASTime(m_narrowing.from);
        if (m_narrowing.to < lastDbSecond) condition = std::move(condition) && time <= ASTime(m_narrowing.to);
        if (m_narrowing.storage)
            condition = std::move(condition) && m_table.storageEid.attribute() == ASGuid(*m_narrowing.storage);
        return condition;
    }
    /// The bound of the time stands by itself too, for an index to be used.
    ASComparison beyond(const QORRowPlace& place) const {
        const ASAttribute& time = m_table.time;
        const ASAttribute& id = m_table.id;
        const ASTime second(str2time(place.time));
        ASComparison past = order().newestFirst ? time < second : time > second;
        if (place.key.empty()) return past;
        const ASVStr key(place.key.size() + 1, place.key);
        const ASComparison behind = time == second && (order().keyDescending ? id < key : id > key);
        return (order().newestFirst ? time <= second : time >= second) && (ASComparison(past) || behind);
    }
    ASOrder ordered() const {
        const ASOrder time(m_table.time);
        const ASOrder id(m_table.id);
        ASOrder keys = order().newestFirst ? -time : time;
        keys << (order().keyDescending ? -id : id);
        return keys;
    }

    std::vector<QORFoundRow> select(const ASComparison& condition, std::size_t most) {
        std::vector<QORFoundRow> rows;
        QORRdbms::instance().read(ASAccess::ReadOne, [&](ASSession& session) {
            rows.clear();
            ASCursor cursor(session);
            m_table.selectAll(cursor.Filter().Project());
            cursor.Filter().Set(condition);
            cursor.Order(ordered());
            if (most > 0) cursor.Limit(static_cast<std::int32_t>(most), 0);
            while (cursor.Fetch())
                rows.push_back(rowOf(makeQORBackupInfo(m_table)));
        });
        return rows;
    }
    QORFoundRow rowOf(QORBackup backup) const {
        QORPtr<const QOREnv> env = envOf(*m_envs, backup.eid);
        const std::int64_t second = backup.time;
        std::string id = backup.id;
        QORRowPlace place{time2dbstr(second), id};
        return {std::make_shared<QORBackupArg>(std::move(env), std::move(backup)), std::move(place), second,
                QORSortValue::of(std::move(id))};
    }

    QORNarrowing m_narrowing;
    QORPtr<const QOREnvList> m_envs;
    QORBackupTable m_table;
};

}  // namespace

std::unique_ptr<QORRowSource> makeBackupSource(const QORRowSourceOptions& options) {
    return std::make_unique<BackupSource>(options);
}

}  // namespace QOR
