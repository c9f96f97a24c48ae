/// \file
/// Asks mounts how much room they have, and waits for none of them for long.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace QOR {

/// What a file system says of itself.
struct MountRoom {
    std::uint64_t bytes = 0;  ///< that its users have in use or may use; 0: it has none
    std::uint64_t freeBytes = 0;
    std::uint64_t inodes = 0;  ///< 0: it does not count them
    std::uint64_t freeInodes = 0;
    int error = 0;  ///< why it does not say: errno
};

/// Asks the system. Whoever asks a dead mount does not come back.
MountRoom askMount(const std::string& path);

/// Each mount is asked by a thread of its own, which is left alone where it does not come back: until then nobody asks
/// that mount again. Used by one thread at a time.
class MountProbes {
public:
    using Ask = std::function<MountRoom(const std::string& path)>;

    /// \param ask called by threads that may outlive this object
    explicit MountProbes(Ask ask = askMount);

    /// \param key tells the mount from others, also from a later one at the same path
    /// \returns nothing where it has not answered in that time; at once where it has not since it was asked before.
    /// What such a one answers later counts for nothing, but it is asked again.
    std::optional<MountRoom> ask(const std::string& key, const std::string& path, std::chrono::milliseconds patience);

private:
    struct Probe;
    const std::shared_ptr<const Ask> m_ask;
    std::map<std::string, std::shared_ptr<Probe>> m_waiting;  ///< asked, and not come back when it was looked last
};

}  // namespace QOR
