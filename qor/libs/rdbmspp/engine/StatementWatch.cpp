#include "rdbmspp/engine/StatementWatch.h"

#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "QORCommon/QORRequestControl.h"

namespace QOR {

// What its owner and the watch's thread share: the owner waits for a cancel that is on its way, and nobody else does.
struct StatementWatch::Running::Entry {
    Entry(std::shared_ptr<QORRequestControl> c, std::function<void()> f)
        : control(std::move(c)), cancel(std::move(f)) {}

    const std::shared_ptr<QORRequestControl> control;
    const std::function<void()> cancel;
    std::mutex mutex;
    bool returned = false;  // guarded by mutex
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
    if (!watch.m_thread.joinable()) watch.m_thread = std::jthread([&watch](const std::stop_token& s) { watch.run(s); });
    m_place = watch.m_running.insert(watch.m_running.end(), std::move(entry));
    if (watch.m_running.size() == 1) watch.m_work.notify_one();
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

void StatementWatch::run(const std::stop_token& stop) {
    constexpr auto betweenLooks = std::chrono::milliseconds(10);
    std::vector<std::shared_ptr<Running::Entry>> ended;
    std::unique_lock lock(m_mutex);
    while (m_work.wait(lock, stop, [this] { return !m_running.empty(); })) {
        std::copy_if(m_running.begin(), m_running.end(), std::back_inserter(ended),
                     [](const auto& entry) { return entry->control->expired(); });
        lock.unlock();
        for (const auto& entry : ended) {
            const std::lock_guard returning(entry->mutex);
            if (!entry->returned) entry->cancel();
        }
        ended.clear();
        lock.lock();
        m_work.wait_for(lock, stop, betweenLooks, [] { return false; });
    }
}

}  // namespace QOR
