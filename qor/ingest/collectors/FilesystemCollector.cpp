#include "ingest/collectors/FilesystemCollector.h"

#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "QORCommon/QORUtf8.h"
#include "ingest/collectors/CollectedAlerts.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/EscapedPath.h"
#include "ingest/collectors/MountTable.h"

namespace QOR {
namespace {

using Clock = std::chrono::steady_clock;

/// What is little, and what is enough again. Of a large file system few per cent are much room all the same.
constexpr double littleShare = 5;
constexpr double enoughShare = 10;
constexpr std::uint64_t gibibyte = std::uint64_t{1} << 30;
constexpr std::uint64_t littleBytes = 10 * gibibyte;
constexpr std::uint64_t enoughBytes = 20 * gibibyte;

constexpr std::string_view space = "space";
constexpr std::string_view inodes = "inodes";
constexpr std::string_view answering = "mount";

std::string keyOf(std::string_view resource, const Mount& mount) {
    return std::string(resource) + ":" + escapePath(mount.point);
}

double shareOf(std::uint64_t part, std::uint64_t whole) {
    return 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

/// Who asks may not look there; or it has been unmounted since.
bool isNobodysBusiness(int error) {
    return error == EACCES || error == EPERM || error == ENOENT || error == ENOTDIR;
}

/// Whether the kernel itself tells there. Other trees are recorded.
bool isOfKernel(const std::filesystem::path& proc) {
    struct statfs status {};
    return ::statfs(proc.c_str(), &status) == 0 && status.f_type == PROC_SUPER_MAGIC;
}

class FilesystemReading {
public:
    FilesystemReading(QORCollection& collection, MountProbes& probes, const FilesystemCollector::Patience& patience)
        : m_collection(collection),
          m_probes(probes),
          m_patience(patience),
          m_end(Clock::now() + patience.all),
          m_alerts(collection, "filesystems", collection.position()) {}

    /// \returns false where the kernel does not tell
    bool read() {
        const std::optional<std::vector<Mount>> all = readTable();
        if (!all) return false;
        const std::vector<Mount> mounts = mountsWithRoom(*all, [this](const Mount& mount) {
            return std::any_of(resources.begin(), resources.end(),
                               [&](std::string_view resource) { return m_alerts.isRaised(keyOf(resource, mount)); });
        });
        clearUnmounted(mounts);
        for (const Mount& mount : mounts) {
            if (m_collection.isStopping()) break;
            ask(mount);
        }
        m_collection.setPosition(m_alerts.raised());
        return true;
    }

private:
    std::optional<std::vector<Mount>> readTable() const {
        const std::filesystem::path& root = m_collection.root();
        std::ifstream file(root / "proc/self/mountinfo", std::ios::binary);
        if (!file) return std::nullopt;
        std::uint64_t malformed = 0;
        std::vector<Mount> mounts = readMounts(file, malformed);
        m_collection.passOver(malformed);
        // The kernel tells a process what that one sees, whichever tree it is asked through.
        std::error_code error;
        const std::filesystem::path folder = std::filesystem::canonical(root, error);
        return !error && isOfKernel(root / "proc") ? mountsBelow(mounts, folder.string()) : mounts;
    }

    void ask(const Mount& mount) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(m_end - Clock::now());
        if (left <= std::chrono::milliseconds(0)) return;
        const std::filesystem::path path = m_collection.root() / std::filesystem::path(mount.point).relative_path();
        const std::optional<MountRoom> room =
            m_probes.ask(mount.device + " " + mount.point, path.string(), std::min(m_patience.each, left));
        const bool answers = room && (room->error == 0 || isNobodysBusiness(room->error));
        if (const auto news = m_alerts.judge(keyOf(answering, mount), !answers, answers)) {
            QORInfo info = infoOf(answering, mount, *news);
            if (room && !answers) addText(info, "error", std::generic_category().message(room->error));
            m_alerts.tell(keyOf(answering, mount), *news, std::move(info));
        }
        if (room && room->error == 0) judge(mount, *room);
    }

    void judge(const Mount& mount, const MountRoom& room) {
        if (room.bytes > 0) {
            const double share = shareOf(room.freeBytes, room.bytes);
            const bool little = share < littleShare && room.freeBytes < littleBytes;
            const bool enough = share >= enoughShare || room.freeBytes >= enoughBytes;
            tell(space, mount, m_alerts.judge(keyOf(space, mount), little, enough), share, room.freeBytes);
        }
        if (room.inodes > 0) {
            const double share = shareOf(room.freeInodes, room.inodes);
            const bool little = share < littleShare;
            const bool enough = share >= enoughShare;
            tell(inodes, mount, m_alerts.judge(keyOf(inodes, mount), little, enough), share, room.freeInodes);
        }
    }

    void tell(std::string_view resource, const Mount& mount, std::optional<bool> news, double share,
              std::uint64_t left) {
        if (!news) return;
        QORInfo info = infoOf(resource, mount, *news);
        info.add("free", perCent(share));
        info.add("left", std::to_string(left));
        m_alerts.tell(keyOf(resource, mount), *news, std::move(info));
    }

    static QORInfo infoOf(std::string_view resource, const Mount& mount, bool raised) {
        QORInfo info;
        addText(info, "resource", resource);
        info.add("state", CollectedAlerts::stateOf(raised));
        addText(info, "mount", toUtf8(mount.point));
        addText(info, "type", toUtf8(mount.type));
        addText(info, "device", toUtf8(mount.source));
        return info;
    }

    void clearUnmounted(const std::vector<Mount>& mounts) {
        const auto isMounted = [&](const std::string& key) {
            return std::any_of(mounts.begin(), mounts.end(), [&](const Mount& mount) {
                return std::any_of(resources.begin(), resources.end(),
                                   [&](std::string_view resource) { return key == keyOf(resource, mount); });
            });
        };
        m_alerts.clearUnless(isMounted, [](const std::string& key) {
            const std::size_t colon = key.find(':');
            Mount gone;
            if (colon != std::string::npos) gone.point = unescapePath(std::string_view(key).substr(colon + 1));
            return infoOf(std::string_view(key).substr(0, colon), gone, false);
        });
    }

    static constexpr std::array<std::string_view, 3> resources{space, inodes, answering};

    QORCollection& m_collection;
    MountProbes& m_probes;
    const FilesystemCollector::Patience m_patience;
    const Clock::time_point m_end;
    CollectedAlerts m_alerts;
};

}  // namespace

FilesystemCollector::FilesystemCollector(MountProbes::Ask ask, Patience patience)
    : QORCollector({.name = "filesystems", .source = "/proc/self/mountinfo", .every = std::chrono::minutes(1)}),
      m_patience(patience),
      m_probes(std::move(ask)) {}

bool FilesystemCollector::collect(QORCollection& collection) {
    return FilesystemReading(collection, m_probes, m_patience).read();
}

}  // namespace QOR
