/// \file
/// Which file systems are mounted, as the kernel tells a process.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

struct Mount {
    std::string device;     ///< "254:0": of two mounts that have the same it is one file system
    std::string root;       ///< what of it is seen there: "/", or a folder that was bound
    std::string point;      ///< where, in whatever bytes
    std::string type;       ///< "ext4"
    std::string source;     ///< "/dev/vda", "server:/export"
    bool readOnly = false;  ///< the file system, not this mount alone
};

/// Reads lines as they stand in /proc/self/mountinfo. \param malformed counts those that make no sense
std::vector<Mount> readMounts(std::istream& lines, std::uint64_t& malformed);

/// Those that are seen below a folder, with the paths that they have there; the file system that the folder itself lies
/// on is at "/". \param folder absolute, without links
std::vector<Mount> mountsBelow(const std::vector<Mount>& mounts, std::string_view folder);

/// Those that can run out of room, each file system once: where all of it is seen, if there is such a place, else where
/// it was mounted first. Pseudo file systems are left out, those that nobody can write to, and what another mount
/// hides. \param isWatched of those that nobody can write to: it is not left out; none where empty
std::vector<Mount> mountsWithRoom(const std::vector<Mount>& mounts,
                                  const std::function<bool(const Mount&)>& isWatched = {});

}  // namespace QOR
