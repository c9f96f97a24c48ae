// The collector "boots": an operation for each time that the machine is booted.
#include <QORCommon/QORGuid.h>
#include <QORFunctionality/QORCollector.h>
#include <QORFunctionality/QORPlugIn.h>

#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

using namespace QOR;

/// The line of /proc/stat that tells when the machine was booted, in seconds since the epoch.
std::optional<std::int64_t> bootTime(std::ifstream& stat) {
    for (std::string name; stat >> name;) {
        std::int64_t seconds = 0;
        if (name == "btime" && stat >> seconds) return seconds;
    }
    return std::nullopt;
}

class Boots final : public QORCollector {
public:
    Boots() : QORCollector({.name = "boots", .source = "/proc/stat", .every = std::chrono::minutes(10)}) {}

    bool collect(QORCollection& collection) override {
        const std::filesystem::path proc = collection.root() / "proc";
        std::ifstream stat(proc / "stat");
        std::ifstream bootId(proc / "sys/kernel/random/boot_id");
        if (!stat || !bootId) return false;  // there is no such source, which is no failure
        std::string text;
        bootId >> text;
        // The time is adjusted while the machine runs, the identifier is not: it is what tells this boot from others.
        const auto boot = QORGUIDBase::parse(text);
        const auto time = bootTime(stat);
        if (!boot || !time) throw std::runtime_error("/proc does not tell when the machine was booted");
        if (boot->toString() == collection.position()) return true;
        const std::string machine = collection.machine().toString();
        collection.add(R"({"kind":"operation","id":")" + boot->toString() + R"(","op":"boot","status":0,"time":)" +
                       std::to_string(*time) + R"(,"eid":")" + machine + R"(","eids":[")" + machine + R"("]})");
        collection.setPosition(boot->toString());
        return true;
    }
};

Boots boots;

}  // namespace

int initQORPlugIn() {
    return 0;
}
int finiQORPlugIn() {
    return 0;
}
