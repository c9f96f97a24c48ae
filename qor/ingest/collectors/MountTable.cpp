#include "ingest/collectors/MountTable.h"

#include <algorithm>
#include <array>
#include <istream>
#include <optional>
#include <string_view>
#include <utility>

#include "ingest/collectors/EscapedPath.h"

namespace QOR {
namespace {

/// Types that hold no files of anybody, or that asking would mount something.
constexpr std::array<std::string_view, 27> pseudoTypes{
    "autofs",   "binfmt_misc", "bpf",        "cgroup",     "cgroup2",   "configfs", "debugfs", "devpts",  "devtmpfs",
    "efivarfs", "erofs",       "fusectl",    "hugetlbfs",  "iso9660",   "mqueue",   "nsfs",    "nfsd",    "proc",
    "pstore",   "ramfs",       "rpc_pipefs", "securityfs", "selinuxfs", "squashfs", "sysfs",   "tracefs", "udf"};

bool isPseudo(const Mount& mount) {
    // A container's root is one; elsewhere it has the room of a file system that is told of anyhow.
    if (mount.type == "overlay") return mount.point != "/";
    return std::find(pseudoTypes.begin(), pseudoTypes.end(), mount.type) != pseudoTypes.end();
}

bool hasOption(std::string_view options, std::string_view wanted) {
    while (!options.empty()) {
        const std::size_t comma = options.find(',');
        if (options.substr(0, comma) == wanted) return true;
        options.remove_prefix(comma == std::string_view::npos ? options.size() : comma + 1);
    }
    return false;
}

/// "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw,discard": any number of words stand before the "-".
std::optional<Mount> readMount(std::string_view line) {
    constexpr std::size_t before = 6;
    constexpr std::size_t behind = 4;
    const std::vector<std::string_view> words = wordsOf(line);
    if (words.size() < before + behind) return std::nullopt;
    const auto dash = std::find(words.begin() + before, words.end(), "-");
    if (words.end() - dash < static_cast<std::ptrdiff_t>(behind)) return std::nullopt;
    return Mount{std::string(words[2]),     unescapePath(words[3]),    unescapePath(words[4]),
                 unescapePath(*(dash + 1)), unescapePath(*(dash + 2)), hasOption(*(dash + 3), "ro")};
}

bool isWithin(std::string_view path, std::string_view folder) {
    if (folder == "/" || path == folder) return true;
    return path.size() > folder.size() && path.starts_with(folder) && path[folder.size()] == '/';
}

}  // namespace

std::vector<Mount> readMounts(std::istream& lines, std::uint64_t& malformed) {
    std::vector<Mount> mounts;
    for (std::string line; std::getline(lines, line);) {
        if (std::optional<Mount> mount = readMount(line)) {
            mounts.push_back(std::move(*mount));
        } else {
            ++malformed;
        }
    }
    return mounts;
}

std::vector<Mount> mountsBelow(const std::vector<Mount>& mounts, std::string_view folder) {
    if (folder == "/") return mounts;
    std::vector<Mount> below;
    const Mount* holder = nullptr;
    for (const Mount& mount : mounts) {
        if (isWithin(folder, mount.point)) {
            if (holder == nullptr || mount.point.size() >= holder->point.size()) holder = &mount;
        } else if (isWithin(mount.point, folder)) {
            below.push_back(mount);
            below.back().point.erase(0, folder.size());
        }
    }
    if (holder == nullptr) return below;
    below.insert(below.begin(), *holder);
    below.front().point = "/";
    return below;
}

std::vector<Mount> mountsWithRoom(const std::vector<Mount>& mounts,
                                  const std::function<bool(const Mount&)>& isWatched) {
    std::vector<Mount> chosen;
    for (auto mount = mounts.begin(); mount != mounts.end(); ++mount) {
        const bool isHidden =
            std::any_of(mount + 1, mounts.end(), [&](const Mount& later) { return later.point == mount->point; });
        if (isHidden || isPseudo(*mount)) continue;
        if (mount->readOnly && !(isWatched && isWatched(*mount))) continue;
        const auto same = std::find_if(chosen.begin(), chosen.end(),
                                       [&](const Mount& other) { return other.device == mount->device; });
        if (same == chosen.end()) {
            chosen.push_back(*mount);
        } else if (same->root != "/" && mount->root == "/") {
            *same = *mount;
        }
    }
    return chosen;
}

}  // namespace QOR
