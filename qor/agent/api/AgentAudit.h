/// \file
/// Who asked what: a line of JSON for each request, in a file or in the system's journal.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "QORCommon/QORFiles.h"
#include "agent/http/HttpTypes.h"

namespace QOR {

struct AgentTrace;

/// Takes lines without waiting: they are written by a thread of its own, as many at once as there are. When more come
/// than can be written, the newest are lost, counted, and told in a line of their own as soon as there is room.
/// Thread-safe.
class AgentAudit {
public:
    struct Options {
        std::string target{};            ///< "journal", or a file that is appended to
        bool literals = false;           ///< conditions as they were asked; else with `?` in place of literals
        std::size_t mostLines = 10'000;  ///< that wait to be written
        std::string journal = "/run/systemd/journal/socket";
    };

    /// \throws QORException errFailure when the file or the journal cannot be opened
    explicit AgentAudit(Options options);
    /// Writes what waits.
    ~AgentAudit();
    AgentAudit(const AgentAudit&) = delete;
    AgentAudit& operator=(const AgentAudit&) = delete;

    bool showsLiterals() const noexcept { return m_options.literals; }
    void add(std::string line);
    /// The file has been moved away: the next line goes into a new one. Where that fails, the old one is written on.
    void reopen();

    struct Counts {
        std::uint64_t written = 0;
        std::uint64_t lost = 0;
        std::size_t waiting = 0;
    };
    Counts counts() const;

private:
    bool isJournal() const { return m_options.target == "journal"; }
    void open();
    void work();
    void openAnew();
    void complain();
    std::size_t writeLines(const std::deque<std::string>& lines);
    bool send(const std::string& line);

    const Options m_options;
    QORFileDescriptor m_target;  // the thread's, once it runs, as are these
    bool m_torn = false;         ///< a line was written in part
    bool m_complained = false;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::string> m_lines;  // guarded by m_mutex
    Counts m_counts;                  // guarded by m_mutex
    std::uint64_t m_untold = 0;       // guarded by m_mutex; lost lines that no line tells of yet
    bool m_reopen = false;            // guarded by m_mutex
    bool m_ending = false;            // guarded by m_mutex
    std::thread m_thread;
};

/// The line of a request, without its end. Tokens, cookies, queries and bodies are not in it.
/// \param trace null: of what was no request \param literals conditions may be shown whole
std::string auditLine(const HttpEnd& end, const HttpPeer& peer, const AgentTrace* trace, bool literals);

}  // namespace QOR
