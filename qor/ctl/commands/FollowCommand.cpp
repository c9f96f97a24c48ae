#include <fcntl.h>
#include <rapidjson/document.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORFiles.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "answer/EventReader.h"
#include "backend/AgentPauses.h"
#include "backend/AgentTarget.h"
#include "commands/Commands.h"
#include "commands/Printing.h"
#include "output/ManyRows.h"
#include "process/LineInput.h"
#include "select/SelectAdvice.h"

namespace QOR {
namespace {

using rapidjson::Document;
using rapidjson::Value;

[[noreturn]] void unreadableEvent() {
    throw CtlError(CtlExit::AnsweredError, "what the agent tells cannot be read");
}

Document read(const std::string& json) {
    Document document;
    document.Parse<rapidjson::kParseNumbersAsStringsFlag>(json.data(), json.size());
    if (document.HasParseError() || !document.IsObject()) unreadableEvent();
    return document;
}

std::string_view textIn(const Value& value) {
    if (!value.IsString()) unreadableEvent();
    return {value.GetString(), value.GetStringLength()};
}

std::string_view memberText(const Document& document, const char* name) {
    const auto found = document.FindMember(name);
    return found == document.MemberEnd() ? std::string_view() : textIn(found->value);
}

/// Rows out of the records that events tell.
class Records {
public:
    Records(const FollowOptions& options, const PrintOptions& print, Output& out, ColumnKinds kinds)
        : m_fields(options.fields), m_kinds(kindsOf(m_fields, kinds)), m_out(out), m_many(asksBeforeMany(print)) {
        m_printer = makePrinter(print, false, out, std::move(kinds));
        m_printer->begin(m_fields);
        m_printer->settle();
        m_out.flush();
    }

    void print(const std::string& json) {
        const Document record = read(json);
        std::vector<std::string> values(m_fields.size());
        std::vector<Cell> cells(m_fields.size());
        for (std::size_t at = 0; at < m_fields.size(); ++at) {
            const auto found = record.FindMember(m_fields[at].c_str());
            if (found == record.MemberEnd() || found->value.IsNull()) continue;
            cells[at].kind = fill(found->value, m_kinds[at], values[at]);
            cells[at].bytes = values[at];
        }
        m_many.row(m_out);
        m_printer->row(cells);
    }
    /// What was there has been shown; what comes takes its time.
    void live() { m_many.askNoMore(); }
    void flush() { m_out.flush(); }

private:
    static Cell::Kind fill(const Value& value, QORColumnKind kind, std::string& text) {
        if (value.IsObject()) {
            const auto bytes = value.FindMember("base64");
            if (bytes == value.MemberEnd()) unreadableEvent();
            text = parseBase64(textIn(bytes->value)).value_or("");
            return Cell::Kind::Binary;
        }
        if (value.IsBool()) {
            text = value.GetBool() ? "true" : "false";
            return Cell::Kind::Text;
        }
        text = textIn(value);
        // As answers to requests have times, so that all commands show the same.
        if (kind == QORColumnKind::Time && text.ends_with('Z')) text.replace(text.size() - 1, 1, "+0000");
        return Cell::Kind::Text;
    }

    const std::vector<std::string>& m_fields;
    std::vector<QORColumnKind> m_kinds;
    Output& m_out;
    ManyRows m_many;
    std::unique_ptr<RowSink> m_printer;
};

/// Where a follower stands, in a file: a line that is taken for what comes behind it.
class Cursor {
public:
    /// \param path empty: it is not kept
    explicit Cursor(std::string path) : m_path(std::move(path)) {}

    /// Empty where nothing is kept yet. \throws CtlError BadUsage for a file that cannot be read, or is something else
    std::string read() const {
        std::error_code error;
        if (m_path.empty() || !std::filesystem::exists(m_path, error)) return {};
        std::string text = InputFile(m_path).readAll(mostBytes);
        while (text.ends_with('\n'))
            text.pop_back();
        const bool isOne = std::all_of(text.begin(), text.end(), [](char ch) { return ch > ' ' && ch < '\x7f'; });
        if (!isOne) throw CtlError::usage(m_path + " is not what --cursor-file has written");
        return text;
    }

    /// All at once, so that it is never half there. \throws CtlError
    void keep(const std::string& position) {
        if (m_path.empty() || position == m_kept) return;
        const std::string next = m_path + ".new";
        try {
            const QORFileDescriptor file = openOwnFile(next, O_WRONLY | O_CREAT | O_TRUNC);
            FileOutput out(file.get());
            out << position << "\n";
            out.flush();
        } catch (const QORException& error) {
            throw CtlError::usage("cannot write " + next + ": " + error.message());
        }
        if (std::rename(next.c_str(), m_path.c_str()) != 0)
            throw CtlError::usage("cannot write " + m_path + ": " + std::generic_category().message(errno));
        m_kept = position;
    }

private:
    static constexpr std::size_t mostBytes = 4096;

    const std::string m_path;
    std::string m_kept;
};

/// What is followed, over as many connections as it takes.
class Follower {
public:
    Follower(const ConnectionOptions& connection, const FollowOptions& options, const PrintOptions& print)
        : m_connection(connection),
          m_options(options),
          m_print(print),
          m_output(openOutput(print)),
          m_cursor(options.cursorFile),
          m_position(m_cursor.read()) {}

    [[noreturn]] void run() {
        for (;;) {
            try {
                follow();
            } catch (const Lost& lost) {
                if (!std::exchange(m_told, true)) tellNote(std::string(lost.what()) + "; going on when it is back");
            }
            std::this_thread::sleep_for(m_pause);
            m_pause = std::min(m_pause * 2, lastPause);
        }
    }

private:
    /// The stream ended, and may be taken up again.
    struct Lost : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    void follow() {
        const std::unique_ptr<AnswerSource> source = open();
        EventReader events(*source);
        for (;;) {
            std::optional<ServerEvent> event;
            try {
                event = events.next();
            } catch (const CtlError& error) {
                throw Lost(error.what());
            }
            if (!event) throw Lost("the agent ended what it tells");
            take(*event);
            if (events.isReady()) continue;
            m_records->flush();
            m_cursor.keep(m_position);  // what is shown is not told again
        }
    }

    /// The first time what fails is told to the person; later it is waited for.
    std::unique_ptr<AnswerSource> open() {
        try {
            m_backend = makeBackend(m_connection, BackendUse::Ask);
            if (!m_records) m_records.emplace(m_options, m_print, *m_output, kinds());
            auto source = m_backend->get(target());
            m_hasBegun = true;
            return source;
        } catch (const CtlError& error) {
            if (!m_hasBegun || error.exit() != CtlExit::NoConnection) throw;
            throw Lost(error.what());
        }
    }

    std::string target() const {
        std::string fields;
        for (const std::string& field : m_options.fields)
            fields += (fields.empty() ? "" : ",") + quoteName(field);
        const std::string& after = m_position.empty() && m_options.fromBeginning ? "beginning" : m_position;
        return AgentTarget("/v1/follow")
            .with("source", m_options.source)
            .with("fields", fields)
            .with("where", m_options.where)
            .with("after", after)
            .text();
    }

    ColumnKinds kinds() {
        ColumnKinds found;
        for (const QORViewColumn& column : m_backend->views())
            if (isSameWord(column.view, m_options.view)) found[column.column] = columnKindOf(column.type);
        return found;
    }

    void take(const ServerEvent& event) {
        if (!event.id.empty()) m_position = event.id;
        if (event.type == "end") return end(read(event.data));
        m_pause = firstPause;
        m_told = false;
        if (event.type == "gap") return tellGap(read(event.data));
        if (event.type == "live") m_records->live();
        if (event.type == m_options.source) m_records->print(event.data);
    }

    static void tellGap(const Document& gap) {
        const std::string_view changes = memberText(gap, "changes");
        tellNote(memberText(gap, "reason") == "reset"
                     ? "the database was put back to an earlier state; going on from there"
                     : (changes.empty() ? "some" : std::string(changes)) +
                           " changes are not told: their records have been removed");
    }

    /// What passes is tried again; what will be the same again is an error.
    static void end(const Document& problem) {
        const std::string_view code = memberText(problem, "code");
        const std::string_view detail = memberText(problem, "detail");
        const std::string text(detail.empty() ? memberText(problem, "title") : detail);
        constexpr std::string_view passing[] = {"too_slow", "revoked", "stopping", "failing"};
        if (std::find(std::begin(passing), std::end(passing), code) != std::end(passing)) throw Lost(text);
        throw CtlError(CtlExit::AnsweredError, text);
    }

    const ConnectionOptions& m_connection;
    const FollowOptions& m_options;
    const PrintOptions& m_print;
    std::unique_ptr<Output> m_output;
    std::unique_ptr<Backend> m_backend;
    std::optional<Records> m_records;
    Cursor m_cursor;
    std::string m_position;  ///< behind which the stream goes on
    bool m_hasBegun = false;
    std::chrono::milliseconds m_pause = firstPause;
    bool m_told = false;
};

}  // namespace

void runFollow(const ConnectionOptions& connection, const FollowOptions& options, const PrintOptions& asked) {
    if (connection.standalone)
        throw CtlError::usage(
            "following needs an agent: a database by itself tells nobody what comes; --watch 2s asks "
            "again and again");
    if (!asked.pattern && !asked.form->isForLines)
        throw CtlError::usage("a list of form " + std::string(asked.form->name) +
                              " has an end, which --follow never has; take table, ndjson, csv or tsv");
    PrintOptions print = asked;
    print.pages = false;
    Follower(connection, options, print).run();
}

}  // namespace QOR
