// The logs as sources of exact requests.

#include <limits>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORLibAgent/QORLogs.h"
#include "QORPager/Operators/Pager/QORRowSource.h"

namespace QOR {

namespace {

QORLogSpanOfTime spanOf(const QORRowSourceOptions& options) {
    const QORNarrowing& narrowing = options.narrowing;
    QORLogSpanOfTime span;
    span.category = narrowing.category;
    span.from = narrowing.from;
    span.to = narrowing.to;
    span.order = options.order.newestFirst ? QORLogOrder::NewestFirst : QORLogOrder::OldestFirst;
    if (narrowing.environment) span.envs = *narrowing.environment;
    if (narrowing.nothing) span.envs = QOREnvSelection::none();
    return span;
}

/// What an operation and an event have in common as rows.
struct OperationRows {
    using Record = QORRequestProgressData;
    static ArgCSP make(Record record, QORPtr<const QOREnv> env) {
        auto row = std::make_shared<QORProgressArg>(std::move(env));
        row->origin = QORLogDBEntryOrigin::fromInfo(record.message);
        row->record = std::move(record);
        return row;
    }
    static std::string describe(const QORFoundRow& found) {
        return "operation \"" + static_cast<const QORProgressArg&>(*found.row).record.id + "\"";
    }
};

struct EventRows {
    using Record = QOREvent;
    static ArgCSP make(Record event, QORPtr<const QOREnv> env) {
        auto row = std::make_shared<QOREventArg>(std::move(env));
        row->origin = QORLogDBEntryOrigin::fromInfo(event.info);
        row->event = std::move(event);
        return row;
    }
    static std::string describe(const QORFoundRow& found) { return "event " + found.place.key; }
};

template <class Rows>
class LogSource final : public QORRowSource {
public:
    using Record = typename Rows::Record;

    explicit LogSource(const QORRowSourceOptions& options)
        : QORRowSource(options.order),
          m_envs(options.envs),
          m_counted(std::is_same_v<Rows, OperationRows> || options.narrowing.category),
          m_walk(spanOf(options)) {}

    std::vector<QORFoundRow> read(const QORRowPlace* behind, std::size_t most) override {
        if (behind == nullptr) return rowsOf(m_walk.read(nullptr, most));
        const QORLogMark mark = markOf(*behind);
        return rowsOf(m_walk.read(&mark, most));
    }
    std::vector<QORFoundRow> find(const std::vector<std::string>& keys) override {
        std::vector<std::int64_t> numbers;
        numbers.reserve(keys.size());
        for (const std::string& key : keys) {
            if (const auto number = parseInt64(key)) numbers.push_back(*number);
        }
        return rowsOf(m_walk.find(numbers));
    }
    std::uint64_t count() override { return m_walk.count(); }
    bool countsQuickly() const override { return m_counted; }

    /// A log grows at one end and is pruned at the other; what comes and goes between them changes how many there are.
    std::uint64_t state() override {
        QORStateSum sum;
        sum.add(m_walk.tally());
        for (const QORLogMark& end : m_walk.ends())
            sum.add(end.time).add(static_cast<std::uint64_t>(end.seq));
        return sum.value();
    }
    std::string describe(const QORFoundRow& found) const override { return Rows::describe(found); }

private:
    QORLogMark markOf(const QORRowPlace& place) const {
        if (place.key.empty()) return {order().newestFirst ? 0 : std::numeric_limits<std::int64_t>::max(), place.time};
        return {parseInt64(place.key).value_or(0), place.time};
    }
    std::vector<QORFoundRow> rowsOf(std::vector<QORLogFound<Record>> found) const {
        std::vector<QORFoundRow> rows;
        rows.reserve(found.size());
        for (auto& [mark, record] : found) {
            const std::int64_t second = record.time;
            QORPtr<const QOREnv> env = envOf(*m_envs, record.eid);
            rows.push_back({Rows::make(std::move(record), std::move(env)),
                            {std::move(mark.time), std::to_string(mark.seq)},
                            second,
                            QORSortValue::of(mark.seq)});
        }
        return rows;
    }

    QORPtr<const QOREnvList> m_envs;
    bool m_counted;
    QORLogWalk<Record> m_walk;
};

}  // namespace

std::unique_ptr<QORRowSource> makeOperationSource(const QORRowSourceOptions& options) {
    return std::make_unique<LogSource<OperationRows>>(options);
}

std::unique_ptr<QORRowSource> makeEventSource(const QORRowSourceOptions& options) {
    return std::make_unique<LogSource<EventRows>>(options);
}

}  // namespace QOR
