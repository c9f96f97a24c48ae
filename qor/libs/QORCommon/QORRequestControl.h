/// \file
/// QORRequestControl: until when a request may go on, and whether anybody still waits for its answer.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "QORCommon/QORExport.h"

namespace QOR {

/// The code of the exception of a request that ended before its answer: its time was up, or nobody waits for it.
inline constexpr int errDeadline = 408;

/// One request's bounds in time. Whoever takes a request in makes one, and holds it as long as it may want to end the
/// request; the thread that serves the request makes it current (QORRequestScope), and what works for the request asks
/// it from time to time. Once it has ended it stays ended, for the first reason. Shared; every method may be called by
/// any thread at any time.
class QOR_API QORRequestControl {
public:
    using Clock = std::chrono::steady_clock;

    /// Why a request has to end.
    enum class End : int {
        None,      ///< it may go on
        Deadline,  ///< its time is up
        Gone,      ///< its client has gone
        Stopping,  ///< the process is about to end
        Revoked,   ///< who asked may no longer see what it shows
    };

    /// \param limit how long the request may take, from now on; 0 or less: as long as it likes
    explicit QORRequestControl(std::chrono::milliseconds limit = std::chrono::milliseconds::zero());
    QORRequestControl(const QORRequestControl&) = delete;
    QORRequestControl& operator=(const QORRequestControl&) = delete;

    /// Makes the request end after this time, counted from its beginning, unless it ends earlier anyhow. It is what a
    /// request itself asked for, and is never renewed. \param limit more than 0
    void limitTo(std::chrono::milliseconds limit) noexcept;
    /// Gives the request its limit anew, from now on: for an answer that leaves piece by piece, whenever a piece was
    /// taken. What limitTo() has set stays.
    void renew() noexcept;
    /// Takes the request's limit away, for good: for work of an administrator that takes as long as the database is
    /// large. What limitTo() has set stays, and cancel() still ends it.
    void lift() noexcept;
    /// For who answers what there is when the deadline comes, rather than an error: from now on the request ends only
    /// so much later than its deadline, or than now where that is later, and who works for it stops by isDue(). Before
    /// anything asks whether it has ended. \param more above 0
    void grantGrace(std::chrono::milliseconds more) noexcept;
    /// Whether the deadline has passed, whatever grace there is behind it; and what text() says of that.
    bool isDue() const noexcept;
    std::string dueText() const;
    /// Ends the request. \param reason not None
    void cancel(End reason) noexcept;

    /// Whether the request has ended, and why. Costs a look at the clock.
    End ended() const noexcept;
    bool expired() const noexcept { return ended() != End::None; }
    /// For the one thread that works for the request, where it holds nothing that others need to go on: lets others
    /// have the processor from time to time once the request has taken long. \returns !expired()
    bool mayGoOn() noexcept;
    /// Something that the request needs is away or kept by others for now: whatever comes of it, the same request may
    /// succeed later.
    void noteOutage() noexcept { m_outage.store(true, std::memory_order_relaxed); }
    bool metOutage() const noexcept { return m_outage.load(std::memory_order_relaxed); }
    /// When it ends unless it is cancelled, the grace included; Clock::time_point::max() when there is no such time.
    Clock::time_point deadline() const noexcept;
    /// Why it has ended, for people: "the request's deadline of 30 s has passed". Empty while it has not.
    std::string text() const;
    /// \throws QORException errDeadline with text() once the request has ended
    void check() const;

    /// That of the request which the calling thread serves; null when it serves none. Valid as long as the scope is.
    static QORRequestControl* current() noexcept;
    /// The same, to be kept.
    static std::shared_ptr<QORRequestControl> shareCurrent() noexcept;
    /// check() of the calling thread's request; nothing when it serves none.
    static void checkCurrent();

private:
    using Ticks = Clock::rep;

    End endedAt(Clock::time_point now) const noexcept;
    Ticks dueTicks() const noexcept;

    const Clock::time_point m_begin = Clock::now();
    const std::chrono::milliseconds m_limit;
    std::atomic<Ticks> m_renewed;          // end by m_limit
    std::atomic<Ticks> m_fixed;            // end by limitTo()
    std::atomic<std::int64_t> m_asked{0};  // milliseconds behind m_fixed
    std::atomic<Ticks> m_grace{0};
    std::atomic<Ticks> m_graced{0};  // the earliest end with grace
    mutable std::atomic<End> m_end{End::None};
    std::atomic<bool> m_outage{false};
    Clock::time_point m_yields;  // when mayGoOn() lets others have the processor next
};

/// Makes a request that of the calling thread for as long as the object lives. Scopes nest; null: none.
class QOR_API QORRequestScope {
public:
    explicit QORRequestScope(std::shared_ptr<QORRequestControl> control) noexcept;
    ~QORRequestScope();
    QORRequestScope(const QORRequestScope&) = delete;
    QORRequestScope& operator=(const QORRequestScope&) = delete;

private:
    std::shared_ptr<QORRequestControl> m_previous;
};

/// For loops whose turns may be too short to look at the clock in each, or long: asks mayGoOn() at least at every
/// 256th, and more often where turns take their time. A value of the loop's own thread, which must not outlive the
/// scope that was current when it was made.
class QOR_API QORRequestWatch {
public:
    QORRequestWatch() noexcept : m_control(QORRequestControl::current()) {}

    /// \throws as QORRequestControl::check()
    void check() {
        if (m_control != nullptr && ++m_turns >= m_stride) look();
    }

private:
    void look();

    QORRequestControl* m_control;
    QORRequestControl::Clock::time_point m_last{};
    unsigned m_turns = 0;
    unsigned m_stride = 1;
};

}  // namespace QOR
