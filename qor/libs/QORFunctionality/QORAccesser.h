/// \file
/// Accessors: the handles through which the host runs requests on an operator, and the pool that bounds how many run
/// or wait at once.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORFunctionality/QOROperator.h"

namespace QOR {

class QOROpFactory;

/// The host's way to an operator. Thread-safe.
class QOR_API QORAccesserPrototype : public virtual QORReferenceCounter {
public:
    ~QORAccesserPrototype() override;

    /// Runs one request: waits for an accessor and for the operator, calls it, then its stopCallback().
    /// \returns as QOROperatorPrototype::call
    virtual int request(const std::string& requestName, QORMessageIterator* in, QORMessageIterator* out) = 0;

    const QORPtr<QOROperatorPrototype>& op() const noexcept { return m_operator; }

protected:
    explicit QORAccesserPrototype(QORPtr<QOROperatorPrototype> op) : m_operator(std::move(op)) {}

private:
    QORPtr<QOROperatorPrototype> m_operator;
};

/// A pool of accessors to one operator. At most `most` requests hold an accessor at once, the others wait and are
/// served in the order in which they came; accessors are made `step` at a time and up to `idle` unused ones are kept.
class QOR_API QORAccesserPoolPrototype final : public QORAccesserPrototype {
public:
    /// \param idle unused accessors kept \param most in use at once \param step made at a time
    QORAccesserPoolPrototype(QORPtr<QOROperatorPrototype> op, QORPtr<QOROpFactory> factory, int idle, int most,
                             int step);
    ~QORAccesserPoolPrototype() override;

    int request(const std::string& requestName, QORMessageIterator* in, QORMessageIterator* out) override;

    /// For monitoring and tests.
    struct Counts {
        int idle;
        int inUse;
        int waiting;
    };
    Counts counts() const;
    int idleLimit() const noexcept { return m_idleLimit; }
    int useLimit() const noexcept { return m_useLimit; }
    int step() const noexcept { return m_step; }

private:
    struct Accesser;
    class Lease;
    std::unique_ptr<Accesser> take();
    void giveBack(std::unique_ptr<Accesser> accesser) noexcept;

    const QORPtr<QOROpFactory> m_factory;
    const int m_idleLimit;
    const int m_useLimit;
    const int m_step;

    mutable std::mutex m_mutex;
    std::condition_variable m_turn;
    std::vector<std::unique_ptr<Accesser>> m_idle;  // guarded by m_mutex
    int m_inUse = 0;                                // guarded by m_mutex
    std::uint64_t m_nextTicket = 0;                 // guarded by m_mutex
    std::uint64_t m_nowServing = 0;                 // guarded by m_mutex
};

}  // namespace QOR
