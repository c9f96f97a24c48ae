#include "QORLibAgent/QORChangeWatch.h"

#include <exception>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

constexpr auto betweenLooks = std::chrono::milliseconds(200);

/// What this process stores, for all who watch.
struct Stored {
    std::mutex mutex;
    std::condition_variable_any changed;
    std::uint64_t count = 0;  // guarded by mutex

    static Stored& instance() {
        static Stored stored;
        return stored;
    }
};

}  // namespace

QORChangeWatch::QORChangeWatch() : m_thread([this](const std::stop_token& stop) { look(stop); }) {}

QORChangeWatch::~QORChangeWatch() {
    stop();
}

std::uint64_t QORChangeWatch::seen() const {
    const std::lock_guard lock(m_mutex);
    return m_seen;
}

void QORChangeWatch::await(std::uint64_t seen, std::chrono::milliseconds atMost) {
    std::unique_lock lock(m_mutex);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait_for(lock, atMost, [&] { return m_stopped || m_seen != seen; });
    --m_waiting;
}

void QORChangeWatch::stop() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_changed.notify_all();
    m_thread.request_stop();
}

void QORChangeWatch::noteStored() {
    {
        const std::lock_guard lock(Stored::instance().mutex);
        ++Stored::instance().count;
    }
    Stored::instance().changed.notify_all();
}

void QORChangeWatch::look(const std::stop_token& stop) {
    Stored& stored = Stored::instance();
    QORChangePosition known;
    std::uint64_t count = 0;
    bool failing = false;
    while (!stop.stop_requested()) {
        {
            std::unique_lock lock(m_mutex);
            m_changed.wait(lock, stop, [&] { return m_waiting > 0; });
        }
        {
            std::unique_lock lock(stored.mutex);
            stored.changed.wait_for(lock, stop, betweenLooks, [&] { return stored.count != count; });
            count = stored.count;
        }
        if (stop.stop_requested()) return;
        try {
            QORChangePosition now = QORChangeReader::end();
            failing = false;
            if (now == known) continue;
            known = std::move(now);
            {
                const std::lock_guard lock(m_mutex);
                ++m_seen;
            }
            m_changed.notify_all();
        } catch (const std::exception& failure) {
            if (!failing)
                logMessage(1, "QORLibAgent", QOR_SOURCE_PATH, __func__, "changed records cannot be looked for: %s",
                           failure.what());
            failing = true;
        }
    }
}

}  // namespace QOR
