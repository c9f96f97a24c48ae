#include "ingest/collectors/JournalCollector.h"

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>

#include "ingest/RecordLines.h"
#include "ingest/collectors/Journal.h"
#include "ingest/collectors/JournalEvent.h"

namespace QOR {
namespace {

constexpr std::uint64_t microsecondsOfSecond = 1'000'000;
constexpr std::uint64_t firstSpan = 7 * 24 * 60 * 60 * microsecondsOfSecond;
constexpr std::size_t mostEntries = 20'000;  ///< that are looked at in a run; the rest in the next ones
constexpr std::string_view goneMark = "~";   ///< before a cursor whose entry is no more, which has been told

std::string machineIdOf(const std::filesystem::path& root) {
    std::ifstream file(root / "etc/machine-id");
    std::string id;
    std::getline(file, id);
    return id.size() == 32 ? id : std::string();
}

/// A journal that is moved to other files numbers its entries anew: those numbers stand in front.
std::string lastingName(const std::string& cursor) {
    const std::size_t boot = cursor.find(";b=");
    return boot == std::string::npos ? cursor : cursor.substr(boot + 1);
}

class JournalReading {
public:
    explicit JournalReading(QORCollection& collection) : m_collection(collection), m_journal(collection.root()) {}

    void read() {
        begin();
        for (std::size_t count = 0; count < mostEntries && m_journal.next(); ++count) {
            if (m_collection.isStopping()) return;
            const std::string cursor = m_journal.cursor();
            if (const std::optional<JournalEvent> event = readJournalEvent(m_journal)) add(*event, cursor);
            m_collection.setPosition(cursor);
        }
    }

private:
    void begin() {
        const bool isTold = m_collection.position().starts_with(goneMark);
        const std::string cursor = m_collection.position().substr(isTold ? goneMark.size() : 0);
        // Whether it is there is asked of all entries: it may have been looked for by other marks then.
        const bool isThere = cursor.empty() || m_journal.seekBehind(cursor);
        matchEvents(m_journal, machineIdOf(m_collection.root()));
        if (cursor.empty()) return m_journal.seekLast(firstSpan);
        m_journal.seekBehind(cursor);
        if (isThere || isTold) return;
        m_collection.cannotRead(
            "the journal's entry up to which it was read: it is no more; those that came later are brought");
        m_collection.setPosition(std::string(goneMark) + cursor);
    }

    void add(const JournalEvent& found, const std::string& cursor) {
        QOREventRecord event;
        event.time = static_cast<std::int64_t>(m_journal.time() / microsecondsOfSecond);
        event.eid = m_collection.machine();
        event.id = QORGUIDBase::fromName(event.eid, "journal " + lastingName(cursor));
        event.source = "journal";
        event.category = found.category;
        event.info = found.info;
        m_collection.add(lineOf(event));
    }

    QORCollection& m_collection;
    Journal m_journal;
};

}  // namespace

JournalCollector::JournalCollector()
    : QORCollector(
          {.name = "journal", .source = "/var/log/journal and /run/log/journal", .every = std::chrono::minutes(1)}) {}

bool JournalCollector::collect(QORCollection& collection) {
    const JournalFiles files = findJournalFiles(collection.root());
    if (files.count == 0) return false;
    for (const std::string& file : files.unreadable)
        collection.cannotRead(file);
    JournalReading(collection).read();
    return true;
}

}  // namespace QOR
