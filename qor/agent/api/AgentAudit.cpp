#include "agent/api/AgentAudit.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentTrace.h"

namespace QOR {
namespace {

constexpr std::size_t mostText = std::size_t{4} << 10;
constexpr unsigned refusedFrom = 400;
constexpr unsigned failedFrom = 500;

/// `2024-05-01T12:00:00.000Z`
std::string now() {
    timespec time{};
    ::clock_gettime(CLOCK_REALTIME, &time);
    tm parts{};
    ::gmtime_r(&time.tv_sec, &parts);
    char text[40];
    const std::size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + size, sizeof text - size, ".%03ldZ", time.tv_nsec / 1'000'000);
    return text;
}

/// Of any bytes a text that JSON can hold, and not too much of it.
std::string shown(std::string_view text) {
    std::string clean;
    while (!text.empty() && clean.size() < mostText) {
        const std::size_t good = utf8Prefix(text.substr(0, mostText));
        clean.append(text.substr(0, good));
        text.remove_prefix(good);
        if (text.empty() || clean.size() + 4 > mostText) break;
        clean += '?';
        text.remove_prefix(1);
    }
    return text.empty() ? clean : clean + "...";
}

void writeKnown(JsonWriter& json, std::string_view key, std::string_view text) {
    if (text.empty()) return;
    writeKey(json, key);
    writeText(json, shown(text));
}

void writePeer(JsonWriter& json, const HttpPeer& peer) {
    writeKnown(json, "from", peer.overTcp ? std::string_view(peer.address) : std::string_view("unix"));
    writeKnown(json, "certificate", peer.certificate);
    if (!peer.credentials) return;
    writeKey(json, "uid");
    json.Uint(peer.credentials->uid);
    writeKey(json, "pid");
    json.Int(peer.credentials->pid);
}

void writeNotes(JsonWriter& json, const QORRequestNotes& notes, bool literals) {
    writeKnown(json, "operator", notes.operatorName);
    writeKnown(json, "view", notes.view);
    if (!notes.fields.empty()) {
        writeKey(json, "fields");
        json.StartArray();
        for (const std::string& field : notes.fields)
            writeText(json, shown(field));
        json.EndArray();
    }
    // It was noted as the audit of then wanted it.
    if (literals || notes.conditions != QORRequestNotes::Conditions::Whole)
        writeKnown(json, "condition", notes.condition);
    writeKey(json, "rows");
    json.Int64(notes.rows);
    if (notes.stored + notes.refused > 0) {
        writeKey(json, "stored");
        json.Uint64(notes.stored);
        writeKey(json, "refused");
        json.Uint64(notes.refused);
    }
    if (notes.error == 0) return;
    writeKey(json, "error");
    json.Int(notes.error);
}

const char* outcomeOf(const HttpEnd& end, const AgentTrace* trace) {
    if (end.how == HttpEnd::How::Gone) return "client gone";
    if (end.how == HttpEnd::How::BrokenOff) return "broken off";
    if (end.status >= failedFrom) return "failed";
    if (end.status >= refusedFrom) return "refused";
    return trace != nullptr && trace->notes.error != 0 ? "error" : "answered";
}

std::string lossLine(std::uint64_t lines) {
    return R"({"time":")" + now() + R"(","lost":)" + std::to_string(lines) + "}";
}

}  // namespace

std::string_view knownMethod(std::string_view method) noexcept {
    for (const std::string_view known : {"GET", "HEAD", "POST", "PUT", "DELETE", "OPTIONS", "PATCH"}) {
        if (method == known) return known;
    }
    return "other";
}

std::string auditLine(const HttpEnd& end, const HttpPeer& peer, const AgentTrace* trace, bool literals) {
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeKnown(json, "time", now());
    if (trace != nullptr) writeKnown(json, "who", trace->who);
    if (trace != nullptr) writeKnown(json, "as", trace->as);
    writePeer(json, peer);
    if (trace != nullptr) {
        writeKnown(json, "method", trace->method);
        writeKnown(json, "route", trace->route.empty() ? "none" : trace->route);
        writeNotes(json, trace->notes, literals);
    }
    writeKey(json, "status");
    json.Uint(end.status);
    writeKey(json, "bytes");
    json.Uint64(end.bytes);
    writeKey(json, "ms");
    json.Double(static_cast<double>(end.time.count()) / 1000);
    writeKnown(json, "outcome", outcomeOf(end, trace));
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

AgentAudit::AgentAudit(Options options) : m_options(std::move(options)) {
    open();
    m_thread = std::thread([this] { work(); });
}

AgentAudit::~AgentAudit() {
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

void AgentAudit::open() {
    if (!isJournal()) {
        m_target = openOwnFile(m_options.target, O_WRONLY | O_CREAT | O_APPEND);
        return;
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (m_options.journal.size() >= sizeof address.sun_path)
        throw QORException(errFailure, "the journal's path is too long", QOR_SOURCE_PATH);
    std::memcpy(address.sun_path, m_options.journal.c_str(), m_options.journal.size());
    QORFileDescriptor opened(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (::connect(opened.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        throw QORException(errFailure, "there is no journal at " + m_options.journal + ": " + std::strerror(errno),
                           QOR_SOURCE_PATH);
    }
    m_target = std::move(opened);
}

void AgentAudit::add(std::string line) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_lines.size() >= m_options.mostLines) {
            ++m_counts.lost;
            ++m_untold;
            return;
        }
        m_lines.push_back(std::move(line));
    }
    m_changed.notify_one();
}

void AgentAudit::reopen() {
    {
        const std::lock_guard lock(m_mutex);
        m_reopen = true;
    }
    m_changed.notify_one();
}

AgentAudit::Counts AgentAudit::counts() const {
    const std::lock_guard lock(m_mutex);
    Counts counts = m_counts;
    counts.waiting = m_lines.size();
    return counts;
}

void AgentAudit::work() {
    std::unique_lock lock(m_mutex);
    for (bool last = false; !last;) {
        m_changed.wait(lock, [this] { return !m_lines.empty() || m_reopen || m_ending; });
        const bool anew = std::exchange(m_reopen, false);
        std::deque<std::string> lines;
        lines.swap(m_lines);
        last = m_ending;
        const std::uint64_t untold = std::exchange(m_untold, 0);
        lock.unlock();
        if (anew) openAnew();
        if (untold > 0) lines.push_front(lossLine(untold));
        const std::size_t written = writeLines(lines);
        if (written < lines.size()) complain();
        if (written == lines.size()) m_complained = false;
        lock.lock();
        m_counts.written += written;
        const bool told = untold == 0 || written > 0;
        const std::size_t lost = lines.size() - written - (told ? 0 : 1);
        m_counts.lost += lost;
        m_untold += lost + (told ? 0 : untold);
    }
}

void AgentAudit::openAnew() {
    try {
        open();
    } catch (const std::exception& exception) {
        logMessage(0, "QORAgent", QOR_SOURCE_PATH, "reopen", "%s; the audit goes on as before", exception.what());
    }
}

/// Once, until it works again.
void AgentAudit::complain() {
    const int reason = errno;
    if (std::exchange(m_complained, true)) return;
    logMessage(0, "QORAgent", QOR_SOURCE_PATH, "write",
               "lines of the audit are lost: %s; it tells how many when it goes on", std::strerror(reason));
}

/// \returns how many were written, from the first on
std::size_t AgentAudit::writeLines(const std::deque<std::string>& lines) {
    if (isJournal())
        return static_cast<std::size_t>(
            std::find_if_not(lines.begin(), lines.end(), [this](const std::string& line) { return send(line); }) -
            lines.begin());
    std::string text;
    if (m_torn && !lines.empty()) text = "\n";
    const std::size_t before = text.size();
    for (const std::string& line : lines)
        text.append(line) += '\n';
    std::string_view rest = text;
    while (!rest.empty()) {
        const ssize_t size = ::write(m_target.get(), rest.data(), rest.size());
        if (size < 0 && errno == EINTR) continue;
        if (size <= 0) break;
        rest.remove_prefix(static_cast<std::size_t>(size));
    }
    const std::string_view done = std::string_view(text).substr(0, text.size() - rest.size());
    if (!done.empty()) m_torn = done.back() != '\n';
    const std::string_view whole = done.substr(std::min(before, done.size()));
    return static_cast<std::size_t>(std::count(whole.begin(), whole.end(), '\n'));
}

/// As the journal takes entries: a field a line.
bool AgentAudit::send(const std::string& line) {
    const std::string entry = "SYSLOG_IDENTIFIER=qor-agent-audit\nPRIORITY=6\nMESSAGE=" + line + "\n";
    ssize_t sent = 0;
    do {
        sent = ::send(m_target.get(), entry.data(), entry.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(entry.size());
}

}  // namespace QOR
