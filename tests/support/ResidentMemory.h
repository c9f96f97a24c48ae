/// \file
/// How much memory a process has resident.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <string>

namespace QOR::test {

/// Whether the figures say something: a sanitizer keeps what was freed, to notice its use.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool residentMemoryTells = false;
#else
inline constexpr bool residentMemoryTells = true;
#endif

inline std::size_t residentBytes(pid_t process = ::getpid()) {
    std::ifstream file("/proc/" + std::to_string(process) + "/statm");
    std::size_t pages = 0;
    file >> pages >> pages;
    return pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

inline std::size_t residentMegabytes(pid_t process) {
    return residentBytes(process) >> 20;
}

/// The most that it ever had.
inline std::size_t mostResidentMegabytes(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/status");
    std::size_t kibibytes = 0;
    for (std::string word; file >> word && word != "VmHWM:";) {
    }
    file >> kibibytes;
    return kibibytes >> 10;
}

}  // namespace QOR::test
