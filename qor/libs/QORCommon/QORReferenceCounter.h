/// \file
/// Intrusive reference counting for host objects, and the pointer that goes with it.
#pragma once

#include <atomic>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <utility>

namespace QOR {

/// Base of objects that count their own references. The count starts at 0; the first QORPtr takes the first
/// reference, and dropping the last one deletes the object. Counting is thread-safe; the object itself is only as
/// thread-safe as its class says. Derive virtually where several bases count.
class QORReferenceCounter {
public:
    QORReferenceCounter(const QORReferenceCounter&) = delete;
    QORReferenceCounter& operator=(const QORReferenceCounter&) = delete;

    friend void intrusive_ptr_add_ref(const QORReferenceCounter* object) noexcept {
        object->m_references.fetch_add(1, std::memory_order_relaxed);
    }
    friend void intrusive_ptr_release(const QORReferenceCounter* object) noexcept {
        if (object->m_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete object;
    }

protected:
    QORReferenceCounter() = default;
    virtual ~QORReferenceCounter() = default;

private:
    mutable std::atomic<int> m_references{0};
};

/// Shared ownership of a host object.
template <class T>
using QORPtr = boost::intrusive_ptr<T>;

template <class T, class... Args>
QORPtr<T> makeQORPtr(Args&&... args) {
    return QORPtr<T>(new T(std::forward<Args>(args)...));
}

}  // namespace QOR
