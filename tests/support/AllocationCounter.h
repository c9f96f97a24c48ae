/// \file
/// Counts the allocations of a test program by replacing operator new. For one source file of a program of its own.
#pragma once

#include <atomic>
#include <cstdlib>
#include <new>

namespace QOR::test {
/// Since the program began.
inline std::atomic<std::size_t> allocations{0};
}  // namespace QOR::test

// Kept out of line: where a compiler sees both ends it takes malloc and delete for a mismatch.
__attribute__((noinline)) void* operator new(std::size_t size) {
    ++QOR::test::allocations;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
