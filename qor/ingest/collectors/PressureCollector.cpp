#include "ingest/collectors/PressureCollector.h"

#include <array>
#include <charconv>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "ingest/collectors/CollectedAlerts.h"
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
        : m_collection(collection),
          m_folder(collection.root() / "proc/pressure"),
          m_alerts(collection, "pressure", collection.position()) {}

    /// \returns false where the kernel does not tell
    bool read() {
        bool isThere = false;
        for (const Watched& one : watched)
            isThere = read(one) || isThere;
        m_collection.setPosition(m_alerts.raised());
        return isThere;
    }

private:
    bool read(const Watched& one) {
        const std::filesystem::path path = m_folder / one.resource;
        std::ifstream file(path);
        if (!file) return false;
        for (std::string line; std::getline(file, line);) {
            if (!line.starts_with(one.line)) continue;
            if (const auto share = shareOf(line)) {
                judge(one, *share);
                return true;
            }
        }
        m_collection.cannotRead(path.string() + ": it has no line \"" + std::string(one.line) + "\" with a share");
        return true;
    }

    void judge(const Watched& one, double share) {
        const std::string key(one.resource);
        const std::optional<bool> news = m_alerts.judge(key, share >= one.raised, share < one.cleared);
        if (!news) return;
        QORInfo info;
        addText(info, "resource", one.resource);
        info.add("state", CollectedAlerts::stateOf(*news));
        info.add("stalled", perCent(share));
        m_alerts.tell(key, *news, std::move(info));
    }

    QORCollection& m_collection;
    const std::filesystem::path m_folder;
    CollectedAlerts m_alerts;
};

}  // namespace

PressureCollector::PressureCollector()
    : QORCollector({.name = "pressure", .source = "/proc/pressure", .every = std::chrono::seconds(30)}) {}

bool PressureCollector::collect(QORCollection& collection) {
    return PressureReading(collection).read();
}

}  // namespace QOR
