#include "CommandLine.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <sstream>

#include "QORCommon/QORException.h"
#include "QORCommon/QORLogger.h"
#include "QORCommon/QORPasswords.h"
#include "QORCommon/QORRelativeTime.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORPager/QORSources.h"
#include "QORQuery/QORQueryField.h"
#include "backend/AgentChannel.h"
#include "backend/AgentChoice.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "commands/ShortCommands.h"
#include "complete/Completion.h"
#include "complete/CompletionScripts.h"
#include "conformance/QORPlugInCheck.h"
#include "filter/FilterCommand.h"
#include "help/CommandHelp.h"
#include "help/CommandMistakes.h"
#include "help/ManualPage.h"
#include "host/QORHostPaths.h"
#include "host/QORNumberOption.h"
#include "output/Output.h"
#include "output/Pager.h"
#include "output/TextWidth.h"
#include "process/CtlError.h"
#include "process/TiedValues.h"
#include "rows/RowsAdvice.h"
#include "select/RequestPage.h"

namespace QOR {
namespace {

constexpr const char* exitNote =
    "Exit status: 0 done, 1 the agent answered with an error, 2 bad usage, 3 no connection, 130 Ctrl-C.";

constexpr const char* whereNote =
    "Conditions (--where) are those of SQL: and, or, not, parentheses, = <> != < <= > >=, [not] like 'a%' [escape "
    "'c'],\n"
    "[not] in (1, 'b', select COLUMN from VIEW where ...), [not] between a and b, is [not] null, upper(), lower().\n"
    "A column is written name, view.name or \"any name\", a text 'it''s'. Times may be told from now: time > now() - "
    "7d,\n"
    "time > -7d, time >= 'yesterday' (now, today, yesterday, tomorrow; 90s, 45m, 12h, 30d, 8w, 1d12h; days begin in "
    "UTC).\n\n"
    "Aggregates are count, sum, avg, min and max: -f 'op,count(id)'; the plain columns beside them are what is grouped "
    "by.\n"
    "A table shows a null as \"-\"; the other forms are exact.\n";

constexpr const char* rowsNote =
    "Rows are those for which the whole filter holds, in the order of the sort keys; without one logs and backups "
    "come\n"
    "newest first. With --narrow, logs and backups take only these conditions of the filter, and no order; qorctl "
    "says\n"
    "what has no effect then.\n";

/// As many as a page's size and offset in a request can say.
constexpr std::uint64_t mostRows = std::numeric_limits<std::int32_t>::max();
/// Of a page of the timeline, as the agent takes it.
constexpr std::uint64_t mostTimeline = 10'000;
/// Rows that the short commands show where nobody says how many.
constexpr std::int64_t shortPage = 50;
constexpr std::uint64_t mostColumns = 100'000;
/// Of one kind, in a sample.
constexpr std::uint64_t mostRecords = 1'000'000'000;
/// Of one check of a plug-in, in seconds.
constexpr std::int64_t longestCheck = 86400;
/// Of one proof.
constexpr std::uint64_t mostRequests = 10'000'000;

/// Everything that the options are read into, and the command to run. A function adds a command: they look alike, as
/// commands do, and each says what its own takes.
class CommandLine {
public:
    CommandLine() {
        m_app.require_subcommand(1);
        m_app.set_version_flag("-V,--version", QOR_VERSION);
        m_app.set_help_all_flag("--help-all", "Print the help of every command and exit");
        m_app.footer(exitNote);
        addConnection(m_app, false);
        m_app.parse_complete_callback({});
        addSelect();
        addRows();
        addShortCommands();
        addTimeline();
        addExplain();
        addRequest();
        addViews();
        addFields();
        addStatus();
        addDoctor();
        addIdentity();
        addToken();
        addContext();
        addCheck();
        addPrune();
        addImport();
        addExport();
        addSample();
        addCollect();
        addCopy();
        addDatabase();
        addSelfCheck();
        addPlugIn();
        addFilterCommand(m_app, m_filterExit);
        addCompletion();
        addExamples(m_app);
    }

    int run(const std::vector<std::string>& arguments) {
        if (!arguments.empty() && arguments.front() == completionQuestion) {
            completeCommandLine(m_app, {arguments.begin() + 1, arguments.end()});
            return static_cast<int>(CtlExit::Done);
        }
        if (!arguments.empty() && arguments.front() == plugInCheckQuestion)
            return checkPlugInInside({arguments.begin() + 1, arguments.end()});
        if (!arguments.empty() && arguments.front() == manualQuestion) {
            printText(manualPage(m_app, QOR_VERSION));
            return static_cast<int>(CtlExit::Done);
        }
        std::vector<std::string> reversed = tieValues(helpAsOption(arguments));
        std::reverse(reversed.begin(), reversed.end());
        try {
            m_app.parse(reversed);
        } catch (const CLI::ParseError& error) {
            // Help and version are thrown as well, with the status 0.
            const bool isUnknown = m_app.get_subcommands().empty() && !m_app.remaining().empty();
            if (error.get_exit_code() == 0 && !isUnknown) return printHelp(error);
            throw CtlError::usage(withoutPasswords(describeMistake(m_app, error)));
        }
        if (!m_run) return m_filterExit;
        if (m_connects) {
            m_connection = chosenConnection(m_connection);
            for (const std::string& warning : warningsOfSecrets(m_connection))
                tellNote(warning);
        }
        m_run();
        return static_cast<int>(CtlExit::Done);
    }

private:
    static void printText(std::string_view text) {
        FileOutput out(STDOUT_FILENO);
        out << text;
        out.flush();
    }

    int printHelp(const CLI::ParseError& error) {
        std::ostringstream text;
        const int status = m_app.exit(error, text);
        printText(wrapHelp(text.str(), terminalWidth(STDOUT_FILENO)));
        return status;
    }

    CLI::App* command(const std::string& name, const std::string& description, std::function<void()> run) {
        CLI::App* const app = m_app.add_subcommand(name, description);
        app->callback([this, run = std::move(run)] { m_run = run; });
        app->footer(exitNote);
        return app;
    }

    /// Everywhere the same variables, so that the options may stand before the command or behind it.
    void addConnection(CLI::App& app, bool stores) {
        app.parse_complete_callback([this] { m_connects = true; });
        if (app.get_option_no_throw("--timeout") == nullptr)
            app.add_option_function<std::string>(
                   "--timeout",
                   [](const std::string& text) {
                       AgentChannel::setPatience(durationOf("--timeout", text, mostTimeout));
                   },
                   "give up when the agent has been silent for this time (default: never)")
                ->type_name("DURATION")
                ->group("Connection");
        app.add_option("--context", m_connection.context, "an agent or a database by a name, see qorctl context")
            ->type_name("NAME")
            ->group("Connection");
        app.add_flag_callback(
            "-q,--quiet", [] { setQuiet(true); }, "no notes beside what is asked for");
        const char* const group = "Connection";
        app.add_option("--socket", m_connection.socket,
                       "the agent's socket (default: QOR_AGENT, the current context, this user's agent's)")
            ->type_name("PATH")
            ->group(group);
        app.add_option("--agent", m_connection.agent, "an agent elsewhere: http://HOST:PORT or https://HOST:PORT")
            ->type_name("ADDRESS")
            ->group(group);
        app.add_option("--token-file", m_connection.tokenFile,
                       "the file that holds the token to show to the agent (default: QOR_TOKEN)")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--ca", m_connection.ca,
                       "the authority whose certificate the agent has, in place of the system's")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--certificate", m_connection.certificate, "the certificate that tells the agent who asks")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--key", m_connection.key, "its key (default: in the certificate's file)")
            ->type_name("FILE")
            ->group(group);
        app.add_flag("--standalone", m_connection.standalone,
                     "no agent: answer in this process from the database that agents use by default")
            ->group(group);
        app.add_option("--database", m_connection.database,
                       "no agent: answer in this process from SQLite's file, or an ODBC connection string")
            ->transform(connectionStringOf)
            ->each([this](const std::string&) { m_connection.standalone = true; })
            ->type_name("DATABASE")
            ->group(group);
        if (!stores)
            app.add_flag("--read-only", m_connection.readOnly, "never write to the database, with --standalone")
                ->group(group);
        app.add_option("--config", m_connection.config, "a vocabulary on top of the shipped one, with --standalone")
            ->type_name("FILE")
            ->group(group);
        app.add_option("--plugins", m_connection.plugIns, "folder of the plug-ins, with --standalone")
            ->type_name("FOLDER")
            ->group(group);
    }

    static void addPrinting(CLI::App& app, PrintOptions& print) {
        std::vector<std::string> names;
        std::string help;
        for (const RowForm& form : rowForms()) {
            const bool last = &form == &rowForms().back();
            help += (names.empty() ? "" : last ? " or " : ", ") + std::string(form.name);
            if (names.empty()) help += " (default)";
            names.emplace_back(form.name);
        }
        app.add_option_function<std::string>(
               "-o,--output", [&print](const std::string& name) { print.form = findRowForm(name); }, help)
            ->check(oneOfWords(names))
            ->type_name("FORMAT");
        app.add_option("--template", print.pattern,
                       "a line for each row, filled in: '{time}\\t{op}'; {{ and }} are braces")
            ->type_name("PATTERN")
            ->excludes("--output");
        addLook(app, print);
        app.add_flag_callback(
            "--no-header", [&print] { print.header = false; }, "no line of names above the rows");
        addNumber(app, "--width", {0, mostColumns},
                  "columns that a table may take, 0 for any number, by default the terminal's",
                  [&print](std::uint64_t columns) { print.width = columns; });
    }

    /// What makes rows readable for people.
    static void addLook(CLI::App& app, PrintOptions& print) {
        app.add_option_function<std::string>(
               "--color",
               [&print](const std::string& when) {
                   print.colours = when == "auto" ? std::nullopt : std::optional(when == "always");
               },
               "colours: auto (default; on a terminal, unless NO_COLOR is set), always or never")
            ->check(oneOfWords({"auto", "always", "never"}))
            ->type_name("WHEN");
        app.add_option_function<std::string>(
               "--times",
               [&print](const std::string& form) {
                   print.times = form == "iso"     ? TimeForm::Answered
                                 : form == "short" ? TimeForm::Short
                                                   : TimeForm::Relative;
               },
               "times of tables: short (default on a terminal), relative or iso (default elsewhere)")
            ->check(oneOfWords({"short", "relative", "iso"}))
            ->type_name("FORM");
        app.add_option_function<std::string>(
               "--tz",
               [&print](const std::string& zone) {
                   useZone(zone);
                   print.zone = zone;
               },
               "zone of times that are typed, and of those in tables: local (default of short), UTC (default of iso) "
               "or "
               "a name")
            ->type_name("ZONE");
        app.add_flag_callback(
            "--no-pager", [&print] { print.pages = false; }, "long tables roll by on a terminal");
    }

    static void addPage(CLI::App& app, std::int64_t& limit, std::int64_t& offset) {
        addNumber(app, "--limit", {0, mostRows}, "rows of the page, by default 0, all",
                  [&limit](std::uint64_t rows) { limit = static_cast<std::int64_t>(rows); });
        addNumber(app, "--offset", {0, mostRows}, "rows before the page",
                  [&offset](std::uint64_t rows) { offset = static_cast<std::int64_t>(rows); });
    }

    /// Of commands whose rows may be any number.
    static void addMany(CLI::App& app, bool& asks, const char* what = "rows") {
        app.add_flag_callback(
            "--yes", [&asks] { asks = false; },
            std::string("show more than a million ") + what + " on a terminal without a question");
    }

    static void addReport(CLI::App& app, ReportOptions& report) {
        app.add_flag("--progress", report.progress, "show progress even where standard error is no terminal");
        app.add_flag("-v,--verbose", report.verbose, "name every refused line");
    }

    static void addBounds(CLI::App& app, TimeBounds& bounds) {
        app.add_option("--since", bounds.since,
                       "rows from this time on: 2024-05-01, \"2024-05-01 10:15\", 10:15, yesterday, -7d")
            ->type_name("TIME");
        app.add_option("--until", bounds.until, "rows to this time, which is included")->type_name("TIME");
    }

    /// Which rows, in which order.
    static void addSelection(CLI::App& app, SelectOptions& select) {
        app.add_option("--where", select.where, "a condition that the rows must meet")->type_name("CONDITION");
        addBounds(app, select.bounds);
        app.add_option("--sort", select.sort, "fields to sort by, behind '-' for descending order, as -f has them")
            ->type_name("[-]FIELD");
    }

    /// \throws CLI::ValidationError for what is no duration of whole seconds, or longer than the most
    static std::int64_t durationOf(const char* option, const std::string& text, std::int64_t most) {
        const auto seconds = parseDuration(text);
        if (!seconds || *seconds < 1 || *seconds > most)
            throw CLI::ValidationError(std::string(option) + " takes a duration such as 2s or 5m, not " +
                                       quoteText(text));
        return *seconds;
    }

    static CLI::Option* addTimeoutOption(CLI::App& app, std::optional<std::int64_t>& timeout) {
        return app
            .add_option_function<std::string>(
                "--timeout",
                [&timeout](const std::string& text) {
                    timeout = durationOf("--timeout", text, mostTimeout);
                    AgentChannel::setPatience(*timeout);
                },
                "give up when no answer has come within this time (default: as long as the agent takes)")
            ->type_name("DURATION");
    }

    CLI::Option* addWatch(CLI::App& app) {
        constexpr std::int64_t longest = 366 * 86400;
        return app
            .add_option_function<std::string>(
                "--watch", [this](const std::string& text) { m_watch.seconds = durationOf("--watch", text, longest); },
                "ask again after each pause, until Ctrl-C")
            ->type_name("PAUSE");
    }

    void addShortCommands() {
        for (const ShortCommand& each : shortCommands()) {
            CLI::App* const app =
                command(std::string(each.name), std::string(each.description), [this, &each] { runShort(each); });
            app->add_option("-f,--field", m_short.fields,
                            "columns of " + std::string(each.view) +
                                " or aggregates over one; with commas between them or repeated; '*' for all (default: "
                                "those that tell most)")
                ->type_name("FIELD");
            addSelection(*app, m_short);
            addNumber(*app, "--limit", {0, mostRows}, "rows of the page, by default 50, 0 for all",
                      [this](std::uint64_t rows) { m_short.limit = static_cast<std::int64_t>(rows); });
            addNumber(*app, "--offset", {0, mostRows}, "rows before the page",
                      [this](std::uint64_t rows) { m_short.offset = static_cast<std::int64_t>(rows); });
            app->add_flag("--count", m_short.count, "also how many rows there are in the page and in all");
            CLI::Option* const client =
                app->add_option("--client", m_short.client, "ask as a client without full access, as for select")
                    ->type_name("EID");
            CLI::Option* const follow =
                app->add_flag("--follow", m_follows,
                              "what comes from now on, or since the time of --since; also after "
                              "the agent was away");
            follow->excludes(client, addWatch(*app), app->get_option("--limit"), app->get_option("--offset"),
                             app->get_option("--sort"), app->get_option("--count"), app->get_option("--until"),
                             addTimeoutOption(*app, m_short.timeout));
            app->add_option("--cursor-file", m_cursorFile,
                            "keep in this file what was shown last, and begin behind that when it is there")
                ->needs(follow)
                ->type_name("FILE");
            addPrinting(*app, m_shortPrint);
            addMany(*app, m_shortPrint.asks);
            addConnection(*app, false);
            app->footer("It is qorctl select " + std::string(each.view) + ", which can do more.\n" + exitNote);
        }
    }

    void runShort(const ShortCommand& command) {
        m_short.view = command.view;
        m_short.fields = splitFields(m_short.fields);
        m_short.sort = splitFields(m_short.sort);
        if (m_follows) return follow(command);
        if (m_short.sort.empty() && !hasAggregates(m_short.fields)) m_short.sort.emplace_back(command.sort);
        runWatched(m_watch, m_shortPrint,
                   [this](const PrintOptions& print) { runSelect(m_connection, m_short, print); });
    }

    static bool hasAggregates(const std::vector<std::string>& fields) {
        return std::any_of(fields.begin(), fields.end(),
                           [](const std::string& field) { return !parseQueryField(field).function.empty(); });
    }

    void follow(const ShortCommand& command) {
        FollowOptions options;
        options.source = command.source;
        options.view = command.view;
        for (const std::string& field : m_short.fields) {
            const QORQueryField column = parseQueryField(field);
            if (!column.function.empty() || column.column == "*")
                throw CtlError::usage("--follow takes columns, not " + quoteText(field));
            options.fields.push_back(column.column);
        }
        if (options.fields.empty())
            for (const std::string_view column : viewMainColumns(command.view))
                options.fields.emplace_back(column);
        options.where = joinConditions(m_short.where.value_or(""), conditionOf(m_short.bounds, "time", currentTime()));
        options.fromBeginning = m_short.bounds.since.has_value();
        options.cursorFile = m_cursorFile;
        runFollow(m_connection, options, m_shortPrint);
    }

    void addTimeline() {
        CLI::App* const app =
            command("timeline", "Operations, events and backups in one list, the newest first", [this] {
                runWatched(m_watch, m_timelinePrint,
                           [this](const PrintOptions& print) { runTimeline(m_connection, m_timeline, print); });
            });
        addBounds(*app, m_timeline.bounds);
        app->add_option("-e,--environment", m_timeline.environment, "only of this environment")->type_name("EID");
        addNumber(*app, "--limit", {1, mostTimeline}, "rows of the page, by default 50",
                  [this](std::uint64_t rows) { m_timeline.limit = static_cast<std::int64_t>(rows); });
        addWatch(*app);
        addPrinting(*app, m_timelinePrint);
        addConnection(*app, false);
    }

    static std::vector<std::string> recordNames() {
        std::vector<std::string> names;
        for (const QORSource& source : pagerSources())
            names.emplace_back(source.records);
        return names;
    }

    void addSelect() {
        CLI::App* const app = command("select", "Rows of a view", [this] {
            m_select.fields = splitFields(m_select.fields);
            m_select.sort = splitFields(m_select.sort);
            runWatched(m_watch, m_selectPrint,
                       [this](const PrintOptions& print) { runSelect(m_connection, m_select, print); });
        });
        app->add_option("view,--view", m_select.view, "the view that is asked")->required();
        app->add_option(
               "-f,--field", m_select.fields,
               "columns, or aggregates over one: count(eid); with commas between them or repeated; '*' for all "
               "(default: those that tell most)")
            ->type_name("FIELD");
        addSelection(*app, m_select);
        addPage(*app, m_select.limit, m_select.offset);
        app->add_flag("--count", m_select.count, "also how many rows there are in the page and in all");
        app->add_flag("--distinct", m_select.distinct, "each row once");
        addTimeoutOption(*app, m_select.timeout);
        addWatch(*app);
        app->add_option("--client", m_select.client,
                        "ask as a client without full access that stands for this environment (the first is its own "
                        "identity, repeatable), or for \"none\"")
            ->type_name("EID");
        addPrinting(*app, m_selectPrint);
        addMany(*app, m_selectPrint.asks);
        addConnection(*app, false);
        app->footer(std::string(whereNote) + "\n" + exitNote);
    }

    void addRows() {
        CLI::App* const app = command("rows", "Rows of the logs, the backups or the environments", [this] {
            m_rows.fields = splitFields(m_rows.fields);
            m_rows.sort = splitFields(m_rows.sort);
            runWatched(m_watch, m_rowsPrint,
                       [this](const PrintOptions& print) { runRows(m_connection, m_rows, print); });
        });
        app->add_option("records", m_rows.source,
                        "operations, events, backups or environments; beside them names may be short: time, "
                        "package.name, env.title")
            ->check(oneOfWords(recordNames()));
        app->add_option("-f,--field", m_rows.fields,
                        "fields, see qorctl fields; with commas between them or repeated (default: those that tell "
                        "most of the records)")
            ->type_name("FIELD");
        addBounds(*app, m_rows.bounds);
        addWatch(*app);
        app->add_option("--where", m_rows.where, "a filter, see qorctl filter")->type_name("FILTER");
        app->add_option("--sort", m_rows.sort, "fields to sort by, behind '-' for descending order, as -f has them")
            ->type_name("[-]FIELD");
        addPage(*app, m_rows.limit, m_rows.offset);
        app->add_flag("--count", m_rows.count, "also how many rows there are in the page and in all");
        addTimeoutOption(*app, m_rows.timeout);
        app->add_flag("--narrow", m_rows.narrow, "only what the source finds rows by, see below, and its own order");
        app->add_option("--client", m_rows.client, "ask as a client without full access, as for select")
            ->type_name("EID");
        addPrinting(*app, m_rowsPrint);
        addMany(*app, m_rowsPrint.asks);
        addConnection(*app, false);
        app->footer(std::string(rowsNote) + describeSources() + "\n" + exitNote);
    }

    void addExplain() {
        CLI::App* const app = command("explain", "What would become of a select, or of rows by fields", [this] {
            m_explain.select.fields = splitFields(m_explain.select.fields);
            m_explain.select.sort = splitFields(m_explain.select.sort);
            runExplain(m_connection, m_explain);
        });
        SelectOptions& select = m_explain.select;
        app->add_option("about", m_explain.about, "a view, or environments, operations, events or backups")
            ->required()
            ->type_name("VIEW|SOURCE");
        app->add_option("-f,--field", select.fields, "as select or rows has them; of a view all columns without it")
            ->type_name("FIELD");
        app->add_option("--where", select.where, "a condition for a view, a filter for a source")
            ->type_name("CONDITION|FILTER");
        app->add_option("--sort", select.sort, "as select or rows has it")->type_name("[-]FIELD");
        addPage(*app, select.limit, select.offset);
        app->add_flag("--count", select.count, "as select or rows has it; counting is not explained");
        app->add_flag("--distinct", select.distinct, "each row once; of a view");
        app->add_option("--client", select.client, "ask as a client without full access, as for select")
            ->type_name("EID");
        app->add_option_function<std::string>(
               "-o,--output", [this](const std::string& form) { m_explain.json = form == "json"; },
               "text (default) or json")
            ->check(oneOfWords({"text", "json"}))
            ->type_name("FORM");
        addConnection(*app, false);
        app->footer(std::string(whereNote) + "\n" + exitNote);
    }

    void addFields() {
        CLI::App* const app = command("fields", "Fields that qorctl rows knows, their sources and types",
                                      [this] { runFields(m_connection, m_fields); });
        app->add_option("prefix", m_fields.prefixes, "only names that begin so");
        addPrinting(*app, m_fields.print);
        addConnection(*app, false);
    }

    void addRequest() {
        CLI::App* const app = command("request", "Message notation in, message notation out",
                                      [this] { runRequest(m_connection, m_request); });
        app->add_option("file", m_request.file, "the request; - or nothing reads standard input")->type_name("FILE");
        app->add_flag(
            "--lines", m_request.lines,
            "one request a line, one answer a line, in order; errors are answers, blank lines answer nothing");
        addMany(*app, m_request.asks);
        addConnection(*app, false);
    }

    void addViews() {
        CLI::App* const app =
            command("views", "Views, their columns and types", [this] { runViews(m_connection, m_views); });
        app->add_option("view", m_views.views, "only these views");
        addPrinting(*app, m_views.print);
        addConnection(*app, false);
    }

    void addStatus() {
        CLI::App* const app = command("status", "How the agent does, and what its database is and lacks",
                                      [this] { runStatus(m_connection, m_statusPrint); });
        addPrinting(*app, m_statusPrint);
        addConnection(*app, false);
    }

    void addDoctor() {
        CLI::App* const app = command("doctor", "What is wrong with the agent and its machine, and what to do about it",
                                      [this] { runDoctor(m_connection, m_statusPrint); });
        addPrinting(*app, m_statusPrint);
        addConnection(*app, false);
    }

    /// A command of a group of them.
    CLI::App* part(CLI::App& group, const char* name, const char* description, std::function<void()> run) {
        CLI::App* const app = group.add_subcommand(name, description);
        app->callback([this, run = std::move(run)] { m_run = run; });
        app->footer(exitNote);
        return app;
    }

    void addIdentity() {
        CLI::App& group = *m_app.add_subcommand("identity", "Who may ask, and what each may see");
        group.require_subcommand(1);
        group.footer(exitNote);
        CLI::App* const add =
            part(group, "add", "Add an identity", [this] { runIdentityAdd(m_connection, m_identity); });
        add->add_option("name", m_identity.name, "what it is called")->required();
        add->add_option("--kind", m_identity.kind, "user, group, token or certificate")
            ->required()
            ->check(oneOfWords({"user", "group", "token", "certificate"}))
            ->type_name("KIND");
        add->add_option("--subject", m_identity.subject,
                        "the system's name of the user or group, or the certificate's common name (default: the name)")
            ->type_name("TEXT");
        CLI::Option* const full = add->add_flag("--full", m_identity.fullAccess, "full access");
        add->add_option("-e,--environment", m_identity.environments, "an environment it stands for, the first its own")
            ->type_name("EID")
            ->excludes(full);
        add->add_option("--below", m_identity.below, "one that it stands for with all that are below it")
            ->type_name("EID")
            ->excludes(full);
        add->add_flag("--write", m_identity.writes, "records about these environments may be stored too")
            ->excludes(full);
        addConnection(*add, true);
        CLI::App* const list = part(group, "list", "All identities",
                                    [this] { runIdentityList(m_connection, m_identity, m_identityPrint); });
        addPrinting(*list, m_identityPrint);
        addConnection(*list, false);
        CLI::App* const show =
            part(group, "show", "One identity", [this] { runIdentityList(m_connection, m_identity, m_identityPrint); });
        show->add_option("name", m_identity.name)->required();
        addPrinting(*show, m_identityPrint);
        addConnection(*show, false);
        CLI::App* const remove = part(group, "remove", "Remove an identity and its tokens",
                                      [this] { runIdentityRemove(m_connection, m_identity); });
        remove->add_option("name", m_identity.name)->required();
        addConnection(*remove, true);
    }

    void addToken() {
        CLI::App& group = *m_app.add_subcommand("token", "Tokens of identities");
        group.require_subcommand(1);
        group.footer(exitNote);
        CLI::App* const create =
            part(group, "create", "Make a token and print it, once", [this] { runTokenCreate(m_connection, m_token); });
        create->add_option("name", m_token.name, "of an identity of the kind token")->required();
        create->add_option("--expires", m_token.expires, "after so long (90d); else never")->type_name("AGE");
        addConnection(*create, true);
        CLI::App* const list = part(group, "list", "Tokens by their beginnings",
                                    [this] { runTokenList(m_connection, m_token, m_identityPrint); });
        list->add_option("name", m_token.name, "only this identity's");
        addPrinting(*list, m_identityPrint);
        addConnection(*list, false);
        CLI::App* const revoke =
            part(group, "revoke", "Revoke an identity's tokens", [this] { runTokenRevoke(m_connection, m_token); });
        revoke->add_option("name", m_token.name)->required();
        revoke->add_option("--id", m_token.id, "only this one")->type_name("ID");
        addConnection(*revoke, true);
    }

    void addContext() {
        CLI::App& group = *m_app.add_subcommand("context", "Agents and databases by names, and which is asked");
        group.require_subcommand(1);
        group.footer(std::string("They are kept in ~/.config/qor/config.toml.\n") + exitNote);
        CLI::App* const set = part(group, "set", "Give an agent or a database a name",
                                   [this] { runContextSet(m_contextName, m_context); });
        set->add_option("name", m_contextName, "what it is called")->required();
        set->add_option("--agent", m_context.agent, "http://HOST:PORT or https://HOST:PORT")->type_name("ADDRESS");
        set->add_option("--socket", m_context.socket, "or the agent's socket")->type_name("PATH");
        set->add_option("--token-file", m_context.tokenFile, "the file that holds the token to show to it")
            ->type_name("FILE");
        set->add_option("--ca", m_context.ca, "the authority whose certificate it has")->type_name("FILE");
        set->add_option("--certificate", m_context.certificate, "the certificate to show to it")->type_name("FILE");
        set->add_option("--key", m_context.key, "that one's key (default: in its file)")->type_name("FILE");
        set->add_option("--database", m_context.database,
                        "or a database without an agent: SQLite's file, or an ODBC connection string")
            ->type_name("DATABASE");
        CLI::App* const use = part(group, "use", "Ask this one from now on", [this] { runContextUse(m_contextName); });
        use->add_option("name", m_contextName)->required();
        CLI::App* const remove = part(group, "remove", "Forget a name", [this] { runContextRemove(m_contextName); });
        remove->add_option("name", m_contextName)->required();
        CLI::App* const list = part(group, "list", "All of them", [this] { runContextList("", m_contextPrint); });
        addPrinting(*list, m_contextPrint);
        CLI::App* const show =
            part(group, "show", "One of them", [this] { runContextShow(m_contextName, m_contextPrint); });
        show->add_option("name", m_contextName, "by default the one that is asked");
        addPrinting(*show, m_contextPrint);
    }

    void addCheck() {
        CLI::App* const app = command("check", "Whether the database is sound: its file, its documents, its counters",
                                      [this] { runCheck(m_connection, m_check); });
        app->add_flag("--mend", m_check.mend, "mend what can be mended");
        addConnection(*app, false);
    }

    void addPrune() {
        CLI::App* const app = command("prune", "Remove old records, and give their space back",
                                      [this] { runPrune(m_connection, m_prune); });
        app->add_option(
               "--before", m_prune.before,
               "records before this go: a time (2024-01-31, 2024-01-31T12:00:00Z) or an age (90s, 45m, 12h, 30d, 8w)")
            ->type_name("TIME|AGE");
        app->add_flag("--operations", m_prune.operations, "of the operation log");
        app->add_flag("--events", m_prune.events, "of the event log");
        app->add_flag("--backups", m_prune.backups, "of the backups; without any of the three, all");
        app->add_flag("--unsent", m_prune.unsent, "also what waits for being sent to another agent (--forward)");
        app->add_flag("--compact", m_prune.compact,
                      "write the file anew without what is free in it; writers wait meanwhile");
        app->add_flag("--progress", m_prune.progress, "show progress even where standard error is no terminal");
        addConnection(*app, true);
    }

    void addImport() {
        CLI::App* const app =
            command("import", "Store records, one JSON object a line", [this] { runImport(m_connection, m_import); });
        app->add_option("file", m_import.file, "the records; - or nothing reads standard input")->type_name("FILE");
        addReport(*app, m_import.report);
        addConnection(*app, true);
    }

    void addExport() {
        CLI::App* const app = command("export", "Write what is stored as records, one JSON object a line, for import",
                                      [this] { runExport(m_connection, m_export); });
        app->add_option("--kinds", m_export.kinds, "only these, with commas between them (default: all)")
            ->delimiter(',')
            ->check(oneOfWords({"environments", "operations", "events", "backups"}))
            ->type_name("KINDS");
        addBounds(*app, m_export.bounds);
        app->add_option("-e,--environment", m_export.environment, "only this one, and records that belong to it")
            ->type_name("EID");
        app->add_option("-o,--output", m_export.file, "the file to write (default: standard output)")
            ->type_name("FILE");
        app->add_flag("--resume", m_export.resumes, "go on where the file ends");
        app->add_flag("--progress", m_export.progress, "show progress even where standard error is no terminal");
        addMany(*app, m_export.asks, "records");
        addConnection(*app, false);
        app->footer(
            std::string("Environments have no time: --since and --until leave them all in.\nA file that was not "
                        "written to its end is gone on with by the same command and --resume.\n") +
            exitNote);
    }

    void addSample() {
        CLI::App* const app = command("sample", "Store made-up records", [this] { runSample(m_connection, m_sample); });
        const auto amount = [app](const char* name, std::uint64_t& value, const char* description) {
            addNumber(*app, name, {0, mostRecords}, description, [&value](std::uint64_t number) { value = number; });
        };
        amount("--environments", m_sample.sample.environments, "environments to make");
        amount("--operations", m_sample.sample.operations, "operations to make");
        amount("--events", m_sample.sample.events, "events to make");
        amount("--backups", m_sample.sample.backups, "backups to make");
        addNumber(*app, "--seed", {0, mostNumber}, "the same seed makes the same records, by default 1",
                  [this](std::uint64_t seed) { m_sample.sample.seed = seed; });
        app->add_option("--output", m_sample.output,
                        "write the records to this file (-: standard output) and store none")
            ->type_name("FILE");
        addMany(*app, m_sample.asks, "records");
        addReport(*app, m_sample.report);
        addConnection(*app, true);
    }

    void addCollect() {
        CLI::App* const app =
            command("collect", "Store what this machine tells about itself", [this] { runCollect(m_connection); });
        addConnection(*app, true);
    }

    void addCopy() {
        CLI::App* const app = command("copy", "Move a database into another one, of the same engine or of another",
                                      [this] { runCopy(m_copy); });
        const auto database = [app](const char* name, std::string& value, const char* description) {
            app->add_option(name, value, description)->required()->transform(connectionStringOf)->type_name("DATABASE");
        };
        database("--from", m_copy.from, "SQLite's file, or an ODBC connection string; it is only read");
        database("--to", m_copy.to, "likewise; without records, or what the same copy has begun to fill");
        app->add_flag("--progress", m_copy.progress, "show progress even where standard error is no terminal");
        app->footer(std::string("Ended at any point, the same command goes on where it stood.\n") + exitNote);
    }

    void addDatabase() {
        CLI::App* const app = m_app.add_subcommand("database", "Where records are kept");
        app->require_subcommand(1);
        app->footer(exitNote);
        CLI::App* const shard = app->add_subcommand(
            "shard", "Spread a PostgreSQL database's records over several servers, add servers, check them");
        shard->callback([this] { m_run = [this] { runShard(m_shard); }; });
        shard
            ->add_option("--database", m_shard.home,
                         "ODBC connection string of the database that agents are pointed at")
            ->required()
            ->transform(connectionStringOf)
            ->type_name("DATABASE");
        shard->add_option("--servers", m_shard.servers, "names them, all of them: NAME CONNECTION-STRING, a line each")
            ->required()
            ->type_name("FILE");
        shard
            ->add_option("--split", m_shard.split,
                         "the server that gives half of its environments to a new one; by default the one with most "
                         "records")
            ->type_name("NAME");
        shard->add_flag("--print", m_shard.print,
                        "only print the statements that set all up, and run none; passwords as ***");
        shard->add_flag("--with-passwords", m_shard.passwords, "print them as they are")->needs("--print");
        shard->add_flag("--progress", m_shard.progress, "show progress even where standard error is no terminal");
        shard->footer(
            std::string("Ended at any point, the same command goes on where it stood. Given again when all is "
                        "done, it checks.\n") +
            exitNote);
    }

    void addSelfCheck() {
        CLI::App* const app = m_app.add_subcommand("self-check", "Proofs about this program, on copies of a database");
        app->require_subcommand(1);
        app->footer(exitNote);
        CLI::App* const security = app->add_subcommand(
            "security",
            "Prove that rows which a client may not see tell it nothing: its answers are those of a "
            "database without them");
        security->callback([this] { m_run = [this] { runSelfCheckSecurity(m_connection, m_security); }; });
        addNumber(*security, "--requests", {1, mostRequests}, "requests to make up, by default 20000",
                  [this](std::uint64_t requests) { m_security.requests = requests; });
        addNumber(*security, "--seed", {0, std::numeric_limits<std::uint64_t>::max()},
                  "the same seed makes the same requests, by default 1",
                  [this](std::uint64_t seed) { m_security.seed = seed; });
        addConnection(*security, true);
        security->footer(
            "The database is only read; copies of it lie in a private folder of temporary files meanwhile.\n" +
            std::string(exitNote));
    }

    void addPlugIn() {
        CLI::App& group = *m_app.add_subcommand("plugin", "For those who write plug-ins");
        group.require_subcommand(1);
        group.footer(exitNote);
        CLI::App* const check = part(group, "check", "What is wrong with a plug-in, and what to do about it",
                                     [this] { runPlugInCheck(m_plugIn, m_plugInPrint); });
        check->add_option("file", m_plugIn.file, "the library")->required()->type_name("FILE");
        check->add_option("--root", m_plugIn.root, "a tree with what its collectors read, as a machine has it below /")
            ->check(CLI::ExistingDirectory)
            ->type_name("FOLDER");
        check
            ->add_option_function<std::string>(
                "--timeout",
                [this](const std::string& text) {
                    m_plugIn.patience = std::chrono::seconds(durationOf("--timeout", text, longestCheck));
                },
                "what a check may take before it hangs (default: 1m)")
            ->type_name("DURATION");
        addPrinting(*check, m_plugInPrint);
        check->footer(
            "The plug-in is loaded and used in processes of their own, with a made-up database and what is below the "
            "folder; an agent takes no part.\n" +
            std::string(exitNote));
    }

    void addCompletion() {
        CLI::App* const app = command("completion", "What makes a shell complete the command lines of qorctl",
                                      [this] { printText(completionScript(m_shell)); });
        app->add_option("shell", m_shell, "bash, fish or zsh")->required()->check(oneOfWords(completionShells()));
        app->footer(std::string("Of this shell alone: source <(qorctl completion bash).\n") + exitNote);
    }

    static SelectOptions firstPage() {
        SelectOptions options;
        options.limit = shortPage;
        return options;
    }

    CLI::App m_app{"Asks the agent of this machine, or a database directly.", "qorctl"};
    ConnectionOptions m_connection;
    bool m_connects = false;  ///< the command asks somebody
    std::string m_contextName;
    ConnectionOptions m_context;
    PrintOptions m_contextPrint;
    IdentityOptions m_identity;
    TokenOptions m_token;
    PrintOptions m_identityPrint;
    SelectOptions m_select;
    PrintOptions m_selectPrint;
    RowsOptions m_rows;
    ExplainOptions m_explain;
    PrintOptions m_rowsPrint;
    SelectOptions m_short = firstPage();
    PrintOptions m_shortPrint;
    bool m_follows = false;
    std::string m_cursorFile;
    TimelineOptions m_timeline;
    PrintOptions m_timelinePrint;
    WatchOptions m_watch;
    RequestOptions m_request;
    ViewsOptions m_views;
    FieldsOptions m_fields;
    PrintOptions m_statusPrint;
    CheckOptions m_check;
    PruneOptions m_prune;
    ImportOptions m_import;
    ExportOptions m_export;
    SampleCommandOptions m_sample;
    CopyCommandOptions m_copy;
    ShardCommandOptions m_shard;
    QORPlugInCheckOptions m_plugIn;
    PrintOptions m_plugInPrint;
    SecurityCommandOptions m_security;
    std::string m_shell;
    std::function<void()> m_run;
    int m_filterExit = 0;
};

}  // namespace

int runCommandLine(const std::vector<std::string>& arguments) {
    // What the host logs about its own start is not what the person asked for; failures are.
    setLogLevel(0);
    try {
        const int status = CommandLine().run(arguments);
        return status == 0 && hasPagerFailed() ? static_cast<int>(CtlExit::AnsweredError) : status;
    } catch (const BrokenPipe&) {
        return static_cast<int>(CtlExit::Done);
    } catch (const CtlError& error) {
        tellPerson(error.what());
        return static_cast<int>(error.exit());
    } catch (const QORException& error) {
        tellPerson(CtlError::answered(error.code(), error.message()).what());
    } catch (const std::exception& error) {
        tellPerson(error.what());
    }
    return static_cast<int>(CtlExit::AnsweredError);
}

}  // namespace QOR
