#include "ingest/QORPackageLog.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <optional>
#include <system_error>
#include <unordered_map>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "ingest/LogFile.h"

namespace QOR {
namespace {

constexpr std::size_t timeLength = 19;
constexpr std::size_t lineBytes = std::size_t{64} << 10;

/// What an action leads to when it goes well.
struct Outcome {
    std::string_view action;
    std::array<std::string_view, 4> states;
    bool bringsVersion;  // the package has the action's version afterwards
};
constexpr std::array<Outcome, 7> outcomes{{
    {"install", {"unpacked", "installed", "triggers-awaited", "triggers-pending"}, true},
    {"upgrade", {"unpacked", "installed", "triggers-awaited", "triggers-pending"}, true},
    {"configure", {"installed", "triggers-awaited", "triggers-pending"}, false},
    {"trigproc", {"installed", "triggers-awaited", "triggers-pending"}, false},
    {"remove", {"config-files", "not-installed"}, false},
    {"purge", {"not-installed"}, false},
    {"disappear", {"not-installed", "config-files"}, false},
}};

const Outcome* outcomeOf(std::string_view action) {
    const auto found = std::find_if(outcomes.begin(), outcomes.end(),
                                    [&](const Outcome& outcome) { return outcome.action == action; });
    return found == outcomes.end() ? nullptr : &*found;
}

int statusOf(const QORPackageAction& action, std::string_view state, std::string_view version) {
    if (state == "half-installed") return 1;
    if (state == "half-configured") return 2;
    const Outcome& wanted = *outcomeOf(action.action);
    if (std::find(wanted.states.begin(), wanted.states.end(), state) == wanted.states.end()) return 3;
    return wanted.bringsVersion && version != action.version ? 3 : 0;
}

/// Words between single blanks.
std::vector<std::string_view> splitWords(std::string_view text) {
    std::vector<std::string_view> words;
    while (!text.empty()) {
        const std::size_t end = text.find(' ');
        words.push_back(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    }
    return words;
}

std::string versionOf(std::string_view word) {
    return word == "<none>" ? std::string() : std::string(word);
}

/// Reads lines one after the other.
class Reader {
public:
    void take(const std::string& line) {
        if (line.empty()) return;
        if (!isUtf8(line) || !takeLine(line)) ++m_log.malformed;
    }

    QORPackageLog& log() { return m_log; }

private:
    bool takeLine(const std::string& line) {
        if (line.size() <= timeLength || line[timeLength] != ' ') return false;
        const auto time = localTime(std::string_view(line).substr(0, timeLength), m_lastTime);
        if (!time) return false;
        m_lastTime = *time;
        const auto words = splitWords(std::string_view(line).substr(timeLength + 1));
        if (words.size() < 2) return false;
        if (words[0] == "startup" || words[0] == "conffile") return true;
        if (words[0] == "status") return takeStatus(words);
        return takeAction(line, *time, words);
    }

    bool takeAction(const std::string& line, std::int64_t time, const std::vector<std::string_view>& words) {
        if (words.size() != 4 || words[1].empty() || outcomeOf(words[0]) == nullptr) return false;
        QORPackageAction action;
        action.time = time;
        action.line = line;
        action.repeated = m_seen[line]++;
        action.action = words[0];
        const std::size_t colon = words[1].rfind(':');
        action.package = words[1].substr(0, colon);
        if (colon != std::string_view::npos) action.architecture = words[1].substr(colon + 1);
        // The log has the version before and the version to come; only actions that bring one have the second.
        action.version = versionOf(words[3]);
        action.oldVersion = versionOf(words[2]);
        if (action.version.empty()) action.version.swap(action.oldVersion);
        m_current[std::string(words[1])] = m_log.actions.size();
        m_log.actions.push_back(std::move(action));
        return true;
    }

    /// "status STATE PACKAGE VERSION" tells about the last action on the package.
    bool takeStatus(const std::vector<std::string_view>& words) {
        if (words.size() != 4) return false;
        const auto current = m_current.find(std::string(words[2]));
        if (current == m_current.end()) return true;
        QORPackageAction& action = m_log.actions[current->second];
        action.status = statusOf(action, words[1], words[3]);
        action.state = action.status == 0 ? std::string() : std::string(words[1]);
        return true;
    }

    QORPackageLog m_log;
    std::int64_t m_lastTime = std::numeric_limits<std::int64_t>::min();
    std::unordered_map<std::string, std::uint32_t> m_seen;
    std::unordered_map<std::string, std::size_t> m_current;
};

/// Where a rotation stands in time: numbers count backwards, dates forwards.
struct Rotation {
    std::filesystem::path path;
    std::int64_t order = 0;
    bool compressed = false;
};

std::optional<Rotation> rotationOf(const std::filesystem::path& path, const std::string& log) {
    std::string suffix = path.filename().string().substr(log.size());
    Rotation rotation{path, 0, false};
    if (suffix.ends_with(".gz")) {
        rotation.compressed = true;
        suffix.resize(suffix.size() - 3);
    }
    if (suffix.size() < 2) return std::nullopt;
    const auto number = parseInt64(std::string_view(suffix).substr(1));
    if (!number || *number < 0 || suffix[1] == '+') return std::nullopt;
    if (suffix[0] == '.') {
        rotation.order = -*number;
    } else if (suffix[0] == '-') {
        rotation.order = *number;
    } else {
        return std::nullopt;
    }
    return rotation;
}

std::int64_t civilToLocal(std::tm civil, int daylight) {
    civil.tm_isdst = daylight;
    return std::mktime(&civil);
}

}  // namespace

std::optional<std::int64_t> localTime(std::string_view text, std::int64_t notBefore) {
    // parseTime checks the calendar; the same seconds, taken apart as UTC, are the fields of the local time.
    if (text.size() != timeLength || text[10] != ' ' || text[16] != ':') return std::nullopt;
    const auto asUtc = parseTime(text);
    if (!asUtc) return std::nullopt;
    const std::time_t seconds = *asUtc;
    std::tm civil{};
    gmtime_r(&seconds, &civil);
    const std::int64_t first = civilToLocal(civil, -1);
    if (first >= notBefore) return first;
    // mktime settles an hour that comes twice on one of the two. The other differs by the daylight flag.
    for (const int daylight : {1, 0}) {
        const std::int64_t other = civilToLocal(civil, daylight);
        const std::time_t check = other;
        std::tm back{};
        localtime_r(&check, &back);
        if (other >= notBefore && back.tm_hour == civil.tm_hour && back.tm_min == civil.tm_min) return other;
    }
    return first;
}

std::vector<std::filesystem::path> logRotations(const std::filesystem::path& log) {
    const std::string name = log.filename().string();
    std::vector<Rotation> rotations;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(log.parent_path(), error)) {
        const std::string file = entry.path().filename().string();
        if (!file.starts_with(name) || file == name) continue;
        if (auto rotation = rotationOf(entry.path(), name)) rotations.push_back(std::move(*rotation));
    }
    std::sort(rotations.begin(), rotations.end(), [](const Rotation& a, const Rotation& b) {
        return a.order != b.order ? a.order < b.order : a.compressed < b.compressed;
    });
    std::vector<std::filesystem::path> paths;
    for (std::size_t i = 0; i < rotations.size(); ++i) {
        const bool twin = i > 0 && rotations[i].order == rotations[i - 1].order;
        if (!twin) paths.push_back(rotations[i].path);
    }
    if (std::filesystem::exists(log, error)) paths.push_back(log);
    return paths;
}

QORPackageLog readPackageLog(const std::filesystem::path& root) {
    Reader reader;
    for (const auto& path : logRotations(root / "var/log/dpkg.log")) {
        ++reader.log().files;
        LogFile file(path, lineBytes);
        for (std::string line; file.next(line);)
            reader.take(line);
        if (!file.error().empty()) reader.log().unreadable.push_back(path.string() + ": " + file.error());
    }
    return std::move(reader.log());
}

}  // namespace QOR
