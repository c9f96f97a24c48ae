#include "ingest/collectors/CgroupCollector.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORUtf8.h"
#include "ingest/collectors/CollectedAlerts.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/EscapedPath.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

using Counters = std::map<std::string, std::uint64_t, std::less<>>;

/// Something that a group ran into, counted.
struct WatchedCounter {
    std::string_view key;
    std::string_view resource;
    std::string_view file;  ///< where it is said of the group with those below it; with ".local", of itself alone
    std::string_view name;
};
constexpr std::array<WatchedCounter, 3> watchedCounters{{
    {"oom_kill", "memory", "memory.events", "oom_kill"},
    {"memory", "memory", "memory.events", "max"},
    {"pids", "pids", "pids.events", "max"},
}};

constexpr std::uint64_t quietRuns = 10;     ///< after which an alert about a counter is cleared
constexpr std::uint64_t leastPeriods = 10;  ///< of processor time, below which a share tells nothing
constexpr double throttledRaised = 25;      ///< per cent of these in which a group was throttled
constexpr double throttledCleared = 10;
constexpr std::size_t mostGroups = 10'000;  ///< that are looked at
constexpr std::size_t mostAlerts = 100;     ///< that are told in a run; the rest in the next ones
constexpr std::string_view quietMark = "quiet:";
constexpr std::string_view throttledMark = "throttled:";
constexpr std::string_view periodsMark = "periods:";

/// Lines such as "oom_kill 3". Empty where there is no such file.
Counters readCounters(const fs::path& path) {
    Counters counters;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        const std::size_t blank = line.find(' ');
        if (blank == std::string::npos) continue;
        if (const auto value = parseInt64(std::string_view(line).substr(blank + 1)); value && *value >= 0)
            counters[line.substr(0, blank)] = static_cast<std::uint64_t>(*value);
    }
    return counters;
}

/// The counters of a position: "oom_kill:/a=3 pids:/b=1".
Counters countersOf(std::string_view text) {
    Counters counters;
    while (!text.empty()) {
        const std::size_t blank = text.find(' ');
        const std::string_view word = text.substr(0, blank);
        const std::size_t equals = word.rfind('=');
        if (equals != std::string_view::npos) {
            if (const auto value = parseInt64(word.substr(equals + 1)); value && *value > 0)
                counters[std::string(word.substr(0, equals))] = static_cast<std::uint64_t>(*value);
        }
        text.remove_prefix(blank == std::string_view::npos ? text.size() : blank + 1);
    }
    return counters;
}

std::string textOf(const Counters& counters) {
    std::string text;
    for (const auto& [key, value] : counters)
        text.append(text.empty() ? "" : " ").append(key).append("=").append(std::to_string(value));
    return text;
}

bool isOfTime(std::string_view key) {
    return key.starts_with(throttledMark) || key.starts_with(periodsMark);
}

/// Those of processor time, or the others.
Counters pick(const Counters& counters, bool ofTime) {
    Counters some;
    std::copy_if(counters.begin(), counters.end(), std::inserter(some, some.end()),
                 [&](const auto& counter) { return isOfTime(counter.first) == ofTime; });
    return some;
}

std::uint64_t valueOf(const Counters& counters, std::string_view key) {
    const auto found = counters.find(key);
    return found == counters.end() ? 0 : found->second;
}

/// What was added. A counter that is lower than before belongs to a group that was made anew.
std::uint64_t growthOf(std::uint64_t before, std::uint64_t now) {
    return now >= before ? now - before : now;
}

class CgroupReading {
public:
    CgroupReading(QORCollection& collection, CgroupCollector::Memory& memory)
        : m_collection(collection),
          m_memory(memory),
          m_folder(collection.root() / "sys/fs/cgroup"),
          m_isFirst(collection.position().empty()),
          m_alerts(collection, "cgroups", firstLine(collection.position())),
          m_raisedBefore(m_alerts.raised()),
          m_before(countersOf(secondLine(collection.position()))),
          m_timesBefore(memory.position == collection.position() ? memory.times : pick(m_before, true)) {}

    /// \returns false where there are no groups of version 2
    bool read() {
        std::error_code error;
        if (!fs::exists(m_folder / "cgroup.controllers", error)) return false;
        for (const std::string& group : groups())
            read(group);
        if (m_collection.isStopping()) return true;
        m_alerts.clearUnless([this](const std::string& key) { return m_seen.contains(key); },
                             [](const std::string& key) { return infoOfGone(key); });
        remember();
        return true;
    }

private:
    void remember() {
        const bool isSame =
            !m_isFirst && m_alerts.raised() == m_raisedBefore && pick(m_now, false) == pick(m_before, false);
        m_memory.position = isSame ? m_collection.position() : m_alerts.raised() + "\n" + textOf(m_now);
        m_memory.times = pick(m_now, true);
        m_collection.setPosition(m_memory.position);
    }

    static std::string_view firstLine(std::string_view position) { return position.substr(0, position.find('\n')); }
    static std::string_view secondLine(std::string_view position) {
        const std::size_t end = position.find('\n');
        return end == std::string_view::npos ? std::string_view() : position.substr(end + 1);
    }

    /// Their paths, "/system.slice/cron.service", each behind the one that it is in.
    std::vector<std::string> groups() {
        std::vector<std::string> all{""};
        for (std::size_t at = 0; at < all.size() && !m_collection.isStopping(); ++at) {
            std::vector<std::string> below = groupsIn(all[at]);
            std::sort(below.begin(), below.end());
            all.insert(all.end(), below.begin(), below.end());
            if (all.size() <= mostGroups) continue;
            m_collection.cannotRead(m_folder.string() + ": there are more than " + std::to_string(mostGroups) +
                                    " control groups; the rest is left out");
            all.resize(mostGroups);
            break;
        }
        return all;
    }
    std::vector<std::string> groupsIn(const std::string& group) const {
        std::vector<std::string> below;
        // A group that is gone meanwhile has none.
        std::error_code error;
        for (fs::directory_iterator entry(m_folder.string() + group, error), end; !error && entry != end;
             entry.increment(error)) {
            if (entry->is_symlink(error) || !entry->is_directory(error)) continue;
            below.push_back(group + "/" + entry->path().filename().string());
        }
        return below;
    }

    void read(const std::string& group) {
        std::map<std::string_view, Counters> files;
        for (const WatchedCounter& one : watchedCounters) {
            const auto [file, isNew] = files.try_emplace(one.file);
            if (isNew) file->second = readEvents(group, one.file);
            const auto found = file->second.find(one.name);
            if (found != file->second.end()) count(group, one, found->second);
        }
        const Counters cpu = readCounters(m_folder.string() + group + "/cpu.stat");
        if (valueOf(cpu, "nr_periods") > 0) throttle(group, valueOf(cpu, "nr_periods"), valueOf(cpu, "nr_throttled"));
    }
    Counters readEvents(const std::string& group, std::string_view file) const {
        const std::string path = m_folder.string() + group + "/" + std::string(file);
        Counters own = readCounters(path + ".local");
        return own.empty() ? readCounters(path) : own;
    }

    void count(const std::string& group, const WatchedCounter& counter, std::uint64_t value) {
        const std::string key = keyOf(counter.key, group);
        const std::uint64_t before = valueOf(m_before, key);
        if (!mayTell(key)) return keep(key, before);
        keep(key, value);
        if (m_isFirst) return;
        const std::uint64_t growth = growthOf(before, value);
        const std::uint64_t quiet = growth > 0 ? 0 : valueOf(m_before, std::string(quietMark) + key) + 1;
        const std::optional<bool> news = m_alerts.judge(key, growth > 0, quiet >= quietRuns);
        if (m_alerts.isRaised(key)) keep(std::string(quietMark) + key, quiet);
        if (!news) return;
        QORInfo info = infoOf(counter.resource, counter.name, group, *news);
        if (*news) info.add("count", std::to_string(growth));
        tell(key, *news, std::move(info));
    }

    void throttle(const std::string& group, std::uint64_t periods, std::uint64_t throttled) {
        const std::string key = std::string(throttledMark) + escapePath(group);
        const std::string keyOfPeriods = std::string(periodsMark) + escapePath(group);
        const std::uint64_t periodsBefore = valueOf(m_timesBefore, keyOfPeriods);
        const std::uint64_t throttledBefore = valueOf(m_timesBefore, key);
        if (!mayTell(key)) {
            keep(keyOfPeriods, periodsBefore);
            return keep(key, throttledBefore);
        }
        keep(keyOfPeriods, periods);
        keep(key, throttled);
        if (m_isFirst) return;
        const bool isAnew = periods < periodsBefore;
        const std::uint64_t passed = isAnew ? periods : periods - periodsBefore;
        const std::uint64_t withheld = isAnew ? throttled : growthOf(throttledBefore, throttled);
        const double share =
            passed < leastPeriods ? 0 : 100.0 * static_cast<double>(withheld) / static_cast<double>(passed);
        const std::optional<bool> news = m_alerts.judge(key, share >= throttledRaised, share < throttledCleared);
        if (!news) return;
        QORInfo info = infoOf("cpu", "nr_throttled", group, *news);
        info.add("throttled", perCent(share));
        tell(key, *news, std::move(info));
    }

    static std::string keyOf(std::string_view counter, const std::string& group) {
        return std::string(counter) + ":" + escapePath(group);
    }
    bool mayTell(const std::string& key) {
        m_seen.insert(key);
        return m_told < mostAlerts;
    }
    void keep(const std::string& key, std::uint64_t value) {
        if (value > 0) m_now[key] = value;
    }
    void tell(const std::string& key, bool raised, QORInfo info) {
        ++m_told;
        m_alerts.tell(key, raised, std::move(info));
    }

    static QORInfo infoOf(std::string_view resource, std::string_view counter, std::string_view group, bool raised) {
        QORInfo info;
        addText(info, "resource", resource);
        info.add("state", CollectedAlerts::stateOf(raised));
        addText(info, "counter", counter);
        addText(info, "cgroup", toUtf8(group));
        return info;
    }
    static QORInfo infoOfGone(const std::string& key) {
        const std::string_view counter = std::string_view(key).substr(0, key.find(':'));
        const std::string group = unescapePath(std::string_view(key).substr(std::min(key.size(), counter.size() + 1)));
        for (const WatchedCounter& one : watchedCounters) {
            if (one.key == counter) return infoOf(one.resource, one.name, group, false);
        }
        return infoOf("cpu", "nr_throttled", group, false);
    }

    QORCollection& m_collection;
    CgroupCollector::Memory& m_memory;
    const fs::path m_folder;
    const bool m_isFirst;
    CollectedAlerts m_alerts;
    const std::string m_raisedBefore;
    const Counters m_before;
    const Counters m_timesBefore;
    Counters m_now;
    std::set<std::string> m_seen;  ///< keys of what there is
    std::size_t m_told = 0;
};

}  // namespace

CgroupCollector::CgroupCollector()
    : QORCollector({.name = "cgroups", .source = "/sys/fs/cgroup", .every = std::chrono::seconds(30)}) {}

bool CgroupCollector::collect(QORCollection& collection) {
    return CgroupReading(collection, m_memory).read();
}

}  // namespace QOR
