#include "ingest/collectors/JournalEvent.h"

#include <systemd/sd-messages.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORUtf8.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/Journal.h"

namespace QOR {
namespace {

constexpr const char* statusCategory = "env_status";
constexpr const char* alertCategory = "resource_alert";

constexpr int errorPriority = 3;

/// What the service manager says of a unit.
struct UnitChange {
    std::string_view message;  ///< by which such messages are known
    std::string_view state;
    bool isShortage;  ///< something was used up
};
constexpr std::array<UnitChange, 7> unitChanges{{
    {SD_MESSAGE_UNIT_STARTED_STR, "started", false},
    {SD_MESSAGE_UNIT_FAILED_STR, "not_started", false},
    {SD_MESSAGE_UNIT_STOPPED_STR, "stopped", false},
    {SD_MESSAGE_UNIT_RELOADED_STR, "reloaded", false},
    {SD_MESSAGE_UNIT_FAILURE_RESULT_STR, "failed", false},
    {SD_MESSAGE_UNIT_OUT_OF_MEMORY_STR, "killed", true},
    {SD_MESSAGE_UNIT_OOMD_KILL_STR, "killed", true},
}};

/// What kernels and programs say when something is used up.
struct Shortage {
    std::string_view text;
    bool isOfKernel;  ///< others do not know
    std::string_view resource;
};
constexpr std::array<Shortage, 4> shortages{{
    {"ut of memory: Killed process", true, "memory"},
    {"ut of memory: Kill process", true, "memory"},
    {"clock throttled", true, "cpu"},
    {"No space left on device", false, "space"},
}};

/// What comes and goes with sessions, or is a device: nobody asked for it.
bool isPassing(std::string_view unit) {
    return unit.ends_with(".scope") || unit.ends_with(".slice") || unit.ends_with(".device");
}

class EntryReading {
public:
    explicit EntryReading(const Journal& journal) : m_journal(journal), m_message(read("MESSAGE")) {}

    std::optional<JournalEvent> event() const {
        if (std::optional<JournalEvent> change = unitChange()) return change;
        const bool isOfKernel = read("_TRANSPORT") == "kernel";
        for (const Shortage& shortage : shortages) {
            if (shortage.isOfKernel && !isOfKernel) continue;
            if (m_message.find(shortage.text) != std::string::npos) return written(alertCategory, shortage.resource);
        }
        const auto priority = parseInt32(read("PRIORITY"));
        if (!priority || *priority > errorPriority || m_message.empty()) return std::nullopt;
        return written(statusCategory, {});
    }

private:
    std::string read(const char* field) const { return toUtf8(m_journal.field(field)); }

    /// The manager of the system is known by what nobody can make up; those of users tell of their own.
    std::optional<JournalEvent> unitChange() const {
        const std::string message = read("MESSAGE_ID");
        const auto* const change = std::find_if(unitChanges.begin(), unitChanges.end(),
                                                [&](const UnitChange& one) { return one.message == message; });
        if (change == unitChanges.end() || read("_PID") != "1") return std::nullopt;
        const std::string unit = read("UNIT");
        if (unit.empty() || isPassing(unit)) return std::nullopt;
        QORInfo info;
        if (change->isShortage) info.add("resource", "memory");
        addText(info, "unit", unit);
        addText(info, "state", change->state);
        addText(info, "result", read("UNIT_RESULT"));
        addText(info, "message", m_message);
        return JournalEvent{change->isShortage ? alertCategory : statusCategory, std::move(info), unit};
    }

    JournalEvent written(const char* category, std::string_view resource) const {
        QORInfo info;
        addText(info, "resource", resource);
        const std::string unit = read("_SYSTEMD_UNIT");
        const std::string identifier = read("SYSLOG_IDENTIFIER");
        addText(info, "unit", unit);
        addText(info, "identifier", identifier);
        addText(info, "priority", read("PRIORITY"));
        addText(info, "message", m_message);
        return {category, std::move(info), unit.empty() ? identifier : unit};
    }

    const Journal& m_journal;
    const std::string m_message;
};

}  // namespace

void matchEvents(Journal& journal, const std::string& machine) {
    for (int priority = 0; priority <= errorPriority; ++priority)
        journal.match("PRIORITY", std::to_string(priority));
    journal.orMatch();
    for (const UnitChange& change : unitChanges)
        journal.match("MESSAGE_ID", change.message);
    journal.orMatch();
    journal.match("_TRANSPORT", "kernel");
    journal.match("PRIORITY", "4");
    if (machine.empty()) return;
    journal.andMatch();
    journal.match("_MACHINE_ID", machine);
}

std::optional<JournalEvent> readJournalEvent(const Journal& journal) {
    return EntryReading(journal).event();
}

}  // namespace QOR
