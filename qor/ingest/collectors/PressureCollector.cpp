#include "ingest/collectors/PressureCollector.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "QORCommon/QORTime.h"
#include "ingest/RecordLines.h"
#include "ingest/collectors/CollectedOperation.h"

namespace QOR {
namespace {

/// Of a processor somebody always waits for his turn; of memory and of disks it counts when nobody gets on.
struct Watched {
    std::string_view resource;  ///< as the kernel names it
    std::string_view line;      ///< "some" tasks stand still, or all of them: "full"
    double raised;              ///< per cent of the last minute, from which on an alert is raised
    double cleared;             ///< below which it is cleared
};
constexpr std::array<Watched, 3> watched{{
    {"cpu", "some", 60, 30},
    {"memory", "full", 10, 5},
    {"io", "full", 40, 20},
}};

/// The share of the last minute, from "some avg10=0.00 avg60=1.25 avg300=0.40 total=5113".
std::optional<double> shareOf(std::string_view line) {
    constexpr std::string_view mark = " avg60=";
    const std::size_t at = line.find(mark);
    if (at == std::string_view::npos) return std::nullopt;
    const std::string_view text = line.substr(at + mark.size());
    double share = 0;
    const auto read = std::from_chars(text.data(), text.data() + text.size(), share);
    return read.ec == std::errc() ? std::optional(share) : std::nullopt;
}

class PressureReading {
public:
    explicit PressureReading(QORCollection& collection)
        : m_collection(collection), m_folder(collection.root() / "proc/pressure") {}

    /// \returns false where the kernel does not tell
    bool read() {
        bool isThere = false;
        for (const Watched& one : watched)
            isThere = read(one) || isThere;
        m_collection.setPosition(m_raised);
        return isThere;
    }

private:
    bool read(const Watched& one) {
        const std::filesystem::path path = m_folder / one.resource;
        std::ifstream file(path);
        if (!file) {
            keep(one, wasRaised(one));
            return false;
        }
        for (std::string line; std::getline(file, line);) {
            if (!line.starts_with(one.line)) continue;
            if (const auto share = shareOf(line)) {
                judge(one, *share);
                return true;
            }
        }
        keep(one, wasRaised(one));
        m_collection.cannotRead(path.string() + ": it has no line \"" + std::string(one.line) + "\" with a share");
        return true;
    }

    void judge(const Watched& one, double share) {
        const bool before = wasRaised(one);
        const bool now = before ? share >= one.cleared : share >= one.raised;
        keep(one, now);
        if (now != before) tell(one, share, now);
    }

    bool wasRaised(const Watched& one) const {
        return (' ' + m_collection.position() + ' ').find(' ' + std::string(one.resource) + ' ') != std::string::npos;
    }
    void keep(const Watched& one, bool raised) {
        if (raised) m_raised.append(m_raised.empty() ? "" : " ").append(one.resource);
    }

    void tell(const Watched& one, double share, bool raised) {
        QOREventRecord event;
        event.time = currentTime();
        event.eid = m_collection.machine();
        event.id = QORGUIDBase::fromName(
            event.eid, "pressure " + std::string(one.resource) + (raised ? " + " : " - ") + std::to_string(event.time));
        event.source = "pressure";
        event.category = "resource_alert";
        QORInfo& info = event.info.emplace();
        addText(info, "resource", one.resource);
        info.add("state", raised ? "raised" : "cleared");
        std::array<char, 16> text{};
        const auto end = std::to_chars(text.data(), text.data() + text.size(), share, std::chars_format::fixed, 2);
        info.add("stalled", std::string(text.data(), end.ptr));
        m_collection.add(lineOf(event));
    }

    QORCollection& m_collection;
    const std::filesystem::path m_folder;
    std::string m_raised;
};

}  // namespace

PressureCollector::PressureCollector()
    : QORCollector({.name = "pressure", .source = "/proc/pressure", .every = std::chrono::seconds(30)}) {}

bool PressureCollector::collect(QORCollection& collection) {
    return PressureReading(collection).read();
}

}  // namespace QOR
