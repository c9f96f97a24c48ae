#include "QORCommon/QORMemory.h"

#include <iterator>
#include <utility>

namespace QOR {
namespace {

thread_local QORMemoryAccountPtr currentAccount;

}  // namespace

QORMemoryExceeded::QORMemoryExceeded(std::string message) : QORException(errFailure, std::move(message)) {}

QORMemoryExceeded::~QORMemoryExceeded() = default;

QORMemoryBudget::QORMemoryBudget(std::size_t limit, std::string name) : m_limit(limit), m_name(std::move(name)) {}

bool QORMemoryBudget::tryTake(std::size_t bytes) noexcept {
    std::size_t used = m_used.load(std::memory_order_relaxed);
    do {
        if (bytes > m_limit || used > m_limit - bytes) {
            m_refusals.fetch_add(1, std::memory_order_relaxed);
            return false;
        }
    } while (!m_used.compare_exchange_weak(used, used + bytes, std::memory_order_relaxed));
    const std::size_t now = used + bytes;
    std::size_t peak = m_peak.load(std::memory_order_relaxed);
    while (peak < now && !m_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
    return true;
}

QORMemoryAccount::QORMemoryAccount(QORMemoryBudget& all, std::size_t limit, std::string name)
    : m_all(all), m_own(limit, std::move(name)) {}

QORMemoryAccount::~QORMemoryAccount() {
    m_all.give(m_own.used());
}

bool QORMemoryAccount::tryTake(std::size_t bytes) noexcept {
    if (!m_own.tryTake(bytes)) return false;
    if (m_all.tryTake(bytes)) return true;
    m_own.give(bytes);
    return false;
}

void QORMemoryAccount::take(std::size_t bytes, const char* what) {
    if (!tryTake(bytes)) throw QORMemoryExceeded(refusal(bytes, what));
}

void QORMemoryAccount::give(std::size_t bytes) noexcept {
    m_own.give(bytes);
    m_all.give(bytes);
}

std::string QORMemoryAccount::refusal(std::size_t bytes, const char* what) const {
    const std::size_t limit = m_own.limit();
    const bool own = bytes > limit || m_own.used() > limit - bytes;
    const QORMemoryBudget& full = own ? m_own : m_all;
    std::string text =
        std::string(what) + " does not fit into memory: " + full.name() + " may hold " + describeBytes(full.limit());
    if (!own) text += ", of which " + describeBytes(full.used()) + " are in use; try again later";
    return text;
}

const QORMemoryAccountPtr& QORMemoryAccount::current() noexcept {
    return currentAccount;
}

QORMemoryScope::QORMemoryScope(QORMemoryAccountPtr account) noexcept
    : m_previous(std::exchange(currentAccount, std::move(account))) {}

QORMemoryScope::~QORMemoryScope() {
    currentAccount = std::move(m_previous);
}

QORMemoryCharge::QORMemoryCharge(QORMemoryCharge&& other) noexcept
    : m_account(std::move(other.m_account)), m_bytes(std::exchange(other.m_bytes, 0)) {}

QORMemoryCharge& QORMemoryCharge::operator=(QORMemoryCharge&& other) noexcept {
    if (this == &other) return *this;
    release();
    m_account = std::move(other.m_account);
    m_bytes = std::exchange(other.m_bytes, 0);
    return *this;
}

void QORMemoryCharge::begin() noexcept {
    if (m_bytes == 0) m_account = currentAccount;
}

void QORMemoryCharge::add(std::size_t bytes, const char* what) {
    begin();
    if (m_account == nullptr) return;
    m_account->take(bytes, what);
    m_bytes += bytes;
}

bool QORMemoryCharge::tryAdd(std::size_t bytes) noexcept {
    begin();
    if (m_account == nullptr) return true;
    if (!m_account->tryTake(bytes)) return false;
    m_bytes += bytes;
    return true;
}

void QORMemoryCharge::set(std::size_t bytes, const char* what) {
    if (bytes > m_bytes) {
        add(bytes - m_bytes, what);
    } else if (m_account != nullptr) {
        m_account->give(m_bytes - bytes);
        m_bytes = bytes;
    }
    if (m_bytes == 0) m_account.reset();
}

void QORMemoryCharge::release() noexcept {
    if (m_account != nullptr && m_bytes > 0) m_account->give(m_bytes);
    m_bytes = 0;
    m_account.reset();
}

std::string describeBytes(std::size_t bytes) {
    constexpr std::size_t kibi = 1024;
    static constexpr const char* units[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    // Only whole numbers: a limit is told as it was set.
    while (bytes >= kibi && bytes % kibi == 0 && unit + 1 < std::size(units)) {
        bytes /= kibi;
        ++unit;
    }
    return std::to_string(bytes) + " " + units[unit];
}

}  // namespace QOR
