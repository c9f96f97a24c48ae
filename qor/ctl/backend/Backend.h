/// \file
/// Who answers: the agent over its socket, or the host in this very process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <vector>

#include "QORDBSchema/SchemaTable.h"
#include "QORLibLocal/QORVocabulary.h"
#include "answer/AnswerReader.h"
#include "host/QORIdentityForms.h"
#include "host/QORMaintenance.h"
#include "host/QORStatus.h"
#include "ingest/QORCollectors.h"
#include "ingest/QORExportPosition.h"
#include "ingest/QORIngest.h"
#include "process/LineInput.h"

namespace QOR {

/// Where to find who answers, as given on the command line.
struct ConnectionOptions {
    std::string socket;       ///< of an agent; empty: where one of this user or of the machine listens
    std::string agent;        ///< its address, in place of the socket
    std::string tokenFile;    ///< holds the token that is shown to the agent; empty: none is
    std::string ca;           ///< file of the certificates that are believed, for an address with https
    std::string certificate;  ///< file of the one that is shown to such an agent; empty: none is
    std::string key;          ///< file of its key; empty: the certificate's
    std::string context;      ///< one of the person's own, see Contexts; empty: none
    std::string token;        ///< itself, where no file holds it; never from the command line, which everybody can read
    bool standalone = false;
    std::string database;  ///< ODBC connection string, standalone only
    bool readOnly = false;
    std::string config;   ///< vocabulary file, standalone only
    std::string plugIns;  ///< folder; empty: those that belong to the program
};

/// How an agent does, as it says itself.
struct AgentHealth {
    std::string status;  ///< "ok", or what else it calls itself
    std::string version;
    std::uint64_t uptime = 0;  ///< seconds
    std::uint64_t connections = 0;
};

/// A limit that clients of an agent have met.
struct AgentLimit {
    std::string name;  ///< of the setting
    std::uint64_t met = 0;
};

/// The last time that an agent collected.
struct AgentCollected {
    std::int64_t time = 0;
    std::string failure;  ///< empty where it went well
};

/// A collector of an agent that has run, or is to run by itself.
struct AgentCollector {
    std::string name;
    std::string source;                  ///< what it reads
    std::optional<std::uint64_t> every;  ///< seconds between its runs; nothing where it runs on request
    std::string outcome;                 ///< of its last run; empty where there was none
    std::string failure;                 ///< why it failed
    std::int64_t time = 0;               ///< of its last run
    std::uint64_t records = 0;           ///< that it brought then
};

/// How an agent does that sends its records on to another one.
struct AgentForwarding {
    std::string target;
    std::uint64_t behind = 0;   ///< changes that have not been taken yet
    std::string away;           ///< servers that could not be asked how many they are; empty: none
    std::uint64_t seconds = 0;  ///< since all had been
    std::uint64_t refused = 0;  ///< records that the other agent does not want
    std::optional<std::int64_t> lastSuccess;
    std::optional<std::int64_t> lastFailure;
    std::string lastError;
};

struct BackendStatus {
    std::optional<AgentHealth> agent;           ///< absent without an agent
    std::optional<AgentForwarding> forwarding;  ///< of an agent that does it
    QORDatabaseStatus database;
    std::string settings{};                     ///< what an agent says of its settings; empty where it says nothing
    std::optional<AgentCollected> collected{};  ///< since the agent's start
    std::vector<AgentCollector> collectors{};   ///< of an agent
    std::vector<AgentLimit> limits{};           ///< that were met since the agent's start
};

/// One connection, or one host in the process. One thread at a time, but where said otherwise.
///
/// Every operation throws CtlError: AnsweredError for an error that was answered (except where it is part of the
/// answer that is returned), NoConnection when the other side is gone.
class Backend {
public:
    virtual ~Backend() = default;

    /// False when this user, at the other side, has no full access and stands for no environment.
    virtual bool seesEnvironments() = 0;

    /// Asks one request in message notation. The answer comes as a stream, of any size; it must be read, or given up,
    /// before the next request.
    virtual std::unique_ptr<AnswerSource> ask(std::string_view request) = 0;

    /// What an agent answers at one of its paths. \throws CtlError AnsweredError for a problem; BadUsage without an
    /// agent
    virtual std::unique_ptr<AnswerSource> get(const std::string& target) = 0;

    /// Where the answers to lines go, on the calling thread. What it throws ends them.
    class LineAnswers {
    public:
        virtual ~LineAnswers() = default;
        /// A piece of the present answer.
        virtual void piece(std::string_view text) = 0;
        /// The present answer is complete. \param idle no further one is on its way
        virtual void end(bool idle) = 0;
    };
    /// Answers each line in turn until the input ends, with answers of any size; blank lines are passed over. Requests
    /// may be sent ahead of the answers.
    virtual void answerLines(int input, LineAnswers& answers) = 0;

    /// What is stored as lines of records, from a position on. What fails later than the beginning ends the lines
    /// before their end. Without an agent it is read by this thread.
    virtual std::unique_ptr<AnswerSource> exportRecords(const QORExportPosition& position) = 0;
    /// Stores NDJSON records. A line that is refused is part of the result.
    virtual QORIngestResult importBatch(std::string_view lines, std::uint64_t firstLine) = 0;
    /// Has all collectors run. \param stop ends it early; an agent goes on all the same. Where the outcome is
    /// QORCollectOutcome::Hung without an agent, one of them is at work in this object until the process ends: it must
    /// not be destroyed.
    virtual QORCollectResult collect(const std::stop_token& stop) = 0;
    virtual std::vector<QORViewColumn> views() = 0;
    /// What the other side's configuration tells its plug-ins; never null.
    virtual QORPtr<const QORVocMap> vocabulary() = 0;
    /// For clients with full access.
    virtual BackendStatus status() = 0;

    /// Looks at one part of the database, see checkParts(). For clients with full access, as prune() is.
    virtual std::vector<QORCheckFinding> check(const std::string& part, bool mend) = 0;

    /// For clients with full access, as all that follows of identities. Of tokens there is no more than their
    /// beginning.
    virtual QORIdentityList identities() = 0;
    virtual void addIdentity(const QORIdentity& identity) = 0;
    virtual void removeIdentity(const std::string& name) = 0;
    /// \returns the token
    virtual std::string createToken(const QORTokenRequest& request) = 0;
    /// \returns how many
    virtual std::uint64_t revokeTokens(const QORTokenRequest& request) = 0;

    struct Pruned {
        QORPruneStep step;
        std::uint64_t stranded = 0;  ///< bytes that cannot be given back, told with the last step
    };
    /// A step of pruning, see pruneDatabase().
    virtual Pruned prune(const std::string& kind, std::int64_t before, bool unsent) = 0;

    /// Bytes that one request may have.
    static constexpr std::size_t requestLimit = std::size_t{64} << 20;

protected:
    /// The answer to a line that is longer than that.
    static std::string refusalOfLongLine();
};

/// What a command is going to do, which decides how a standalone host opens its database.
enum class BackendUse {
    Ask,      ///< requests; another program's database is read as it is
    Inspect,  ///< views or fields only, no plug-ins needed
    Store,    ///< records; the database must be the host's own, or empty
};

/// \throws CtlError BadUsage for options that contradict each other, NoConnection when nobody answers there
std::unique_ptr<Backend> makeBackend(const ConnectionOptions& options, BackendUse use);

}  // namespace QOR
