#include "forward/QORForwarder.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <stop_token>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORChangeWatch.h"
#include "QORLibAgent/QORSecurity.h"
#include "forward/ForwardLines.h"
#include "forward/ForwardPause.h"
#include "forward/ForwardPosition.h"
#include "forward/ForwardReply.h"
#include "gzip/HttpGzip.h"

namespace QOR {
namespace {

constexpr const char* path = "/v1/records";

/// Records of one request, and the bytes from which on no further ones are added.
constexpr std::size_t mostRecords = 1000;
constexpr std::size_t enoughBytes = std::size_t{4} << 20;
/// Records whose lines are made at once, since each may be large.
constexpr std::size_t recordsAtOnce = 50;
/// Behind a record that was refused, so few are sent at first: others like it may follow.
constexpr std::size_t fewRecords = 16;
constexpr auto betweenLooks = std::chrono::milliseconds(250);
constexpr auto betweenOffers = std::chrono::hours(1);
constexpr std::size_t mostOffered = 500;

using Clock = std::chrono::steady_clock;

/// What has been read to be sent.
struct Batch {
    std::vector<ForwardLine> lines;
    QORChangePosition position;  ///< behind them
    std::uint64_t missing = 0;
    bool reset = false;
    bool atEnd = false;
};

/// Why nothing more is sent for now.
struct Failure {
    std::string reason;
    std::uint64_t retryAfter = 0;
};

QORRowAccess everything() {
    QORClientContext context;
    context.fullAccess = true;
    return QORRowAccess(context);
}

void requireReadable(const std::string& option, const std::string& file) {
    if (file.empty() || std::ifstream(file).good()) return;
    throw QORException(errFailure, option + ": " + file + " cannot be read", QOR_SOURCE_PATH);
}

}  // namespace

class QORForwarder::Run {
public:
    explicit Run(QORForwardOptions options)
        : m_options(std::move(options)),
          m_target(m_options.target.address.text()),
          m_stored(m_target),
          m_connection(m_options.target),
          m_pause(m_options.longestPause) {
        requireReadable("--forward-token", m_options.target.tokenFile);
        requireReadable("--forward-ca", m_options.target.authority);
        m_position = m_stored.read();
        m_stream = ForwardPosition::stream();
        m_state.target = m_target;
        m_state.refused = m_stored.countRefused();
        m_behind = m_stored.behind();
        if (m_behind) m_level -= std::chrono::seconds(std::max<std::int64_t>(currentTime() - *m_behind, 0));
        m_stored.note(m_options.keep, m_behind);
    }

    void start(QORChangeWatch& changes) {
        m_thread = std::jthread([this, &changes](const std::stop_token& stop) { work(changes, stop); });
    }
    void stop() {
        if (!m_thread.joinable()) return;
        m_thread.request_stop();
        m_thread.join();
    }

    QORForwardState state() const {
        const std::lock_guard lock(m_mutex);
        QORForwardState state = m_state;
        if (state.behind > 0)
            state.seconds = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_level).count();
        return state;
    }
    QORChangePosition position() const {
        const std::lock_guard lock(m_mutex);
        return m_position;
    }

    void look() {
        std::vector<std::string> away;
        const QORChangePosition end = QORChangeReader::knownEnd(away);
        const std::lock_guard lock(m_mutex);
        for (const auto& [server, last] : end)
            m_end[server] = last;
        m_state.behind = 0;
        for (const auto& [server, last] : m_end) {
            const bool isThere = end.contains(server) || std::find(away.begin(), away.end(), server) != away.end();
            if (isThere) m_state.behind += unsent(server);
        }
        m_state.away = std::move(away);
        if (m_state.behind == 0 && m_state.away.empty()) m_level = Clock::now();
    }

private:
    /// Changes that the server is known to tell of and that have not been taken. m_mutex is held.
    std::uint64_t unsent(const std::string& server) const {
        const auto last = m_end.find(server);
        const auto at = m_position.find(server);
        const std::int64_t from = at == m_position.end() ? 0 : at->second;
        return last == m_end.end() || last->second < from ? 0 : static_cast<std::uint64_t>(last->second - from);
    }

    void work(QORChangeWatch& changes, const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            const std::uint64_t seen = changes.seen();
            try {
                const bool more = step(stop);
                succeeded();
                if (more) continue;
                while (!stop.stop_requested() && changes.seen() == seen && !isTimeToOffer())
                    changes.await(seen, betweenLooks);
            } catch (const Failure& failure) {
                failed(failure, stop);
            } catch (const std::exception& failure) {
                failed({failure.what(), 0}, stop);
            }
        }
    }

    /// \returns whether there may be more to send at once
    bool step(const std::stop_token& stop) {
        look();
        noteTarget();
        const Batch batch = read();
        if (!batch.lines.empty()) {
            const std::vector<ForwardRefused> refused = send(batch.lines, stop);
            store(batch, refused);
            return true;
        }
        if (batch.position != position()) store(batch, {});
        if (!batch.atEnd) return true;
        look();
        if (!isTimeToOffer()) return false;
        m_offered = Clock::now();
        return offerAgain(stop);
    }

    /// That this agent sends there, and since when something waits where that is for longer than moments.
    void noteTarget() {
        constexpr std::int64_t moments = 60;
        const std::int64_t seconds = state().seconds;
        std::optional<std::int64_t> behind;
        if (seconds >= moments) behind = m_behind ? *m_behind : currentTime() - seconds;
        if (behind == m_behind && Clock::now() - m_noted < betweenOffers / 2) return;
        m_stored.note(m_options.keep, behind);
        m_behind = behind;
        m_noted = Clock::now();
    }

    Batch read() const {
        Batch batch;
        QORChangeReader reader(
            {QORChangeKind::Environment, QORChangeKind::Operation, QORChangeKind::Event, QORChangeKind::Backup},
            position());
        const QORRecordChanges changes = reader.read(everything(), mostRecords);
        batch.reset = changes.reset;
        const std::vector<QORRecordChange> records = firstPlaces(changes.records);
        std::size_t bytes = 0;
        std::size_t taken = 0;
        while (taken < records.size() && bytes < enoughBytes) {
            const std::size_t end = std::min(taken + recordsAtOnce, records.size());
            const std::vector<QORRecordChange> some(records.begin() + static_cast<std::ptrdiff_t>(taken),
                                                    records.begin() + static_cast<std::ptrdiff_t>(end));
            std::vector<ForwardLine> lines = readForwardLines(some, m_stream);
            batch.missing += some.size() - lines.size();  // removed since they were told of
            for (ForwardLine& line : lines) {
                bytes += line.text.size();
                batch.lines.push_back(std::move(line));
            }
            taken = end;
        }
        const QORChangePosition sent = position();
        const auto atHome = sent.find(std::string_view());
        putEnvironmentsAhead(batch.lines, atHome == sent.end() ? 0 : atHome->second);
        if (taken == records.size()) {
            batch.position = reader.position();
            batch.missing += changes.missing;
            batch.atEnd = changes.atEnd;
            return batch;
        }
        // Up to the last that was taken: of each server changes are told in their order.
        for (const auto& [server, behind] : reader.position()) {
            const auto before = sent.find(server);  // behind that it stands only where the database was put back
            if (before != sent.end()) batch.position.emplace(server, std::min(before->second, behind));
        }
        std::map<std::string_view, std::uint64_t> missing;
        for (std::size_t at = 0; at < taken; ++at) {
            batch.position[records[at].server] = records[at].number;
            missing[records[at].server] = records[at].missing;
        }
        for (const auto& [server, changesThere] : missing)
            batch.missing += changesThere;
        return batch;
    }

    /// A record that changed several times leaves once, at its first place: what comes behind may need it.
    static std::vector<QORRecordChange> firstPlaces(const std::vector<QORRecordChange>& all) {
        std::set<std::tuple<std::string_view, QORChangeKind, std::string_view>> known;
        std::vector<QORRecordChange> first;
        for (const QORRecordChange& one : all) {
            if (known.emplace(one.server, one.kind, one.id).second) first.push_back(one);
        }
        return first;
    }

    /// \returns what the other side does not want \throws Failure when the rest was not taken
    std::vector<ForwardRefused> send(std::span<const ForwardLine> lines, const std::stop_token& stop) {
        std::vector<ForwardRefused> refused;
        std::size_t window = lines.size();
        while (!lines.empty()) {
            const auto some = lines.first(std::min(window, lines.size()));
            const ForwardOutcome outcome = sendOnce(some, stop);
            std::size_t done = 0;
            switch (outcome.what) {
                case ForwardOutcome::What::Taken:
                    for (const auto& [line, reason] : outcome.refused)
                        refused.push_back({some[line - 1].record, reason});
                    done = some.size();
                    window = std::min(window * 2, mostRecords);
                    break;
                case ForwardOutcome::What::Refused:
                    done = pass(some, outcome, refused, window);
                    break;
                case ForwardOutcome::What::TooLarge:
                    if (some.size() > 1) {
                        window = some.size() / 2;
                        break;
                    }
                    refused.push_back({some.front().record, outcome.reason});
                    done = 1;
                    break;
                case ForwardOutcome::What::Failed:
                    throw Failure{outcome.reason, m_retryAfter};
            }
            lines = lines.subspan(done);
        }
        noteRefused(refused);
        return refused;
    }

    void noteRefused(std::span<const ForwardRefused> refused) const {
        constexpr std::size_t mostNamed = 5;
        for (const ForwardRefused& one : refused.first(std::min(refused.size(), mostNamed)))
            logMessage(1, "QORForward", QOR_SOURCE_PATH, "send", "%s does not take %s: %s", m_target.c_str(),
                       one.record.id.c_str(), one.reason.c_str());
        if (refused.size() > mostNamed)
            logMessage(1, "QORForward", QOR_SOURCE_PATH, "send", "%s does not take %zu others", m_target.c_str(),
                       refused.size() - mostNamed);
    }

    void noteForgotten(std::uint64_t number) const {
        if (number == 0) return;
        logMessage(1, "QORForward", QOR_SOURCE_PATH, "store",
                   "%llu records that %s does not take are not offered to it again: more than %zu are refused",
                   static_cast<unsigned long long>(number), m_target.c_str(), ForwardPosition::mostRefused);
    }

    /// Nothing of the request was stored because of one record. \returns how many are done with
    static std::size_t pass(std::span<const ForwardLine> some, const ForwardOutcome& outcome,
                            std::vector<ForwardRefused>& refused, std::size_t& window) {
        const auto& [line, reason] = outcome.refused.front();
        if (line > 1) {  // those before it first
            window = line - 1;
            return 0;
        }
        refused.push_back({some.front().record, reason});
        window = fewRecords;
        return 1;
    }

    ForwardOutcome sendOnce(std::span<const ForwardLine> lines, const std::stop_token& stop) {
        HttpGzip gzip;
        std::string packed;
        for (const ForwardLine& line : lines)
            packed += gzip.put(line.text);
        packed += gzip.finish();
        const ForwardReply reply = m_connection.post(path, packed, stop);
        m_retryAfter = reply.retryAfter;
        return outcomeOf(reply, lines.size());
    }

    void store(const Batch& batch, const std::vector<ForwardRefused>& refused) {
        const std::vector<std::string> gone = goneBy(batch.position);
        const std::uint64_t forgotten = m_stored.store(batch.position, gone, refused);
        noteForgotten(forgotten);
        std::optional<std::uint64_t> left;
        if (!gone.empty() || !refused.empty()) left = m_stored.countRefused();
        if (batch.missing > 0 || batch.reset) noteMissing(batch);  // once: until here it may be read again
        const std::lock_guard lock(m_mutex);
        for (const std::string& server : gone)
            forget(server);
        m_position = batch.position;
        m_state.taken += batch.lines.size() - refused.size();
        m_state.refused = left.value_or(m_state.refused);
        m_state.forgotten += forgotten;
    }

    /// Servers of which it is known how far they were sent, and which the later position does not have any more.
    std::vector<std::string> goneBy(const QORChangePosition& later) const {
        std::vector<std::string> gone;
        for (const auto& [server, behind] : position()) {
            if (!later.contains(server)) gone.push_back(server);
        }
        return gone;
    }

    /// Nobody can send any more what was not sent of it. Of a server that went before this process saw it nobody can
    /// tell either how much that is. m_mutex is held.
    void forget(const std::string& server) {
        const bool isKnown = m_end.contains(server);
        const std::uint64_t left = isKnown ? unsent(server) : 0;
        const std::string number = isKnown ? std::to_string(left) + " changes" : "an unknown number of changes";
        logMessage(left > 0 || !isKnown ? 1 : 2, "QORForward", QOR_SOURCE_PATH, "store",
                   "server \"%s\" is none of the database's any more: %s of it were not sent to %s", server.c_str(),
                   number.c_str(), m_target.c_str());
        m_state.missing += left;
        m_end.erase(server);
    }

    bool isTimeToOffer() const { return !m_offered || Clock::now() - *m_offered >= betweenOffers; }

    /// What was refused may be wanted now: somebody may have been given a right. \returns whether anything was sent
    bool offerAgain(const std::stop_token& stop) {
        const std::vector<ForwardRefused> offered = m_stored.refused(mostOffered);
        if (offered.empty()) return false;
        std::vector<QORRecordChange> records;
        records.reserve(offered.size());
        for (const ForwardRefused& one : offered)
            records.push_back(one.record);
        const std::vector<ForwardLine> lines = readForwardLines(records, m_stream);
        const std::vector<ForwardRefused> again = send(lines, stop);
        const std::uint64_t forgotten = m_stored.settle(offered, again);
        noteForgotten(forgotten);
        const std::uint64_t left = m_stored.countRefused();
        const std::lock_guard lock(m_mutex);
        m_state.refused = left;
        m_state.forgotten += forgotten;
        m_state.taken += lines.size() - again.size();
        return true;
    }

    void noteMissing(const Batch& batch) {
        if (batch.reset) {
            logMessage(1, "QORForward", QOR_SOURCE_PATH, "read",
                       "the database was put back to an earlier state: what changes from now on is sent to %s",
                       m_target.c_str());
        }
        if (batch.missing > 0) {
            logMessage(2, "QORForward", QOR_SOURCE_PATH, "read",
                       "%llu changes of records that are gone by now are not sent to %s",
                       static_cast<unsigned long long>(batch.missing), m_target.c_str());
        }
        const std::lock_guard lock(m_mutex);
        m_state.missing += batch.missing;
    }

    void succeeded() {
        m_pause.reset();
        const std::lock_guard lock(m_mutex);
        m_state.lastSuccess = currentTime();
        if (std::exchange(m_state.failure, {}).empty()) return;
        logMessage(2, "QORForward", QOR_SOURCE_PATH, "work", "records are sent to %s again", m_target.c_str());
    }

    void failed(const Failure& failure, const std::stop_token& stop) {
        if (stop.stop_requested()) return;
        std::unique_lock lock(m_mutex);
        ++m_state.failures;
        m_state.lastFailure = currentTime();
        m_state.lastError = failure.reason;
        if (m_state.failure != failure.reason)
            logMessage(1, "QORForward", QOR_SOURCE_PATH, "work", "records are not taken by %s, and wait: %s",
                       m_target.c_str(), failure.reason.c_str());
        m_state.failure = failure.reason;
        m_waiting.wait_for(lock, stop, m_pause.next(failure.retryAfter), [] { return false; });
    }

    const QORForwardOptions m_options;
    const std::string m_target;
    const ForwardPosition m_stored;
    // The thread's.
    ForwardConnection m_connection;
    ForwardPause m_pause;
    QORGUIDBase m_stream;
    std::uint64_t m_retryAfter = 0;
    std::optional<std::int64_t> m_behind;  ///< as it was noted last
    Clock::time_point m_noted = Clock::now();
    std::optional<Clock::time_point> m_offered;  ///< when what was refused was sent again; nothing: not yet

    mutable std::mutex m_mutex;
    std::condition_variable_any m_waiting;
    QORChangePosition m_position;              // guarded by m_mutex
    QORChangePosition m_end;                   // guarded by m_mutex; as far as it is known
    QORForwardState m_state;                   // guarded by m_mutex
    Clock::time_point m_level = Clock::now();  // guarded by m_mutex; when everything had been taken
    std::jthread m_thread;
};

QORForwarder::QORForwarder(QORForwardOptions options) : m_run(std::make_unique<Run>(std::move(options))) {}

QORForwarder::~QORForwarder() {
    stop();
}

void QORForwarder::start(QORChangeWatch& changes) {
    m_run->start(changes);
}

void QORForwarder::stop() {
    m_run->stop();
}

QORForwardState QORForwarder::state() const {
    return m_run->state();
}

void QORForwarder::look() {
    m_run->look();
}

}  // namespace QOR
