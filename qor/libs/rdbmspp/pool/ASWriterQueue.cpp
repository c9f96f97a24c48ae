#include "rdbmspp/pool/ASWriterQueue.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "rdbmspp/engine/AException.h"

namespace QOR {

namespace {

using Clock = std::chrono::steady_clock;

// A request that is cancelled cannot wake whoever waits for it; this is how soon it is noticed.
constexpr auto lookInterval = std::chrono::milliseconds(50);

void refuseEnded(const std::string& database) {
    const QORRequestControl* const control = QORRequestControl::current();
    if (control == nullptr || !control->expired()) return;
    throw QORException(errDeadline, control->text() + ": database \"" + database + "\": others are writing");
}

}  // namespace

ASWriterQueue::Turn::Turn(Turn&& other) noexcept : m_queue(std::exchange(other.m_queue, nullptr)) {}

ASWriterQueue::Turn& ASWriterQueue::Turn::operator=(Turn&& other) noexcept {
    end();
    m_queue = std::exchange(other.m_queue, nullptr);
    return *this;
}

void ASWriterQueue::Turn::end() noexcept {
    if (m_queue != nullptr) std::exchange(m_queue, nullptr)->pass();
}

ASWriterQueue::Turn ASWriterQueue::take(std::chrono::milliseconds patience, const std::string& database) {
    QORRequestControl::checkCurrent();
    std::unique_lock lock(m_mutex);
    if (m_taken) {
        if (m_holder == std::this_thread::get_id()) throw AException("this thread is writing already");
        Waiter waiter;
        m_waiters.push_back(&waiter);
        if (!await(lock, waiter, patience)) {
            std::erase(m_waiters, &waiter);
            refuseEnded(database);
            throw AException("database \"" + database + "\": database is locked", "HY000", 0, {}, ASFailure::Locked);
        }
    }
    m_taken = true;
    m_holder = std::this_thread::get_id();
    return Turn(this);
}

bool ASWriterQueue::await(std::unique_lock<std::mutex>& lock, Waiter& waiter, std::chrono::milliseconds patience) {
    const QORRequestControl* const control = QORRequestControl::current();
    const bool bounded = control != nullptr && control->deadline() != Clock::time_point::max();
    std::uint64_t turns = m_turns;
    auto since = Clock::now();
    while (!waiter.granted) {
        if (control != nullptr && control->expired()) return false;
        const auto now = Clock::now();
        if (std::exchange(turns, m_turns) != m_turns) since = now;
        const auto giveUp = bounded ? control->deadline() : since + patience;
        if (now >= giveUp) return false;
        waiter.ready.wait_until(lock, std::min<Clock::time_point>(giveUp, now + lookInterval));
    }
    return true;
}

void ASWriterQueue::pass() noexcept {
    const std::lock_guard lock(m_mutex);
    ++m_turns;
    m_holder = {};
    m_taken = !m_waiters.empty();
    if (!m_taken) return;
    Waiter* const next = m_waiters.front();
    m_waiters.pop_front();
    next->granted = true;
    next->ready.notify_one();
}

std::size_t ASWriterQueue::waiting() const {
    const std::lock_guard lock(m_mutex);
    return m_waiters.size();
}

}  // namespace QOR
