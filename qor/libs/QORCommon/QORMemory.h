/// \file
/// Accounts of memory: what one request may hold, and what all of them may hold together.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "QORCommon/QORException.h"
#include "QORCommon/QORExport.h"

namespace QOR {

/// Something would have held more memory than it may. The message names the budget, its size and what was wanted.
class QOR_API QORMemoryExceeded : public QORException {
public:
    explicit QORMemoryExceeded(std::string message);
    ~QORMemoryExceeded() override;
};

/// What all requests together may hold. Bytes are counted by those who hold them, roughly: blocks, not bookkeeping.
/// Thread-safe; must outlive its accounts.
class QOR_API QORMemoryBudget {
public:
    static constexpr std::size_t unlimited = ~std::size_t{0};

    /// \param limit bytes \param name what people call it, e.g. the setting that makes it larger; for messages
    explicit QORMemoryBudget(std::size_t limit = unlimited, std::string name = "all requests together");
    QORMemoryBudget(const QORMemoryBudget&) = delete;
    QORMemoryBudget& operator=(const QORMemoryBudget&) = delete;

    /// False, and nothing is taken, when that many bytes are not left.
    bool tryTake(std::size_t bytes) noexcept;
    void give(std::size_t bytes) noexcept { m_used.fetch_sub(bytes, std::memory_order_relaxed); }

    std::size_t limit() const noexcept { return m_limit; }
    const std::string& name() const noexcept { return m_name; }
    /// Bytes held now, and the most that ever were.
    std::size_t used() const noexcept { return m_used.load(std::memory_order_relaxed); }
    std::size_t peak() const noexcept { return m_peak.load(std::memory_order_relaxed); }
    /// How often something was refused.
    std::size_t refusals() const noexcept { return m_refusals.load(std::memory_order_relaxed); }

private:
    const std::size_t m_limit;
    const std::string m_name;
    std::atomic<std::size_t> m_used{0};
    std::atomic<std::size_t> m_peak{0};
    std::atomic<std::size_t> m_refusals{0};
};

/// What one request holds, out of the budget of all. Shared by whatever holds memory for the request, which may
/// outlive the request itself. Thread-safe.
class QOR_API QORMemoryAccount {
public:
    /// \param all must outlive the account \param limit bytes that this request may hold
    /// \param name what people call that limit, for messages
    QORMemoryAccount(QORMemoryBudget& all, std::size_t limit, std::string name = "one request");
    /// Gives back what nobody gave back.
    ~QORMemoryAccount();
    QORMemoryAccount(const QORMemoryAccount&) = delete;
    QORMemoryAccount& operator=(const QORMemoryAccount&) = delete;

    /// False, and nothing is taken, when the request or all of them may not hold that much more.
    bool tryTake(std::size_t bytes) noexcept;
    /// \param what is to be held, for the message: "the filter"
    /// \throws QORMemoryExceeded in place of false
    void take(std::size_t bytes, const char* what);
    void give(std::size_t bytes) noexcept;
    std::size_t used() const noexcept { return m_own.used(); }
    /// The message of a refusal of that many bytes.
    std::string refusal(std::size_t bytes, const char* what) const;

    /// That of the request which the calling thread serves; null when it serves none, and nothing is counted.
    static const std::shared_ptr<QORMemoryAccount>& current() noexcept;

private:
    QORMemoryBudget& m_all;
    QORMemoryBudget m_own;
};

using QORMemoryAccountPtr = std::shared_ptr<QORMemoryAccount>;

/// Makes an account that of the calling thread for as long as the object lives. Scopes nest; null: none.
class QOR_API QORMemoryScope {
public:
    explicit QORMemoryScope(QORMemoryAccountPtr account) noexcept;
    ~QORMemoryScope();
    QORMemoryScope(const QORMemoryScope&) = delete;
    QORMemoryScope& operator=(const QORMemoryScope&) = delete;

private:
    QORMemoryAccountPtr m_previous;
};

/// The bytes that one holder has taken; gives them back at its end. It takes from the account that was the thread's
/// when it began to hold something, so a holder that outlives its request goes on to count for it. Not shared between
/// threads.
class QOR_API QORMemoryCharge {
public:
    QORMemoryCharge() noexcept = default;
    ~QORMemoryCharge() { release(); }
    QORMemoryCharge(QORMemoryCharge&& other) noexcept;
    QORMemoryCharge& operator=(QORMemoryCharge&& other) noexcept;

    /// \throws QORMemoryExceeded and holds what it held
    void add(std::size_t bytes, const char* what);
    /// False in place of the exception.
    bool tryAdd(std::size_t bytes) noexcept;
    /// Takes or gives what is missing to that many bytes. \throws as add()
    void set(std::size_t bytes, const char* what);
    /// Gives everything back.
    void release() noexcept;
    std::size_t bytes() const noexcept { return m_bytes; }

private:
    void begin() noexcept;

    QORMemoryAccountPtr m_account;
    std::size_t m_bytes = 0;
};

/// A number of bytes for people: "64 MiB", "1000 bytes".
QOR_API std::string describeBytes(std::size_t bytes);

}  // namespace QOR
