#include "ingest/collectors/Journal.h"

#include <dlfcn.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "QORCommon/QORUtf8.h"

namespace QOR {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t longestField = 4096;

/// The functions that read journals. Their library, which needs half a dozen others, is loaded when the first journal
/// is read: most programs never do.
class JournalLibrary {
public:
    static const JournalLibrary& instance() {
        static const JournalLibrary library;
        return library;
    }

private:
    template <class Function>
    Function* find(const char* name) const {
        void* const symbol = ::dlsym(m_handle, name);
        if (symbol == nullptr) throw std::runtime_error(std::string("the journal cannot be read: ") + ::dlerror());
        return reinterpret_cast<Function*>(symbol);
    }
    static void* load() {
        void* const handle = ::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) throw std::runtime_error(std::string("the journal cannot be read: ") + ::dlerror());
        return handle;
    }

    void* const m_handle = load();

public:
    decltype(sd_journal_open_directory)* const openDirectory =
        find<decltype(sd_journal_open_directory)>("sd_journal_open_directory");
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

void addFiles(const fs::path& folder, JournalFiles& files) {
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        if (entry->path().extension() != ".journal") continue;
        ++files.count;
        if (::access(entry->path().c_str(), R_OK) != 0)
            files.unreadable.push_back(toUtf8(entry->path().string()) + ": " + std::generic_category().message(errno));
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        ++files.count;
        files.unreadable.push_back(toUtf8(folder.string()) + ": " + error.message());
    }
}

}  // namespace

JournalFiles findJournalFiles(const fs::path& root) {
    JournalFiles files;
    for (const char* const place : {"var/log/journal", "run/log/journal"}) {
        std::error_code error;
        for (fs::directory_iterator entry(root / place, error), end; !error && entry != end; entry.increment(error)) {
            if (isMachineId(entry->path().filename().string())) addFiles(entry->path(), files);
        }
    }
    return files;
}

Journal::Journal(const fs::path& root) : m_journal(nullptr, &close) {
    sd_journal* journal = nullptr;
    checked(JournalLibrary::instance().openDirectory(&journal, root.c_str(), SD_JOURNAL_OS_ROOT),
            "it cannot be opened");
    m_journal.reset(journal);
    checked(JournalLibrary::instance().setDataThreshold(journal, longestField), "the length of fields");
}

void Journal::close(sd_journal* journal) {
    JournalLibrary::instance().close(journal);
}

void Journal::match(std::string_view field, std::string_view value) {
    const std::string text = std::string(field).append("=").append(value);
    checked(JournalLibrary::instance().addMatch(m_journal.get(), text.data(), text.size()), "what is to be read");
}

void Journal::orMatch() {
    checked(JournalLibrary::instance().addDisjunction(m_journal.get()), "what is to be read");
}

void Journal::andMatch() {
    checked(JournalLibrary::instance().addConjunction(m_journal.get()), "what is to be read");
}

void Journal::seekLast(std::uint64_t microseconds) {
    m_stands = false;
    checked(JournalLibrary::instance().seekTail(m_journal.get()), "going to the end");
    if (checked(JournalLibrary::instance().previous(m_journal.get()), "going back") == 0) return;
    const std::uint64_t last = time();
    checked(JournalLibrary::instance().seekRealtimeUsec(m_journal.get(), last - std::min(last, microseconds)),
            "going to a time");
}

bool Journal::seekBehind(const std::string& cursor) {
    m_stands = false;
    checked(JournalLibrary::instance().seekCursor(m_journal.get(), cursor.c_str()), "going to an entry");
    if (!step()) return false;
    if (checked(JournalLibrary::instance().testCursor(m_journal.get(), cursor.c_str()), "comparing entries") > 0)
        return true;
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
    return checked(JournalLibrary::instance().next(m_journal.get()), "going on") > 0;
}

std::string Journal::field(const char* name) const {
    const void* data = nullptr;
    std::size_t size = 0;
    if (JournalLibrary::instance().getData(m_journal.get(), name, &data, &size) < 0) return {};
    const std::string_view text(static_cast<const char*>(data), size);
    return std::string(text.substr(std::min(text.find('=') + 1, size), longestField));
}

std::uint64_t Journal::time() const {
    std::uint64_t time = 0;
    checked(JournalLibrary::instance().getRealtimeUsec(m_journal.get(), &time), "the time of an entry");
    return time;
}

std::string Journal::cursor() const {
    char* text = nullptr;
    checked(JournalLibrary::instance().getCursor(m_journal.get(), &text), "the place of an entry");
    const std::unique_ptr<char, void (*)(void*)> owner(text, &std::free);
    return text;
}

}  // namespace QOR
