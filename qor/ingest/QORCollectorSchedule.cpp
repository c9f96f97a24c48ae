#include "ingest/QORCollectorSchedule.h"

#include <algorithm>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <exception>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORFunctionality/QORCollector.h"

namespace QOR {
namespace {

constexpr std::string_view everyOne = "all";

/// Far beyond what anybody waits for, and what the clock can count.
constexpr std::int64_t longestPause = 36500LL * 24 * 60 * 60;

using Clock = std::chrono::steady_clock;

[[noreturn]] void refuseWish(const std::string& reason) {
    throw QORException(errBadRequest, reason, QOR_SOURCE_PATH);
}

std::vector<std::string> knownNames() {
    std::vector<std::string> known;
    for (const QORCollector* const collector : QORCollectorRegistry::instance().all())
        known.push_back(collector->traits().name);
    return known;
}

std::string describeNames(const std::vector<std::string>& known) {
    std::string list;
    for (const std::string& name : known)
        list += name + ", ";
    return list + std::string(everyOne);
}

std::string adviseOnCollector(const std::string& name, const std::vector<std::string>& known) {
    const std::vector<std::string_view> names(known.begin(), known.end());
    return adviseOnName(name, names);
}

/// One that ran on request, for who waits for it.
struct AwaitedRun {
    bool done = false;
    QORCollectResult result{};
    std::exception_ptr thrown{};
};

}  // namespace

QORCollectorWish readCollectorWish(const std::string& text) {
    const std::size_t equals = text.find('=');
    QORCollectorWish wish{text.substr(0, equals), {}};
    if (wish.name.empty()) refuseWish(quoteText(text) + " names no collector");
    if (equals == std::string::npos) return wish;
    const std::optional<std::int64_t> seconds = parseDuration(text.substr(equals + 1));
    if (!seconds || *seconds < 1 || *seconds > longestPause)
        refuseWish(quoteText(text) + ": behind '=' stands how often, 1s to 36500d (90s, 45m, 12h, 30d)");
    wish.every = std::chrono::seconds(*seconds);
    return wish;
}

void checkCollectorWishes(std::span<const QORCollectorWish> wishes) {
    const std::vector<std::string> known = knownNames();
    std::set<std::string> named;
    for (const QORCollectorWish& wish : wishes) {
        if (!named.insert(wish.name).second) refuseWish("collect names " + quoteText(wish.name) + " twice");
        if (wish.name == everyOne || std::find(known.begin(), known.end(), wish.name) != known.end()) continue;
        refuseWish("collect: there is no collector " + quoteText(wish.name) + adviseOnCollector(wish.name, known) +
                   "; there are " + describeNames(known));
    }
}

/// The collectors, the threads that run them, and one that begins runs and finds those that hang.
class QORCollectorSchedule::Work {
public:
    explicit Work(std::filesystem::path root) : m_root(std::move(root)) {
        registerCollectors();
        for (QORCollector* const collector : QORCollectorRegistry::instance().all())
            m_entries.emplace_back(*collector);
        m_keeper = std::jthread([this](const std::stop_token& stop) { keepTime(stop); });
    }
    ~Work() { stop(Clock::time_point::max()); }
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

    void keep(std::span<const QORCollectorWish> wishes) {
        const std::lock_guard lock(m_mutex);
        for (Entry& entry : m_entries) {
            const std::optional<std::chrono::seconds> every = wishFor(entry, wishes);
            if (every == entry.state.every) continue;
            entry.state.every = every;
            entry.due = Clock::now();
        }
        wake();
    }

    QORCollectResult collectNow(const QORIngestOptions& ingest, const std::shared_ptr<const QORWriteScope>& scope) {
        QORCollectResult all;
        for (Entry& entry : m_entries) {
            if (all.stored.failure) break;
            std::unique_lock lock(m_mutex);
            await(lock, [&] { return !entry.running || entry.hangs(); });
            if (m_stopping) break;
            const auto run = std::make_shared<AwaitedRun>();
            if (!entry.running) runAwaited(lock, entry, ingest, scope, run);
            if (run->thrown) std::rethrow_exception(std::exchange(run->thrown, nullptr));
            all.merge(entry.state.name, run->done ? run->result : resultOfHanging(entry));
        }
        return all;
    }

    std::vector<QORCollectorState> states() const {
        const std::lock_guard lock(m_mutex);
        std::vector<QORCollectorState> states;
        for (const Entry& entry : m_entries)
            states.push_back(entry.state);
        return states;
    }

    bool stop(Clock::time_point until) {
        m_keeper.request_stop();
        if (m_keeper.joinable()) m_keeper.join();
        std::unique_lock lock(m_mutex);
        m_stopping = true;
        for (Entry& entry : m_entries)
            entry.stop.request_stop();
        const auto ended = [this] {
            return std::none_of(m_entries.begin(), m_entries.end(), [](const Entry& entry) { return entry.running; });
        };
        if (until == Clock::time_point::max()) {
            m_ended.wait(lock, ended);
        } else if (!m_ended.wait_until(lock, until, ended)) {
            for (Entry& entry : m_entries) {
                if (entry.running && !entry.hangs()) giveUp(entry, "it has not ended when it was told to");
            }
            return false;
        }
        for (Entry& entry : m_entries) {
            if (entry.thread.joinable()) entry.thread.join();
        }
        return true;
    }

private:
    struct Entry {
        explicit Entry(QORCollector& which) : collector(which) {
            state.name = which.traits().name;
            state.source = which.traits().source;
        }
        bool hangs() const { return running && state.outcome == QORCollectOutcome::Hung; }
        /// Time in which records are stored is not the source's.
        Clock::time_point deadline() const { return std::max(began, stored) + collector.traits().deadline; }

        QORCollector& collector;
        QORCollectorState state{};
        Clock::time_point due{};  ///< where state.every is given
        bool running = false;     ///< its thread is at work; it is the last to change what is here
        Clock::time_point began{};
        Clock::time_point stored{};
        std::stop_source stop{};
        std::thread thread{};
    };

    static std::optional<std::chrono::seconds> wishFor(const Entry& entry, std::span<const QORCollectorWish> wishes) {
        const QORCollectorWish* found = nullptr;
        for (const QORCollectorWish& wish : wishes) {
            if (wish.name == entry.state.name || (found == nullptr && wish.name == everyOne)) found = &wish;
        }
        if (found == nullptr) return std::nullopt;
        return found->every.value_or(entry.collector.traits().every);
    }

    void wake() {
        m_woken = true;
        m_waking.notify_all();
    }

    template <class Condition>
    void await(std::unique_lock<std::mutex>& lock, Condition condition) {
        while (!m_ended.wait_for(lock, std::chrono::milliseconds(100), condition))
            QORRequestControl::checkCurrent();
    }

    void keepTime(const std::stop_token& stop) {
        std::unique_lock lock(m_mutex);
        while (!stop.stop_requested()) {
            m_woken = false;
            Clock::time_point next = Clock::now() + std::chrono::hours(1);
            for (Entry& entry : m_entries)
                next = std::min(next, look(entry));
            m_waking.wait_until(lock, stop, next, [this] { return m_woken; });
        }
    }

    /// \returns when to look again
    Clock::time_point look(Entry& entry) {
        const Clock::time_point now = Clock::now();
        if (entry.running) {
            if (entry.hangs()) return Clock::time_point::max();
            if (now < entry.deadline()) return entry.deadline();
            giveUp(entry, howLongItHangs(entry));
            return Clock::time_point::max();
        }
        if (!entry.state.every) return Clock::time_point::max();
        if (now >= entry.due) {
            entry.due = now + *entry.state.every;
            try {
                begin(entry, {}, nullptr, nullptr);
            } catch (const std::system_error& error) {
                note(entry, QORCollectOutcome::Failed, std::string("it has no thread: ") + error.what());
                return entry.due;
            }
            return entry.deadline();
        }
        return entry.due;
    }

    static std::string howLongItHangs(const Entry& entry) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(entry.collector.traits().deadline);
        return "it has not come back for " + std::to_string(seconds.count()) + " s from reading " + entry.state.source;
    }

    void giveUp(Entry& entry, std::string why) {
        note(entry, QORCollectOutcome::Hung, std::move(why));
        entry.stop.request_stop();
        m_ended.notify_all();
    }

    static QORCollectResult resultOfHanging(const Entry& entry) {
        QORCollectResult result;
        result.outcome = QORCollectOutcome::Hung;
        result.text = entry.state.text;
        return result;
    }

    /// \pre not running
    void runAwaited(std::unique_lock<std::mutex>& lock, Entry& entry, const QORIngestOptions& ingest,
                    const std::shared_ptr<const QORWriteScope>& scope, const std::shared_ptr<AwaitedRun>& run) {
        begin(entry, ingest, scope, run);
        try {
            await(lock, [&] { return run->done || entry.hangs(); });
        } catch (...) {  // nobody wants it any more, and the rights that it stores by may be gone
            entry.stop.request_stop();
            throw;
        }
    }

    void note(Entry& entry, QORCollectOutcome outcome, std::string text) {
        const bool isNews = entry.state.outcome != outcome || entry.state.text != text;
        entry.state.outcome = outcome;
        entry.state.text = std::move(text);
        entry.state.time = std::time(nullptr);
        ++entry.state.runs[static_cast<std::size_t>(outcome)];
        if (!isNews || (outcome != QORCollectOutcome::Failed && outcome != QORCollectOutcome::Hung)) return;
        logMessage(1, "QORIngest", QOR_SOURCE_PATH, __func__, "the collector %s %s: %s", entry.state.name.c_str(),
                   outcome == QORCollectOutcome::Hung ? "hangs" : "failed", entry.state.text.c_str());
    }

    /// \pre not running \param scope, run may be null \throws std::system_error when there is no thread for it
    void begin(Entry& entry, const QORIngestOptions& ingest, std::shared_ptr<const QORWriteScope> scope,
               std::shared_ptr<AwaitedRun> run) {
        if (entry.thread.joinable()) entry.thread.join();  // it has done all that takes time
        entry.began = Clock::now();
        entry.stop = std::stop_source();
        entry.thread = std::thread(
            [this, &entry, ingest, scope = std::move(scope), run = std::move(run), stop = entry.stop.get_token()] {
                QORCollectOptions options{m_root, ingest, [this, &entry] { noteStored(entry); }};
                options.ingest.scope = scope.get();
                runAndNote(entry, options, run.get(), stop);
            });
        entry.running = true;  // which it sees: it takes the lock before it ends
        wake();
    }

    void noteStored(Entry& entry) {
        const std::lock_guard lock(m_mutex);
        entry.stored = Clock::now();
    }

    void runAndNote(Entry& entry, const QORCollectOptions& options, AwaitedRun* run, const std::stop_token& stop) {
        QORCollectResult result;
        std::exception_ptr thrown;
        try {
            result = runCollector(entry.collector, options, stop);
        } catch (const std::exception& exception) {
            result.outcome = QORCollectOutcome::Failed;
            result.text = exception.what();
            thrown = std::current_exception();
        } catch (...) {
            result.outcome = QORCollectOutcome::Failed;
            result.text = "it threw what is no exception";
            thrown = std::current_exception();
        }
        const std::lock_guard lock(m_mutex);
        const QORIngestCounts stored = result.stored.total();
        entry.state.records = stored.added + stored.replaced;
        entry.state.allRecords += entry.state.records;
        entry.state.seconds = std::chrono::duration<double>(Clock::now() - entry.began).count();
        note(entry, result.outcome, result.text);
        if (run != nullptr) *run = {true, std::move(result), std::move(thrown)};
        entry.running = false;
        m_ended.notify_all();
        wake();
    }

    const std::filesystem::path m_root;
    mutable std::mutex m_mutex;
    std::condition_variable_any m_waking;  ///< of the keeper
    std::condition_variable m_ended;       ///< a run has ended, or hangs
    std::deque<Entry> m_entries;           // as many as there were at first; what is in them is guarded by m_mutex
    bool m_woken = false;                  // likewise
    bool m_stopping = false;               // likewise
    std::jthread m_keeper;
};

QORCollectorSchedule::QORCollectorSchedule(std::filesystem::path root)
    : m_work(std::make_unique<Work>(std::move(root))) {}

QORCollectorSchedule::~QORCollectorSchedule() = default;

void QORCollectorSchedule::keep(std::span<const QORCollectorWish> wishes) {
    m_work->keep(wishes);
}

QORCollectResult QORCollectorSchedule::collectNow(const QORIngestOptions& ingest,
                                                  const std::shared_ptr<const QORWriteScope>& scope) {
    return m_work->collectNow(ingest, scope);
}

std::vector<QORCollectorState> QORCollectorSchedule::states() const {
    return m_work->states();
}

bool QORCollectorSchedule::stop(std::chrono::milliseconds patience) {
    return m_work->stop(Clock::now() + patience);
}

}  // namespace QOR
