/// \file
/// A holder for process-wide objects that static destructors of plug-ins may still use.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace QOR {

/// Builds a T in place and never destroys it; meant for function-local statics. The system takes the memory back.
template <class T>
class QORNoDestructor {
public:
    template <class... Args>
    explicit QORNoDestructor(Args&&... args) {
        ::new (static_cast<void*>(m_storage)) T(std::forward<Args>(args)...);
    }
    QORNoDestructor(const QORNoDestructor&) = delete;
    QORNoDestructor& operator=(const QORNoDestructor&) = delete;

    T& operator*() noexcept { return *std::launder(reinterpret_cast<T*>(m_storage)); }
    T* operator->() noexcept { return &**this; }

private:
    alignas(T) std::byte m_storage[sizeof(T)];
};

}  // namespace QOR
