#include "agent/api/AgentFollow.h"

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORChangeWatch.h"
#include "QORLibAgent/QORPageToken.h"
#include "QORLibAgent/QORRecordChanges.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRows.h"
#include "agent/api/AgentRowsWriter.h"
#include "agent/api/AgentSources.h"
#include "agent/api/AgentTrace.h"

namespace QOR {
namespace {

/// Of one page, whose rows are asked for together.
constexpr std::size_t recordsAtOnce = 200;
/// How soon it is noticed that the follow has to end.
constexpr auto betweenLooks = std::chrono::milliseconds(200);
constexpr std::size_t pieceBytes = std::size_t{32} << 10;
/// What a token of a follow says that it is of.
constexpr const char* question = "follow";
constexpr std::string_view beginning = "beginning";

/// Where a follow stands, as its events tell it.
struct Place {
    QORChangePosition position{};
    std::int64_t now = 0;  ///< what relative times are relative to: when the follow began
};

std::string sealed(const Place& place) {
    QORPageToken token;
    token.question = question;
    token.now = place.now;
    for (const auto& [server, number] : place.position) {
        token.key.emplace_back(server);
        token.key.emplace_back(std::to_string(number));
    }
    return sealPageToken(token);
}

/// \param where the parameter or field that holds the token
Place opened(std::string_view text, const std::string& where) {
    QORPageToken token;
    try {
        token = openPageToken(text);
    } catch (const QORException& error) {
        throwProblem({.detail = where + ": " + error.message(), .code = "bad_token", .parameter = where});
    }
    if (token.question != question || token.key.size() % 2 != 0)
        throwProblem({.detail = where + ": the token is not one of an event", .code = "bad_token", .parameter = where});
    Place place{{}, token.now};
    for (std::size_t at = 0; at < token.key.size(); at += 2)
        place.position[token.key[at].value_or("")] = parseInt64(token.key[at + 1].value_or("")).value_or(0);
    return place;
}

std::string nowText() {
    std::string text = time2str(currentTime());
    return text.substr(0, text.find('+')) + "Z";
}

Place beginOf(const AgentCall& call) {
    const std::string_view last = call.request.field("Last-Event-ID");
    if (!last.empty()) return opened(last, "Last-Event-ID");
    const std::string_view after = call.parameters.text("after");
    if (after == beginning) return {{}, currentTime()};
    if (call.parameters.has("after")) return opened(after, "after");
    return {QORChangeReader::end(), currentTime()};
}

std::vector<const AgentSource*> sourcesOf(const AgentParameters& parameters) {
    if (parameters.has("source")) return sourcesNamed(parameters);
    return {&agentSources[static_cast<std::size_t>(QORChangeKind::Operation)],
            &agentSources[static_cast<std::size_t>(QORChangeKind::Event)]};
}

/// Rows as objects in one line each, by what is in the last column, which is not part of them.
class KeyedRows final : public AgentRowsWriter {
public:
    explicit KeyedRows(std::map<std::string, std::string, std::less<>>& rows)
        : AgentRowsWriter({}),
          m_rows(rows),
          m_objects(makeRowsWriter(AgentFormat::Ndjson, [this](std::string_view text) {
              m_object += text;
              return true;
          })) {}

    void begin(std::vector<AgentColumn> columns) override {
        columns.pop_back();
        m_objects->begin(std::move(columns));
    }
    void row(std::span<const QORRowValue> values) override {
        m_objects->row(values.first(values.size() - 1));
        m_objects->flush();
        m_object.pop_back();  // the line's end
        m_rows[std::string(values.back().bytes)] = std::exchange(m_object, {});
    }
    void end(const AgentPage&) override {}

private:
    std::map<std::string, std::string, std::less<>>& m_rows;
    std::string m_object;
    std::unique_ptr<AgentRowsWriter> m_objects;
};

/// Asks for records of one source by their identifiers.
class SourceRows {
public:
    SourceRows(AgentCall& call, const AgentSource& source, std::int64_t now)
        : m_call(call), m_source(source), m_views(call.application.views().listWith(source.view)) {
        m_context.all = true;
        m_context.now = now;
        if (call.parameters.text("where").find("current_eid") != std::string_view::npos)
            m_context.currentEid = currentEidOf(call);
    }

    /// \throws AgentProblemException for what cannot be asked of this source
    void check() const {
        const AgentView& view = m_views->find(m_source.view)->second;
        makeViewSelect(*m_views, view, parametersOf(m_call.parameters.text("where")), m_context);
        selectOf({m_source.isNumber ? "1" : QOREID().toString()});
    }

    std::map<std::string, std::string, std::less<>> read(const std::set<std::string>& ids) {
        std::map<std::string, std::string, std::less<>> rows;
        if (ids.empty()) return rows;
        KeyedRows writer(rows);
        AgentSelect select = selectOf(ids);
        giveOperatorRows(m_call, select, writer, [](std::int64_t) { return true; });
        return rows;
    }

private:
    AgentParameters parametersOf(std::string_view where) const {
        return AgentParameters::ofBody(writtenObject([&](JsonWriter& json) {
                                           writeKey(json, "fields");
                                           json.StartArray();
                                           for (const std::string& field : fields())
                                               writeText(json, field);
                                           json.EndArray();
                                           if (!where.empty()) writeMember(json, "where", where);
                                       }),
                                       viewRowsParameters);
    }

    /// With the identifier behind them.
    std::vector<std::string> fields() const {
        std::vector<std::string> all;
        if (m_call.parameters.has("fields")) {
            for (const AgentListItem& item : splitList(m_call.parameters, "fields"))
                all.emplace_back(item.text);
        } else {
            for (const AgentViewColumn& column : m_views->find(m_source.view)->second.columns) {
                if (column.kind != QORColumnKind::Bytes && !column.ofRowSecurity) all.push_back(column.name);
            }
        }
        all.emplace_back(m_source.id);
        return all;
    }

    AgentSelect selectOf(const std::set<std::string>& ids) const {
        std::string where(m_source.id);
        const char* separator = " in (";
        for (const std::string& id : ids) {
            where.append(separator).append(m_source.isNumber ? id : literalOf(id));
            separator = ", ";
        }
        where += ")";
        // It has been read as a whole condition by itself: nothing of it reaches beyond the parentheses.
        if (m_call.parameters.has("where")) where.append(" and (").append(m_call.parameters.text("where")).append(")");
        return makeViewSelect(*m_views, m_views->find(m_source.view)->second, parametersOf(where), m_context);
    }

    AgentCall& m_call;
    const AgentSource& m_source;
    std::shared_ptr<const AgentViews::List> m_views;
    AgentSelectContext m_context;
};

/// Events on their way to the client.
class EventStream {
public:
    EventStream(HttpReplyStream& stream, std::chrono::milliseconds patience) : m_stream(stream), m_patience(patience) {}

    void add(std::string_view event, const std::string& id, std::string_view data) {
        m_text.append("event: ").append(event);
        if (!id.empty()) m_text.append("\nid: ").append(id);
        m_text.append("\ndata: ").append(data).append("\n\n");
        if (m_text.size() >= pieceBytes) flush();
    }
    void flush() {
        if (m_text.empty()) return;
        const auto begin = std::chrono::steady_clock::now();
        m_isOpen = m_isOpen && m_stream.send(m_text);
        m_text.clear();
        m_last = std::chrono::steady_clock::now();
        m_isSlow = m_isSlow || m_last - begin > m_patience;
    }
    /// Whether the client is there and takes what it is sent.
    bool goesOn() const noexcept { return m_isOpen && !m_isSlow; }
    bool isSlow() const noexcept { return m_isSlow; }
    std::chrono::steady_clock::duration silence() const { return std::chrono::steady_clock::now() - m_last; }

private:
    HttpReplyStream& m_stream;
    const std::chrono::milliseconds m_patience;
    std::string m_text;
    std::chrono::steady_clock::time_point m_last = std::chrono::steady_clock::now();
    bool m_isOpen = true;
    bool m_isSlow = false;
};

class Follow {
public:
    Follow(AgentCall& call, const AgentFollowSettings& settings)
        : m_call(call),
          m_settings(settings),
          m_place(beginOf(call)),
          m_events(*call.request.stream, settings.patience) {
        for (const AgentSource* source : sourcesOf(call.parameters)) {
            m_kinds.insert(source->kind);
            m_sources.emplace(source->kind, SourceRows(call, *source, m_place.now)).first->second.check();
        }
    }

    void run() {
        m_call.request.stream->describe(std::string(followTypes.front()), {{"Cache-Control", "no-store"}});
        try {
            follow();
        } catch (const QORException& error) {
            if (!ended()) tellEnd(problemOf(error));
        } catch (const std::exception& error) {
            tellEnd({.status = 503, .detail = error.what(), .code = "failed"});
        }
        if (const auto reason = ended()) tellEnd(*reason);
        m_events.flush();
    }

private:
    void follow() {
        QORChangeReader reader(m_kinds, m_place.position);
        QORChangeWatch& watch = m_call.application.changes();
        m_events.add("open", sealed(m_place), "{}");
        bool live = false;
        while (!ended()) {
            const std::uint64_t seen = watch.seen();
            const QORRecordChanges changes = reader.read(QORRowAccess(*m_call.session().context()), recordsAtOnce);
            tell(changes);
            m_place.position = reader.position();
            if (changes.atEnd && !std::exchange(live, true)) m_events.add("live", sealed(m_place), "{}");
            m_events.flush();
            while (changes.atEnd && !ended() && watch.seen() == seen) {
                if (m_events.silence() >= m_settings.heartbeat) beat();
                watch.await(seen, betweenLooks);
            }
        }
    }

    void beat() {
        m_events.add("heartbeat", sealed(m_place),
                     writtenObject([](JsonWriter& json) { writeMember(json, "time", nowText()); }));
        m_events.flush();
    }

    void tell(const QORRecordChanges& changes) {
        if (changes.reset || changes.missing > 0) tellGap(changes);
        std::map<QORChangeKind, std::set<std::string>> ids;
        for (const QORRecordChange& one : changes.records)
            ids[one.kind].insert(one.id);
        std::map<QORChangeKind, std::map<std::string, std::string, std::less<>>> rows;
        for (const auto& [kind, wanted] : ids)
            rows[kind] = m_sources.at(kind).read(wanted);
        // Of what was changed several times only the last change is told.
        std::vector<const std::string*> objects(changes.records.size());
        for (std::size_t at = changes.records.size(); at-- > 0;) {
            const QORRecordChange& one = changes.records[at];
            if (ids[one.kind].erase(one.id) == 0) continue;
            if (const auto row = rows[one.kind].find(one.id); row != rows[one.kind].end()) objects[at] = &row->second;
        }
        for (std::size_t at = 0; at < objects.size() && m_events.goesOn(); ++at) {
            const QORRecordChange& one = changes.records[at];
            m_place.position[one.server] = one.number;
            if (objects[at] != nullptr)
                m_events.add(agentSources[static_cast<std::size_t>(one.kind)].name, sealed(m_place), *objects[at]);
        }
    }

    /// How many they were is for those to know who may see all of them.
    void tellGap(const QORRecordChanges& changes) {
        m_events.add("gap", {}, writtenObject([&](JsonWriter& json) {
                         writeMember(json, "reason", changes.reset ? "reset" : "removed");
                         if (changes.reset || !m_call.session().context()->fullAccess) return;
                         writeKey(json, "changes");
                         json.Uint64(changes.missing);
                     }));
    }

    /// Why it is over; nothing while it is not.
    std::optional<AgentProblem> ended() const {
        if (m_events.isSlow())
            return AgentProblem{.status = 503,
                                .detail =
                                    "the client takes too long to take what it is sent (--follow-patience); it "
                                    "may follow again from its last event",
                                .code = "too_slow"};
        if (!m_events.goesOn()) return AgentProblem{.status = 499, .detail = "the client has gone", .code = "gone"};
        const QORRequestControl* const control = QORRequestControl::current();
        if (control == nullptr) return std::nullopt;
        switch (control->ended()) {
            case QORRequestControl::End::None:
                return std::nullopt;
            case QORRequestControl::End::Stopping:
                return AgentProblem{.status = 503, .detail = "the agent is stopping", .code = "stopping"};
            case QORRequestControl::End::Revoked:
                return AgentProblem{.status = 401, .detail = "what the client may see has changed", .code = "revoked"};
            default:
                return AgentProblem{.status = 503, .detail = control->text(), .code = "gone"};
        }
    }

    void tellEnd(const AgentProblem& problem) {
        if (std::exchange(m_toldEnd, true)) return;
        static_cast<AgentTrace*>(m_call.request.trace)->problem = codeOf(problem);
        m_events.add("end", {}, problemReply(problem).body);
    }

    AgentCall& m_call;
    const AgentFollowSettings m_settings;
    Place m_place;
    EventStream m_events;
    std::set<QORChangeKind> m_kinds;
    std::map<QORChangeKind, SourceRows> m_sources;
    bool m_toldEnd = false;
};

void requireSequence() {
    QORRdbmsTran tran(ASAccess::ReadOne);
    if (!keepsRecordChanges(*tran))
        throwProblem({.status = 404,
                      .detail = "the database keeps no order of changes: it is another program's, or of an older "
                                "version and only read",
                      .code = "no_changes"});
}

}  // namespace

std::vector<const AgentSource*> sourcesNamed(const AgentParameters& parameters) {
    std::vector<const AgentSource*> sources;
    for (const AgentListItem& item : splitList(parameters, "source")) {
        const auto* const source = std::find_if(agentSources.begin(), agentSources.end(),
                                                [&](const AgentSource& one) { return one.name == item.text; });
        if (source == agentSources.end())
            throwProblem({.detail = "source: there is no source " + quoteText(item.text),
                          .code = "bad_parameter",
                          .parameter = "source",
                          .found = std::string(item.text),
                          .expected = "operations, events, backups or environments"});
        if (std::find(sources.begin(), sources.end(), source) == sources.end()) sources.push_back(source);
    }
    return sources;
}

std::string literalOf(std::string_view text) {
    std::string literal = "'";
    for (const char c : text)
        literal.append(c == '\'' ? 2 : 1, c);
    return literal + "'";
}

HttpReply answerFollow(AgentCall& call) {
    requireSequence();
    if (QORRequestControl* const control = QORRequestControl::current()) control->lift();
    Follow follow(call, call.application.followSettings());
    HttpReply reply;
    reply.contentType = followTypes.front();
    if (call.request.method != "HEAD") follow.run();
    return reply;
}

}  // namespace QOR
