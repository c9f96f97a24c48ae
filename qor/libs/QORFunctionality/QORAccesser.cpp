#include "QORFunctionality/QORAccesser.h"

#include <algorithm>

#include "QORFunctionality/QOROpFactory.h"

namespace QOR {

QORAccesserPrototype::~QORAccesserPrototype() = default;

/// One seat in the pool: whoever holds it may call the operator.
struct QORAccesserPoolPrototype::Accesser {
    explicit Accesser(QOROperatorPrototype& target) : op(target) {}

    int run(const std::string& requestName, QORMessageIterator* in, QORMessageIterator* out) const {
        const std::lock_guard<std::mutex> lock(op.callMutex());
        const int result = op.call(requestName, in, out);
        op.stopCallback();
        return result;
    }

    QOROperatorPrototype& op;
};

/// A seat that goes back to the pool however the request ends.
class QORAccesserPoolPrototype::Lease {
public:
    explicit Lease(QORAccesserPoolPrototype& pool) : m_pool(pool), m_accesser(pool.take()) {}
    ~Lease() { m_pool.giveBack(std::move(m_accesser)); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;
    const Accesser& operator*() const noexcept { return *m_accesser; }

private:
    QORAccesserPoolPrototype& m_pool;
    std::unique_ptr<Accesser> m_accesser;
};

QORAccesserPoolPrototype::QORAccesserPoolPrototype(QORPtr<QOROperatorPrototype> target, QORPtr<QOROpFactory> factory,
                                                   int idle, int most, int step)
    : QORAccesserPrototype(std::move(target)),
      m_factory(std::move(factory)),
      m_idleLimit(idle),
      m_useLimit(most),
      m_step(step) {}

QORAccesserPoolPrototype::~QORAccesserPoolPrototype() = default;

int QORAccesserPoolPrototype::request(const std::string& requestName, QORMessageIterator* in, QORMessageIterator* out) {
    const Lease accesser(*this);
    return (*accesser).run(requestName, in, out);
}

std::unique_ptr<QORAccesserPoolPrototype::Accesser> QORAccesserPoolPrototype::take() {
    std::unique_lock<std::mutex> lock(m_mutex);
    const std::uint64_t ticket = m_nextTicket++;
    m_turn.wait(lock, [&] { return ticket == m_nowServing && m_inUse < m_useLimit; });
    if (m_idle.empty()) {
        const int wanted = std::min(m_step, m_useLimit - m_inUse);
        for (int made = 0; made < wanted; ++made)
            m_idle.push_back(std::make_unique<Accesser>(*op()));
    }
    std::unique_ptr<Accesser> accesser = std::move(m_idle.back());
    m_idle.pop_back();
    ++m_inUse;
    ++m_nowServing;
    m_turn.notify_all();
    return accesser;
}

void QORAccesserPoolPrototype::giveBack(std::unique_ptr<Accesser> accesser) noexcept {
    const std::lock_guard<std::mutex> lock(m_mutex);
    --m_inUse;
    m_idle.push_back(std::move(accesser));
    while (static_cast<int>(m_idle.size()) > m_idleLimit)
        m_idle.pop_back();
    m_turn.notify_all();
}

QORAccesserPoolPrototype::Counts QORAccesserPoolPrototype::counts() const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return {static_cast<int>(m_idle.size()), m_inUse, static_cast<int>(m_nextTicket - m_nowServing)};
}

}  // namespace QOR
