#include "ingest/QORAptHistory.h"

#include <sys/stat.h>

#include <array>
#include <limits>
#include <map>
#include <string_view>
#include <utility>

#include "QORCommon/QORUtf8.h"
#include "ingest/LogFile.h"
#include "ingest/QORPackageLog.h"

namespace QOR {
namespace {

/// An upgrade of a whole release names all its packages in one line.
constexpr std::size_t longestLine = std::size_t{4} << 20;

struct PackageList {
    std::string_view member;
    std::string_view action;
};
constexpr std::array<PackageList, 6> packageLists{{
    {"Install", "install"},
    {"Upgrade", "upgrade"},
    {"Downgrade", "downgrade"},
    {"Reinstall", "reinstall"},
    {"Remove", "remove"},
    {"Purge", "purge"},
}};

/// Takes the text up to a mark, and the mark, from the front; everything where there is no mark.
std::string_view takeUpTo(std::string_view& text, std::string_view mark) {
    const std::size_t end = text.find(mark);
    const std::string_view front = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + mark.size());
    return front;
}

/// "NAME:ARCHITECTURE (VERSION)", "(OLD, NEW)" or "(VERSION, automatic)".
QORAptPackage packageOf(std::string_view text, std::string_view action) {
    QORAptPackage package;
    package.action = action;
    std::string_view name = takeUpTo(text, " (");
    package.name = takeUpTo(name, ":");
    package.architecture = name;
    std::string_view versions = takeUpTo(text, ")");
    while (!versions.empty()) {
        const std::string_view word = takeUpTo(versions, ", ");
        if (word == "automatic") {
            package.automatic = true;
        } else {
            package.oldVersion = std::exchange(package.version, std::string(word));
        }
    }
    return package;
}

/// Takes lines one after the other. A line without a beginning before it belongs to what is in a file that is gone.
class HistoryReader {
public:
    explicit HistoryReader(QORAptHistory& history) : m_history(history) {}

    void take(std::string_view line) {
        if (line.empty()) return finish();
        std::string_view value = line;
        const std::string_view member = takeUpTo(value, ": ");
        if (member == "Start-Date") return begin(value);
        if (!m_isOpen || !takeMember(member, value)) ++m_history.malformed;
    }
    void finish() {
        if (!std::exchange(m_isOpen, false)) return;
        m_current.repeated = m_seen[{m_current.start, m_current.command}]++;
        m_history.transactions.push_back(std::move(m_current));
    }

private:
    /// The date and the time have two blanks between them.
    std::optional<std::int64_t> timeOf(std::string_view text) {
        std::string_view time = text;
        const std::string_view date = takeUpTo(time, "  ");
        const auto seconds = localTime(std::string(date) + ' ' + std::string(time), m_lastTime);
        if (seconds) m_lastTime = *seconds;
        return seconds;
    }

    void begin(std::string_view start) {
        finish();
        const auto time = timeOf(start);
        if (!time) {
            ++m_history.malformed;
            return;
        }
        m_current = QORAptTransaction();
        m_current.time = *time;
        m_current.start = start;
        m_isOpen = true;
    }

    bool takeMember(std::string_view member, std::string_view value) {
        for (const PackageList& list : packageLists) {
            if (list.member == member) return takePackages(value, list.action);
        }
        if (member == "End-Date") {
            m_current.end = timeOf(value);
            return m_current.end.has_value();
        }
        std::string* const text = textOf(member);
        if (text == nullptr) return false;
        *text = toUtf8(value);
        return true;
    }

    std::string* textOf(std::string_view member) {
        if (member == "Commandline") return &m_current.command;
        if (member == "Requested-By") return &m_current.requester;
        if (member == "Comment") return &m_current.comment;
        return member == "Error" ? &m_current.error : nullptr;
    }

    bool takePackages(std::string_view list, std::string_view action) {
        const std::string text = toUtf8(list);
        std::string_view rest = text;
        while (!rest.empty()) {
            // Versions hold commas, but no closing parenthesis.
            const std::string_view one = takeUpTo(rest, "), ");
            m_current.packages.push_back(packageOf(one, action));
        }
        return true;
    }

    QORAptHistory& m_history;
    QORAptTransaction m_current;
    bool m_isOpen = false;
    std::int64_t m_lastTime = std::numeric_limits<std::int64_t>::min();
    std::map<std::pair<std::string, std::string>, std::uint32_t> m_seen;
};

bool wasWrittenSince(const std::filesystem::path& file, std::int64_t since) {
    struct stat status {};
    return ::stat(file.c_str(), &status) != 0 || status.st_mtime >= since;
}

}  // namespace

QORAptHistory readAptHistory(const std::filesystem::path& root, std::int64_t since) {
    QORAptHistory history;
    HistoryReader reader(history);
    const std::filesystem::path log = root / "var/log/apt/history.log";
    for (const auto& path : logRotations(log)) {
        ++history.files;
        if (path != log && !wasWrittenSince(path, since)) continue;
        LogFile file(path, longestLine);
        for (std::string line; file.next(line);)
            reader.take(line);
        reader.finish();
        if (!file.error().empty()) history.unreadable.push_back(path.string() + ": " + file.error());
    }
    return history;
}

}  // namespace QOR
