#include "ingest/collectors/Journal.h"

#include <endian.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "QORCommon/QORText.h"
#include "QORCommon/QORUtf8.h"
#include "ingest/collectors/LoadedLibrary.h"
#include "ingest/collectors/MappedReading.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t longestField = 4096;
constexpr std::size_t maxName = 65;  ///< of a field, with the '='

/// The functions that read journals. Their library, which needs half a dozen others, is loaded when the first journal
/// is read: most programs never do.
class JournalLibrary : private LoadedLibrary {
public:
    static const JournalLibrary& instance() {
        static const JournalLibrary library;
        return library;
    }

private:
    JournalLibrary() : LoadedLibrary("libsystemd.so.0", "the journal cannot be read") {}

public:
    decltype(sd_journal_open_files)* const openFiles = find<decltype(sd_journal_open_files)>("sd_journal_open_files");
    decltype(sd_journal_close)* const close = find<decltype(sd_journal_close)>("sd_journal_close");
    decltype(sd_journal_set_data_threshold)* const setDataThreshold =
        find<decltype(sd_journal_set_data_threshold)>("sd_journal_set_data_threshold");
    decltype(sd_journal_add_match)* const addMatch = find<decltype(sd_journal_add_match)>("sd_journal_add_match");
    decltype(sd_journal_add_disjunction)* const addDisjunction =
        find<decltype(sd_journal_add_disjunction)>("sd_journal_add_disjunction");
    decltype(sd_journal_add_conjunction)* const addConjunction =
        find<decltype(sd_journal_add_conjunction)>("sd_journal_add_conjunction");
    decltype(sd_journal_seek_tail)* const seekTail = find<decltype(sd_journal_seek_tail)>("sd_journal_seek_tail");
    decltype(sd_journal_seek_realtime_usec)* const seekRealtimeUsec =
        find<decltype(sd_journal_seek_realtime_usec)>("sd_journal_seek_realtime_usec");
    decltype(sd_journal_seek_cursor)* const seekCursor =
        find<decltype(sd_journal_seek_cursor)>("sd_journal_seek_cursor");
    decltype(sd_journal_test_cursor)* const testCursor =
        find<decltype(sd_journal_test_cursor)>("sd_journal_test_cursor");
    decltype(sd_journal_previous)* const previous = find<decltype(sd_journal_previous)>("sd_journal_previous");
    decltype(sd_journal_next)* const next = find<decltype(sd_journal_next)>("sd_journal_next");
    decltype(sd_journal_get_data)* const getData = find<decltype(sd_journal_get_data)>("sd_journal_get_data");
    decltype(sd_journal_get_realtime_usec)* const getRealtimeUsec =
        find<decltype(sd_journal_get_realtime_usec)>("sd_journal_get_realtime_usec");
    decltype(sd_journal_get_cursor)* const getCursor = find<decltype(sd_journal_get_cursor)>("sd_journal_get_cursor");
    decltype(sd_journal_get_usage)* const getUsage = find<decltype(sd_journal_get_usage)>("sd_journal_get_usage");
};

int checked(int result, const char* what) {
    if (result < 0) throw std::system_error(-result, std::generic_category(), std::string("the journal: ") + what);
    return result;
}

/// Folders of journals are named after machines; others beside them are not read.
bool isMachineId(const std::string& name) {
    const auto isHex = [](char ch) { return (ch >= '0' && ch <= '9') || (ch >= 'a' && ch <= 'f'); };
    return name.size() == 32 && std::all_of(name.begin(), name.end(), isHex);
}

/// Those with a tilde were not closed in order, and put aside.
bool isJournal(const fs::path& path) {
    return path.extension() == ".journal" || path.extension() == ".journal~";
}

/// Damage has codes that would tell people of something else.
std::string reasonOf(int error) {
    switch (error) {
        case EBADMSG:
        case ENODATA:
        case EIO:
        case ESHUTDOWN:
        case EADDRNOTAVAIL:
            return "it is damaged or cut (journalctl --verify)";
        case EPROTONOSUPPORT:
            return "it is of a kind that the installed libsystemd does not know";
        default:
            return std::generic_category().message(error);
    }
}

/// What a journal's file must have at least, as its header tells: when it is put aside, what it has beyond that is cut
/// off in good order. \returns a size that no file has where the header cannot be read
std::int64_t usedBytes(int descriptor) {
    constexpr off_t placeOfSizes = 88;  // of the header, and of what follows it
    std::array<std::uint64_t, 2> sizes{};
    if (::pread(descriptor, sizes.data(), sizeof(sizes), placeOfSizes) != sizeof(sizes))
        return std::numeric_limits<std::int64_t>::max();
    return static_cast<std::int64_t>(le64toh(sizes[0]) + le64toh(sizes[1]));
}

/// They are opened anew, since the library closes what it reads, but not by their names, which change when journals are
/// rotated. \returns null where one of them is no sound journal, and why: errno
sd_journal* openTogether(const std::vector<int>& descriptors, int& error) {
    std::vector<std::string> places;
    places.reserve(descriptors.size());
    for (const int descriptor : descriptors)
        places.push_back("/proc/self/fd/" + std::to_string(descriptor));
    std::vector<const char*> paths;
    paths.reserve(places.size() + 1);
    for (const std::string& place : places)
        paths.push_back(place.c_str());
    paths.push_back(nullptr);
    const MappedReading reading;
    sd_journal* journal = nullptr;
    error = -JournalLibrary::instance().openFiles(&journal, paths.data(), 0);
    if (error <= 0 && reading.hasFailed()) error = EIO;
    if (error <= 0) return journal;
    if (journal != nullptr) JournalLibrary::instance().close(journal);
    return nullptr;
}

}  // namespace

void JournalFiles::findAll(const fs::path& root) {
    for (const char* const place : {"var/log/journal", "run/log/journal"}) {
        find(root / place);
        std::error_code error;
        for (fs::directory_iterator entry(root / place, error), end; !error && entry != end; entry.increment(error)) {
            if (isMachineId(entry->path().filename().string())) find(entry->path());
        }
    }
}

JournalFiles::JournalFiles(const fs::path& root) {
    findAll(root);
    if (m_hasMissedOne) {  // by its new name it may not have been met
        m_files.clear();
        m_unreadable.clear();
        m_unreadableIds.clear();
        findAll(root);
    }
    int error = 0;
    if (m_files.empty()) return;
    if (sd_journal* const journal = openTogether(descriptors(), error)) {
        JournalLibrary::instance().close(journal);
        return;
    }
    // One alone makes all of them fail.
    std::vector<File> sound;
    for (File& file : m_files) {
        if (sd_journal* const journal = openTogether({file.descriptor.get()}, error)) {
            JournalLibrary::instance().close(journal);
            sound.push_back(std::move(file));
        } else {
            leaveOut(file.path, error);
        }
    }
    m_files = std::move(sound);
}

void JournalFiles::find(const fs::path& folder) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        if (isJournal(entry->path())) add(entry->path());
    }
    if (error && error != std::errc::no_such_file_or_directory) leaveOut(folder.string(), error.value());
}

void JournalFiles::add(const fs::path& path) {
    QORFileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (descriptor.get() < 0 || ::fstat(descriptor.get(), &status) != 0) {
        if (errno != ENOENT) return leaveOut(path.string(), errno);
        m_hasMissedOne = true;
        return;
    }
    if (S_ISREG(status.st_mode)) m_files.push_back({path.string(), std::move(descriptor), status.st_size});
}

void JournalFiles::leaveOut(const std::string& path, int error) {
    m_unreadable.push_back(toUtf8(path) + ": " + reasonOf(error));
    struct stat status {};
    const bool isThere = ::stat(path.c_str(), &status) == 0;
    m_unreadableIds.push_back(isThere ? std::to_string(status.st_ino) : toUtf8(path));
}

std::string JournalFiles::unreadableOnes() const {
    std::vector<std::string> ids = m_unreadableIds;
    std::sort(ids.begin(), ids.end());
    return joinTexts(ids, ",");
}

std::vector<int> JournalFiles::descriptors() const {
    std::vector<int> descriptors;
    for (const File& file : m_files)
        descriptors.push_back(file.descriptor.get());
    return descriptors;
}

Journal::Journal(const JournalFiles& files) : m_files(files), m_journal(nullptr, &close) {
    int error = 0;
    m_journal.reset(openTogether(files.descriptors(), error));
    if (m_journal == nullptr) checked(-error, "it cannot be opened");
    checked(ask(JournalLibrary::instance().setDataThreshold, longestField), "the length of fields");
}

template <class Function, class... Arguments>
int Journal::ask(Function* function, Arguments... arguments) const {
    const MappedReading reading;
    const int result = function(m_journal.get(), arguments...);
    m_hasLostGround = m_hasLostGround || reading.hasFailed();
    return result;
}

void Journal::close(sd_journal* journal) {
    JournalLibrary::instance().close(journal);
}

bool Journal::isWhole() const {
    // The library drops files that it finds damaged, and says so only by what those that are left take up. Theirs is
    // looked at before: they grow meanwhile.
    std::uint64_t present = 0;
    bool isCut = false;
    for (const JournalFiles::File& file : m_files.m_files) {
        struct stat status {};
        if (::fstat(file.descriptor.get(), &status) != 0) return false;
        present += static_cast<std::uint64_t>(status.st_blocks) * S_BLKSIZE;
        isCut = isCut || (status.st_size < file.size && status.st_size < usedBytes(file.descriptor.get()));
    }
    std::uint64_t left = 0;
    checked(ask(JournalLibrary::instance().getUsage, &left), "its size");
    return !m_hasLostGround && !isCut && left >= present;
}

void Journal::match(std::string_view field, std::string_view value) {
    const std::string text = std::string(field).append("=").append(value);
    checked(ask(JournalLibrary::instance().addMatch, text.data(), text.size()), "what is to be read");
}

void Journal::orMatch() {
    checked(ask(JournalLibrary::instance().addDisjunction), "what is to be read");
}

void Journal::andMatch() {
    checked(ask(JournalLibrary::instance().addConjunction), "what is to be read");
}

void Journal::seekLast(std::uint64_t microseconds) {
    m_stands = false;
    checked(ask(JournalLibrary::instance().seekTail), "going to the end");
    if (checked(ask(JournalLibrary::instance().previous), "going back") == 0) return;
    const std::uint64_t last = time();
    checked(ask(JournalLibrary::instance().seekRealtimeUsec, last - std::min(last, microseconds)), "going to a time");
}

bool Journal::seekBehind(const std::string& cursor) {
    m_stands = false;
    checked(ask(JournalLibrary::instance().seekCursor, cursor.c_str()), "going to an entry");
    if (!step()) return false;
    if (checked(ask(JournalLibrary::instance().testCursor, cursor.c_str()), "comparing entries") > 0) return true;
    m_stands = true;
    return false;
}

bool Journal::next() {
    if (m_stands) {
        m_stands = false;
        return true;
    }
    return step();
}

bool Journal::step() {
    return checked(ask(JournalLibrary::instance().next), "going on") > 0;
}

std::string Journal::field(const char* name) const {
    const void* data = nullptr;
    std::size_t size = 0;
    if (ask(JournalLibrary::instance().getData, name, &data, &size) < 0) return {};
    const std::string_view text(static_cast<const char*>(data), size);
    std::string copy(std::min(text.size(), longestField + maxName), '\0');
    {
        const MappedReading reading;
        text.copy(copy.data(), copy.size());
        m_hasLostGround = m_hasLostGround || reading.hasFailed();
    }
    copy.erase(0, std::min(copy.find('=') + 1, copy.size()));
    copy.resize(std::min(copy.size(), longestField));
    return copy;
}

std::uint64_t Journal::time() const {
    std::uint64_t time = 0;
    checked(ask(JournalLibrary::instance().getRealtimeUsec, &time), "the time of an entry");
    return time;
}

std::string Journal::cursor() const {
    char* text = nullptr;
    checked(ask(JournalLibrary::instance().getCursor, &text), "the place of an entry");
    const std::unique_ptr<char, void (*)(void*)> owner(text, &std::free);
    return text;
}

}  // namespace QOR
