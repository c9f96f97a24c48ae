#include "QORCommon/QORRequestControl.h"

#include <sched.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORSourcePath.h"

namespace QOR {
namespace {

using Clock = QORRequestControl::Clock;
/// From when on a request is one that takes long, and how long it then computes at a time. A thread that wakes up to
/// answer somebody else has the processor when its share allows it; beside threads that only compute, of which the
/// system moves one to another processor now and then, that is up to some turns of the scheduler later, of 4 ms each.
/// One that yields gives up its claim, so that whoever wakes up comes next. It costs a system call at a time.
constexpr auto longRequest = std::chrono::milliseconds(20);
constexpr auto computedAtATime = std::chrono::microseconds(500);

constexpr Clock::rep never = std::numeric_limits<Clock::rep>::max();

thread_local std::shared_ptr<QORRequestControl> servedByThread;

/// The clock's reading at `limit` behind `begin`; never where that is beyond what it can show.
Clock::rep readingAt(Clock::time_point begin, std::chrono::milliseconds limit) noexcept {
    const auto room = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::time_point::max() - begin);
    return limit < room ? (begin + limit).time_since_epoch().count() : never;
}

/// "30 s", "1500 ms"
std::string durationText(std::int64_t milliseconds) {
    if (milliseconds % 1000 == 0) return std::to_string(milliseconds / 1000) + " s";
    return std::to_string(milliseconds) + " ms";
}

}  // namespace

QORRequestControl::QORRequestControl(std::chrono::milliseconds limit)
    : m_limit(limit),
      m_renewed(limit.count() > 0 ? readingAt(m_begin, limit) : never),
      m_fixed(never),
      m_yields(m_begin + longRequest) {}

void QORRequestControl::limitTo(std::chrono::milliseconds limit) noexcept {
    const Ticks end = readingAt(m_begin, limit);
    if (end >= m_fixed.load(std::memory_order_relaxed)) return;
    m_asked.store(limit.count(), std::memory_order_relaxed);
    m_fixed.store(end, std::memory_order_relaxed);
}

void QORRequestControl::renew() noexcept {
    Ticks end = m_renewed.load(std::memory_order_relaxed);
    if (end != never) m_renewed.compare_exchange_strong(end, readingAt(Clock::now(), m_limit));
}

void QORRequestControl::lift() noexcept {
    m_renewed.store(never, std::memory_order_relaxed);
}

void QORRequestControl::cancel(End reason) noexcept {
    End none = End::None;
    m_end.compare_exchange_strong(none, reason, std::memory_order_acq_rel);
}

bool QORRequestControl::mayGoOn() noexcept {
    Clock::time_point now = Clock::now();
    if (now >= m_yields) {
        ::sched_yield();
        now = Clock::now();
        m_yields = now + computedAtATime;
    }
    return endedAt(now) == End::None;
}

QORRequestControl::End QORRequestControl::ended() const noexcept {
    return endedAt(Clock::now());
}

QORRequestControl::End QORRequestControl::endedAt(Clock::time_point now) const noexcept {
    const End end = m_end.load(std::memory_order_acquire);
    if (end != End::None || now < deadline()) return end;
    End none = End::None;
    return m_end.compare_exchange_strong(none, End::Deadline, std::memory_order_acq_rel) ? End::Deadline : none;
}

QORRequestControl::Ticks QORRequestControl::dueTicks() const noexcept {
    return std::min(m_renewed.load(std::memory_order_relaxed), m_fixed.load(std::memory_order_relaxed));
}

Clock::time_point QORRequestControl::deadline() const noexcept {
    const Ticks due = dueTicks();
    const Ticks grace = m_grace.load(std::memory_order_relaxed);
    const Ticks end = due < never - grace ? due + grace : never;
    return Clock::time_point(Clock::duration(std::max(end, m_graced.load(std::memory_order_relaxed))));
}

void QORRequestControl::grantGrace(std::chrono::milliseconds more) noexcept {
    m_graced.store(readingAt(Clock::now(), more), std::memory_order_relaxed);
    m_grace.store(std::chrono::duration_cast<Clock::duration>(more).count(), std::memory_order_relaxed);
}

bool QORRequestControl::isDue() const noexcept {
    return Clock::now().time_since_epoch().count() >= dueTicks();
}

std::string QORRequestControl::dueText() const {
    const bool asked = m_fixed.load(std::memory_order_relaxed) <= m_renewed.load(std::memory_order_relaxed);
    const std::int64_t limit = asked ? m_asked.load(std::memory_order_relaxed) : m_limit.count();
    return "the request's deadline of " + durationText(limit) + " has passed";
}

std::string QORRequestControl::text() const {
    switch (ended()) {
        case End::None:
            return {};
        case End::Deadline:
            return dueText();
        case End::Gone:
            return "the client has gone";
        case End::Stopping:
            return "the agent is stopping";
        case End::Revoked:
            return "who asked may no longer see what he saw";
    }
    return {};
}

void QORRequestControl::check() const {
    if (expired()) throw QORException(errDeadline, text(), QOR_SOURCE_PATH, __LINE__);
}

QORRequestControl* QORRequestControl::current() noexcept {
    return servedByThread.get();
}

std::shared_ptr<QORRequestControl> QORRequestControl::shareCurrent() noexcept {
    return servedByThread;
}

void QORRequestControl::checkCurrent() {
    if (const auto* const control = current()) control->check();
}

QORRequestScope::QORRequestScope(std::shared_ptr<QORRequestControl> control) noexcept
    : m_previous(std::exchange(servedByThread, std::move(control))) {}

QORRequestScope::~QORRequestScope() {
    servedByThread = std::move(m_previous);
}

void QORRequestWatch::look() {
    constexpr unsigned longestStride = 256;
    constexpr auto shortTime = std::chrono::microseconds(200);
    if (!m_control->mayGoOn()) m_control->check();
    const auto now = Clock::now();
    m_stride = now - m_last < shortTime ? std::min(m_stride * 2, longestStride) : std::max(m_stride / 2, 1U);
    m_last = now;
    m_turns = 0;
}

}  // namespace QOR
