#include "rdbmspp/engine/StatementWatch.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "QORCommon/QORRequestControl.h"

namespace QOR {

namespace {

constexpr auto betweenLooks = std::chrono::milliseconds(10);
// A server that works ends a statement within some milliseconds.
constexpr auto patience = std::chrono::milliseconds(1000);

}  // namespace

// What its owner and the watch's threads share: the owner waits for a cancel that is on its way, and nobody else does.
struct StatementWatch::Running::Entry {
    Entry(std::shared_ptr<QORRequestControl> c, std::function<void()> f)
        : control(std::move(c)), cancel(std::move(f)) {}

    const std::shared_ptr<QORRequestControl> control;
    const std::function<void()> cancel;
    const BlockedThread thread = BlockedThread::current();
    std::mutex mutex;
    bool returned = false;                   // guarded by mutex
    bool disconnected = false;               // guarded by the watch's mutex
    std::optional<Clock::time_point> ended;  // the disconnecting thread's
};

StatementWatch& StatementWatch::instance() {
    static StatementWatch watch;
    return watch;
}

StatementWatch::~StatementWatch() = default;

StatementWatch::Running::Running(std::shared_ptr<QORRequestControl> control, std::function<void()> cancel) {
    auto entry = std::make_shared<Entry>(std::move(control), std::move(cancel));
    StatementWatch& watch = instance();
    const std::lock_guard lock(watch.m_mutex);
    watch.start();
    m_place = watch.m_running.insert(watch.m_running.end(), std::move(entry));
    if (watch.m_running.size() == 1) watch.m_work.notify_all();
}

StatementWatch::Running::~Running() {
    std::shared_ptr<Entry> entry;
    {
        StatementWatch& watch = instance();
        const std::lock_guard lock(watch.m_mutex);
        entry = std::move(*m_place);
        watch.m_running.erase(m_place);
    }
    const std::lock_guard lock(entry->mutex);
    entry->returned = true;
}

bool StatementWatch::Running::isDisconnected() const {
    const std::lock_guard lock(instance().m_mutex);
    return (*m_place)->disconnected;
}

void StatementWatch::start() {
    if (m_canceller.joinable()) return;
    m_canceller = std::jthread([this](const std::stop_token& stop) { cancelEnded(stop); });
    m_disconnecter = std::jthread([this](const std::stop_token& stop) { disconnectHanging(stop); });
}

void StatementWatch::cancelEnded(const std::stop_token& stop) {
    std::vector<std::shared_ptr<Running::Entry>> ended;
    std::unique_lock lock(m_mutex);
    while (m_work.wait(lock, stop, [this] { return !m_running.empty(); })) {
        std::copy_if(m_running.begin(), m_running.end(), std::back_inserter(ended),
                     [](const auto& entry) { return entry->control->expired(); });
        lock.unlock();
        for (const auto& entry : ended)
            cancel(*entry);
        ended.clear();
        lock.lock();
        m_pause.wait_for(lock, stop, betweenLooks, [] { return false; });
    }
}

// Waits for a server's word, which may not come either.
void StatementWatch::cancel(Running::Entry& entry) {
    const std::lock_guard returning(entry.mutex);
    if (entry.returned) return;
    {
        const std::lock_guard lock(m_mutex);
        if (entry.disconnected) return;
        m_cancelling = BlockedThread::current();
        m_cancelBegan = Clock::now();
    }
    entry.cancel();
    const std::lock_guard lock(m_mutex);
    m_cancelling.reset();
}

// As long as it holds the lock, nobody whose statement is listed returns, so that what he waits at is what the
// statement waits at.
void StatementWatch::disconnectHanging(const std::stop_token& stop) {
    std::unique_lock lock(m_mutex);
    while (m_work.wait(lock, stop, [this] { return !m_running.empty() || m_cancelling; })) {
        const auto now = Clock::now();
        for (const auto& entry : m_running) {
            if (!entry->control->expired()) continue;
            if (!entry->ended) entry->ended = now;
            if (now - *entry->ended >= patience && entry->thread.disconnect()) entry->disconnected = true;
        }
        if (m_cancelling && now - m_cancelBegan >= patience) m_cancelling->disconnect();
        m_pause.wait_for(lock, stop, betweenLooks, [] { return false; });
    }
}

}  // namespace QOR
