/// \file
/// Libraries that are loaded when there is something to do for them: most machines have nothing.
#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace QOR {

/// Stays loaded for as long as the process lives. Base of a class with a member for each function, of which there is
/// one object. Thread-safe.
class LoadedLibrary {
protected:
    /// \param purpose what cannot be done without it \throws std::runtime_error
    LoadedLibrary(const char* file, std::string purpose)
        : m_purpose(std::move(purpose)), m_handle(::dlopen(file, RTLD_NOW | RTLD_LOCAL)) {
        if (m_handle == nullptr) fail();
    }

    /// \throws std::runtime_error where it has no such function
    template <class Function>
    Function* find(const char* name) const {
        void* const symbol = ::dlsym(m_handle, name);
        if (symbol == nullptr) fail();
        return reinterpret_cast<Function*>(symbol);
    }

private:
    [[noreturn]] void fail() const {
        const char* const reason = ::dlerror();
        throw std::runtime_error(m_purpose + ": " + (reason == nullptr ? "its library is not there" : reason));
    }

    const std::string m_purpose;
    void* const m_handle;
};

}  // namespace QOR
