#include "ingest/collectors/JournalCollector.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORTime.h"
#include "ingest/RecordLines.h"
#include "ingest/collectors/CollectedLeftOut.h"
#include "ingest/collectors/CollectedOperation.h"
#include "ingest/collectors/Journal.h"
#include "ingest/collectors/JournalEvent.h"

namespace QOR {
namespace {

constexpr std::uint64_t microsecondsOfSecond = 1'000'000;
constexpr std::uint64_t firstSpan = 7 * 24 * 60 * 60 * microsecondsOfSecond;
constexpr std::string_view goneMark = "~";  ///< before a cursor whose entry is no more, which has been told
constexpr std::string_view triedMark = "tried ";
constexpr std::int32_t mostTries = 3;

std::string machineIdOf(const std::filesystem::path& root) {
    std::ifstream file(root / "etc/machine-id");
    std::string id;
    std::getline(file, id);
    return id.size() == 32 ? id : std::string();
}

/// When the entry came, in microseconds since the epoch; 0 where its cursor does not tell.
std::uint64_t timeOfCursor(std::string_view cursor) {
    constexpr std::string_view mark = ";t=";
    const std::size_t at = cursor.find(mark);
    std::uint64_t time = 0;
    if (at == std::string_view::npos) return time;
    cursor.remove_prefix(at + mark.size());
    std::from_chars(cursor.data(), cursor.data() + cursor.size(), time, 16);
    return time;
}

/// Whether each of the files (JournalFiles::unreadableOnes()) is among the others.
bool areAmong(std::string_view files, const std::string& others) {
    const std::string all = "," + others + ",";
    while (!files.empty()) {
        const std::size_t end = std::min(files.find(','), files.size());
        if (all.find("," + std::string(files.substr(0, end)) + ",") == std::string::npos) return false;
        files.remove_prefix(std::min(end + 1, files.size()));
    }
    return true;
}

/// How far the journal has been read, as a position of four lines, of which the last ones are left out where they are
/// empty.
struct JournalPlace {
    explicit JournalPlace(std::string_view position) {
        const auto line = [&position] {
            const std::size_t end = std::min(position.find('\n'), position.size());
            const std::string_view first = position.substr(0, end);
            position.remove_prefix(std::min(end + 1, position.size()));
            return first;
        };
        cursor = line();
        isTold = cursor.starts_with(goneMark);
        if (isTold) cursor.erase(0, goneMark.size());
        reason = line();
        owed = line();
        reached = line();
    }
    std::string text() const {
        std::string text = (isTold ? std::string(goneMark) : std::string()) + cursor;
        text.append("\n").append(reason).append("\n").append(owed).append("\n").append(reached);
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
        return text;
    }
    /// How often what is owed has been read again; nothing where a change of the files is waited for.
    std::optional<std::int32_t> tries() const {
        if (!reason.starts_with(triedMark)) return std::nullopt;
        return parseInt32(std::string_view(reason).substr(triedMark.size()));
    }

    std::string cursor;   ///< of the last entry that was looked at
    bool isTold = false;  ///< that it is no more
    std::string
        reason;        ///< why entries are owed: the files that cannot be read, or triedMark and how often it was tried
    std::string owed;  ///< the cursor behind which they are
    std::string reached;  ///< the cursor of the last entry that had been looked at before what is owed was read again
};

/// A journal that is moved to other files numbers its entries anew: those numbers stand in front.
std::string lastingName(const std::string& cursor) {
    const std::size_t boot = cursor.find(";b=");
    return boot == std::string::npos ? cursor : cursor.substr(boot + 1);
}

class JournalReading {
public:
    JournalReading(QORCollection& collection, const JournalFiles& files, const JournalCollector::Bounds& most)
        : m_collection(collection),
          m_most(most),
          m_files(files),
          m_journal(files),
          m_before(collection.position()),
          m_place(m_before),
          m_isAgain(!m_before.reason.empty() &&
                    (m_before.tries() || !areAmong(m_before.reason, m_files.unreadableOnes()))),
          m_isLastTry(m_before.tries() == mostTries) {}

    void read() {
        if (m_isAgain) {
            m_place.cursor = m_before.owed;
            if (timeOfCursor(m_before.cursor) > timeOfCursor(m_before.reached)) m_place.reached = m_before.cursor;
        }
        m_reached = timeOfCursor(m_place.reached);
        begin();
        for (std::size_t count = 0; count < m_most.entries; ++count) {
            if (!m_journal.next()) {
                m_place.reached.clear();
                break;
            }
            if (m_collection.isStopping()) return;
            if (!readEntry()) break;
        }
        m_leftOut.tell(m_collection, "journal");
        m_isWhole = m_isWhole && m_journal.isWhole();
        if (!m_isWhole)
            m_collection.cannotRead("all of the journal: a file of it is damaged or was cut (journalctl --verify)");
        owe();
        m_collection.setPosition(m_place.text());
    }

private:
    void begin() {
        const std::string cursor = m_place.cursor;
        // Whether it is there is asked of all entries: it may have been looked for by other marks then.
        const bool isThere = cursor.empty() || m_journal.seekBehind(cursor);
        matchEvents(m_journal, machineIdOf(m_collection.root()));
        if (cursor.empty()) return m_journal.seekLast(firstSpan);
        m_journal.seekBehind(cursor);
        // Where files cannot be read, that is told, and where the entry is.
        if (isThere || m_place.isTold || m_isAgain || !m_files.unreadable().empty()) return;
        m_collection.cannotRead(
            "the journal's entry up to which it was read: it is no more; those that came later are brought");
        m_place.isTold = true;
    }

    /// \returns false where nothing more is to be believed
    bool readEntry() {
        try {
            const std::string cursor = m_journal.cursor();
            const std::optional<JournalEvent> event = readJournalEvent(m_journal);
            const auto time = static_cast<std::int64_t>(m_journal.time() / microsecondsOfSecond);
            if (m_journal.hasLostGround() && !m_isLastTry) return false;
            m_place.cursor = cursor;
            m_place.isTold = false;
            if (event) take(*event, lastingName(cursor), time);
        } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): one entry that is damaged is told of
            m_isWhole = false;
        }
        return true;
    }

    void take(const JournalEvent& event, const std::string& name, std::int64_t time) {
        // Which of these were brought before is not known: none of them may be counted as left out.
        if (m_reached != 0 && timeOfCursor(name) <= m_reached) return add(event, name, time);
        std::size_t& ofOne = m_speakers[event.speaker];
        if (m_brought >= m_most.events || ofOne >= m_most.ofOne) return m_leftOut.add(event.speaker, name, time);
        ++m_brought;
        ++ofOne;
        add(event, name, time);
    }

    void add(const JournalEvent& found, const std::string& name, std::int64_t time) {
        QOREventRecord event;
        event.time = time;
        event.eid = m_collection.machine();
        event.id = QORGUIDBase::fromName(event.eid, "journal " + name);
        event.source = "journal";
        event.category = found.category;
        event.info = found.info;
        m_collection.add(lineOf(event));
    }

    /// What could not be read is read again: where files cannot be opened, as soon as one of them can or is gone; where
    /// their content cannot be read, in the next runs.
    void owe() {
        const std::string begin = m_before.reason.empty() ? m_before.cursor : m_before.owed;
        const std::int32_t tries = m_before.tries().value_or(0);
        m_place.reason = m_files.unreadableOnes();
        if (m_place.reason.empty() && !m_isWhole && tries < mostTries)
            m_place.reason = std::string(triedMark) + std::to_string(tries + 1);
        m_place.owed = m_place.reason.empty() ? std::string() : begin;
    }

    QORCollection& m_collection;
    const JournalCollector::Bounds m_most;
    const JournalFiles& m_files;
    Journal m_journal;
    const JournalPlace m_before;
    JournalPlace m_place;
    const bool m_isAgain;    ///< what is owed is read now
    const bool m_isLastTry;  ///< then what can be read is taken, and what cannot is no longer waited for
    bool m_isWhole = true;
    std::uint64_t m_reached = 0;  ///< up to then entries are read again
    std::size_t m_brought = 0;
    std::map<std::string, std::size_t, std::less<>> m_speakers;
    CollectedLeftOut m_leftOut;
};

}  // namespace

JournalCollector::JournalCollector(Bounds most)
    : QORCollector(
          {.name = "journal", .source = "/var/log/journal and /run/log/journal", .every = std::chrono::minutes(1)}),
      m_most(most) {}

bool JournalCollector::collect(QORCollection& collection) {
    const JournalFiles files(collection.root());
    if (!files.areThere()) return false;
    for (const std::string& file : files.unreadable())
        collection.cannotRead(file);
    JournalReading(collection, files, m_most).read();
    return true;
}

}  // namespace QOR
