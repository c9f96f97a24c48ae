// The collector "alternatives": an event for each line of the log of Debian's alternatives,
//
//     update-alternatives 2024-05-01 12:00:00: link group vi updated to point to /usr/bin/vim.basic
//
// read on from where the last run came, also when the log has been rotated meanwhile.
#include <QORCommon/QORGuid.h>
#include <QORCommon/QORText.h>
#include <QORCommon/QORTime.h>
#include <QORCommon/QORUtf8.h>
#include <QORFunctionality/QORCollector.h>
#include <QORFunctionality/QORPlugIn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

namespace {

using namespace QOR;

/// How far a log has been read. Its number is the file's own, so that it stays the same when the file is renamed.
struct Place {
    std::uint64_t file = 0;
    std::int64_t offset = 0;

    static Place of(const std::string& position) {
        Place place;
        std::istringstream text(position);
        return text >> place.file >> place.offset && place.offset >= 0 ? place : Place{};
    }
    std::string text() const { return std::to_string(file) + ' ' + std::to_string(offset); }
};

class Log {
public:
    /// What is no plain file, a pipe for instance, could keep a reader waiting for ever.
    explicit Log(const std::filesystem::path& path)
        : m_handle(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {
        struct stat state {};
        if (m_handle < 0 || ::fstat(m_handle, &state) != 0 || !S_ISREG(state.st_mode)) return;
        m_file = state.st_ino;
        m_size = state.st_size;
    }
    ~Log() {
        if (m_handle >= 0) ::close(m_handle);
    }
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    bool isThere() const { return m_file != 0; }
    std::uint64_t file() const { return m_file; }

    /// Hands over the lines from a place on, and moves it behind each. The last one may still be written: it is left
    /// for the next run unless it has its end.
    template <class TakeLine>
    void read(Place& place, const QORCollection& collection, const TakeLine& take) const {
        if (place.file != m_file || place.offset > m_size) place = {m_file, 0};
        std::string text;
        std::array<char, 65536> block;
        for (std::int64_t at = place.offset; !collection.isStopping();) {
            const ssize_t size = ::pread(m_handle, block.data(), block.size(), at);
            if (size <= 0) return;
            at += size;
            text.append(block.data(), static_cast<std::size_t>(size));
            std::size_t begin = 0;
            for (std::size_t end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
                take(std::string_view(text).substr(begin, end - begin));
                place.offset += static_cast<std::int64_t>(end + 1 - begin);
            }
            text.erase(0, begin);
            if (text.size() > longest) {  // no line of this log: its rest will make no sense either
                take(text);
                place.offset = at;
                text.clear();
            }
        }
    }

private:
    static constexpr std::size_t longest = std::size_t{1} << 20;
    int m_handle;
    std::uint64_t m_file = 0;
    std::int64_t m_size = 0;
};

class Alternatives final : public QORCollector {
public:
    Alternatives() : QORCollector({.name = "alternatives", .source = "/var/log/alternatives.log"}) {}

    bool collect(QORCollection& collection) override {
        const std::filesystem::path path = collection.root() / "var/log/alternatives.log";
        const Log log(path);
        if (!log.isThere()) return false;
        Place place = Place::of(collection.position());
        const auto take = [&](std::string_view line) { takeLine(collection, line); };
        if (place.file != log.file()) {  // what was written to the earlier log after it was read
            const Log earlier(path.string() + ".1");
            if (earlier.isThere()) earlier.read(place, collection, take);
        }
        log.read(place, collection, take);
        collection.setPosition(place.text());
        return true;
    }

private:
    static void takeLine(QORCollection& collection, std::string_view line) {
        constexpr std::string_view program = "update-alternatives ";
        constexpr std::size_t timeLength = 19;
        constexpr std::size_t longestText = 4096;
        if (!line.starts_with(program)) return collection.passOver(1);
        line.remove_prefix(program.size());
        const auto time = parseTime(line.substr(0, timeLength));
        if (!time || line.size() < timeLength + 2 || line.size() > longestText) return collection.passOver(1);
        // The same whenever the line is read: what is read twice is stored once.
        const std::string id = QORGUIDBase::fromName(collection.machine(), line).toString();
        std::string record = R"({"kind":"event","id":")" + id + R"(","time":)" + std::to_string(*time) + R"(,"eid":")" +
                             collection.machine().toString() +
                             R"(","source":"alternatives","category":"env_status","info":{"message":)";
        appendJsonString(toUtf8(line.substr(timeLength + 2)), record);
        collection.add(record + "}}");
    }
};

Alternatives alternatives;

}  // namespace

int initQORPlugIn() {
    return 0;
}
int finiQORPlugIn() {
    return 0;
}
