/// \file
/// What the commands do once the command line has been read. Each writes its results to standard output, everything
/// else to standard error, and ends by returning or by throwing CtlError or BrokenPipe.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "backend/Backend.h"
#include "conformance/QORPlugInCheck.h"
#include "ingest/QORSampleData.h"
#include "output/RowPrinter.h"
#include "process/CtlError.h"
#include "rows/RowsRequest.h"
#include "select/SelectRequest.h"
#include "select/TimeBounds.h"

namespace QOR {

/// How rows are printed.
struct PrintOptions {
    const RowForm* form = &rowForms().front();
    std::optional<std::size_t> width;  ///< of tables; absent: the terminal's, none where there is no terminal
    bool header = true;
    std::optional<std::string> pattern{};  ///< in place of the form, see makeTemplatePrinter()
    std::optional<bool> colours{};         ///< absent: on a terminal that has some, unless NO_COLOR is set
    std::optional<TimeForm> times{};       ///< in tables; absent: short on a terminal, as answered elsewhere
    std::optional<std::string> zone{};     ///< of times in tables, see useZone()
    bool pages = true;                     ///< on a terminal, through a pager
    bool asks = true;                      ///< before a terminal gets more rows than anybody reads, see ManyRows
};

struct TimelineOptions {
    TimeBounds bounds{};
    std::string environment{};  ///< identifier; empty: of all
    std::int64_t limit = 50;
};

/// Records as they come.
struct FollowOptions {
    std::string source;  ///< "operations", as the agent's streams call them
    std::string view;    ///< that shows the same records
    std::vector<std::string> fields;
    std::string where;           ///< empty: none
    bool fromBeginning = false;  ///< those first that there are
    std::string cursorFile{};    ///< keeps what was shown last, behind which it begins; empty: none
};

/// How what a command asks is asked again and again.
struct WatchOptions {
    std::optional<std::int64_t> seconds;  ///< absent: once
};

struct RequestOptions {
    std::string file;  ///< empty or "-": standard input
    bool lines = false;
    bool asks = true;  ///< as PrintOptions::asks
};

struct ViewsOptions {
    std::vector<std::string> views;  ///< empty: all
    PrintOptions print;
};

struct FieldsOptions {
    std::vector<std::string> prefixes;  ///< only names that begin with one of these; empty: all
    PrintOptions print;
};

/// How storing many records is reported.
struct ReportOptions {
    bool progress = false;  ///< also where standard error is no terminal
    bool verbose = false;   ///< every refused line, not only the first
};

struct ImportOptions {
    std::string file;  ///< empty or "-": standard input
    ReportOptions report;
};

struct ExportOptions {
    std::vector<std::string> kinds;  ///< "environments", "operations", "events", "backups"; empty: all
    TimeBounds bounds;
    std::string environment;  ///< identifier; empty: of all
    std::string file;         ///< empty or "-": standard output
    bool resumes = false;     ///< goes on with what is in the file
    bool progress = false;    ///< also where standard error is no terminal
    bool asks = true;         ///< as PrintOptions::asks
};

struct SampleCommandOptions {
    QORSampleOptions sample;
    std::optional<std::string> output;  ///< written here ("-": standard output) instead of stored
    bool asks = true;                   ///< as PrintOptions::asks
    ReportOptions report;
};

struct SecurityCommandOptions {
    std::uint64_t requests = 20'000;
    std::uint64_t seed = 1;
};

struct CheckOptions {
    bool mend = false;
};

struct PruneOptions {
    std::string before;  ///< a time, or an age such as 30d
    bool operations = false;
    bool events = false;
    bool backups = false;  ///< none of the three: all
    bool unsent = false;   ///< also what waits for being sent on
    bool compact = false;
    bool progress = false;  ///< also where standard error is no terminal
};

struct CopyCommandOptions {
    std::string from;  ///< connection strings
    std::string to;
    bool progress = false;  ///< also where standard error is no terminal
};

struct ShardCommandOptions {
    std::string home;     ///< connection string
    std::string servers;  ///< the file that names them
    std::string split;
    bool print = false;
    bool passwords = false;  ///< printed as they are
    bool progress = false;   ///< also where standard error is no terminal
};

/// What would become of a select or of rows by fields.
struct ExplainOptions {
    std::string about;     ///< a view, or environments, operations, events or backups
    SelectOptions select;  ///< everything but the view; of sources as RowsOptions has it
    bool json = false;
};

struct IdentityOptions {
    std::string name;  ///< listing: empty for all
    std::string kind;
    std::string subject;  ///< empty: the name
    bool fullAccess = false;
    std::vector<std::string> environments;
    std::vector<std::string> below;  ///< with all that are below them
    bool writes = false;             ///< about both, too
};

struct TokenOptions {
    std::string name;     ///< of the identity; listing: empty for all
    std::string expires;  ///< an age; empty: never
    std::string id;       ///< empty: all of the identity's
};

void runSelect(const ConnectionOptions& connection, const SelectOptions& options, const PrintOptions& print);
void runRows(const ConnectionOptions& connection, const RowsOptions& options, const PrintOptions& print);
void runTimeline(const ConnectionOptions& connection, const TimelineOptions& options, const PrintOptions& print);
/// Until it is ended: a lost agent is waited for.
[[noreturn]] void runFollow(const ConnectionOptions& connection, const FollowOptions& options,
                            const PrintOptions& print);
/// Runs a command, again after each pause; on a terminal each time on a cleared screen.
void runWatched(const WatchOptions& watch, const PrintOptions& print,
                const std::function<void(const PrintOptions&)>& command);
/// Warnings are notes, or stand in the JSON.
void runExplain(const ConnectionOptions& connection, const ExplainOptions& options);
void runRequest(const ConnectionOptions& connection, const RequestOptions& options);
void runViews(const ConnectionOptions& connection, const ViewsOptions& options);
void runFields(const ConnectionOptions& connection, const FieldsOptions& options);
void runStatus(const ConnectionOptions& connection, const PrintOptions& print);
/// What is wrong here, and what to do about it. Throws AnsweredError when something is.
void runDoctor(const ConnectionOptions& connection, const PrintOptions& print);
/// Likewise of a plug-in.
void runPlugInCheck(QORPlugInCheckOptions options, const PrintOptions& print);
void runCheck(const ConnectionOptions& connection, const CheckOptions& options);
void runPrune(const ConnectionOptions& connection, const PruneOptions& options);
void runImport(const ConnectionOptions& connection, const ImportOptions& options);
void runExport(const ConnectionOptions& connection, const ExportOptions& options);
void runSample(const ConnectionOptions& connection, const SampleCommandOptions& options);
void runIdentityAdd(const ConnectionOptions& connection, const IdentityOptions& options);
void runIdentityList(const ConnectionOptions& connection, const IdentityOptions& options, const PrintOptions& form);
void runIdentityRemove(const ConnectionOptions& connection, const IdentityOptions& options);
void runTokenCreate(const ConnectionOptions& connection, const TokenOptions& options);
void runTokenList(const ConnectionOptions& connection, const TokenOptions& options, const PrintOptions& form);
void runTokenRevoke(const ConnectionOptions& connection, const TokenOptions& options);
/// Contexts: an agent or a database under a name. \param connection what to keep
void runContextSet(const std::string& name, const ConnectionOptions& connection);
void runContextUse(const std::string& name);
void runContextRemove(const std::string& name);
/// \param name the only one; empty: all
void runContextList(const std::string& name, const PrintOptions& print);
/// \param name empty: the current one
void runContextShow(const std::string& name, const PrintOptions& print);
void runCollect(const ConnectionOptions& connection);
/// Moves a database into another one, both of which it opens itself.
void runCopy(const CopyCommandOptions& options);
/// Spreads a database's records over servers, or checks that they are.
void runShard(const ShardCommandOptions& options);
/// Proves on a copy of the database that row security holds. Throws AnsweredError when it does not.
void runSelfCheckSecurity(const ConnectionOptions& connection, const SecurityCommandOptions& options);

}  // namespace QOR
