#include "agent/api/AgentTimeline.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "QORCommon/QORDigest.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORGuid.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORLibAgent/QORPageToken.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentBounds.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRows.h"
#include "agent/api/AgentSources.h"

namespace QOR {
namespace {

using Values = std::vector<std::optional<std::string>>;

/// A record as its source tells it.
struct Moment {
    std::string time;
    std::size_t source = 0;  ///< its place among those of the timeline
    std::string id;
    std::optional<std::string> environment{};
    Values rest{};  ///< what its sentence is made of
};

std::string orElse(const std::optional<std::string>& value, std::string_view other) {
    return std::string(value && !value->empty() ? std::string_view(*value) : other);
}

std::string sentenceOfOperation(const Values& values) {
    const std::string package = orElse(values[2], "");
    std::string text = orElse(values[0], "an operation");
    if (!package.empty()) text += " of " + package + (values[3] && !values[3]->empty() ? " " + *values[3] : "");
    return text + (values[1] == "0" ? " succeeded" : " ended with status " + orElse(values[1], "unknown"));
}

std::string sentenceOfEvent(const Values& values) {
    return "event " + orElse(values[1], "of no category") + " from " + orElse(values[0], "an unknown source");
}

std::string sentenceOfBackup(const Values& values) {
    const std::string name = orElse(values[0], "");
    return "backup " + (name.empty() ? std::string() : quoteText(name) + " ") + "of " + orElse(values[1], "0") +
           " bytes";
}

/// A source of the timeline. Records of one time stand in the order of the sources, those of one source by identifier.
struct TimelineSource {
    QORChangeKind kind;
    std::string_view columns;  ///< behind time, identifier and environment
    std::string (*sentence)(const Values& values);
};
constexpr std::array<TimelineSource, 3> sources{
    {{QORChangeKind::Operation, ",op,status,package,version", sentenceOfOperation},
     {QORChangeKind::Event, ",source,category", sentenceOfEvent},
     {QORChangeKind::Backup, ",name,size", sentenceOfBackup}}};

const AgentSource& sourceOf(std::size_t place) {
    return agentSources[static_cast<std::size_t>(sources.at(place).kind)];
}

class Moments final : public AgentRowsWriter {
public:
    Moments(std::vector<Moment>& into, std::size_t source) : AgentRowsWriter({}), m_into(into), m_source(source) {}

    void begin(std::vector<AgentColumn>) override {}
    void row(std::span<const QORRowValue> values) override {
        Values texts;
        for (const QORRowValue& value : values)
            texts.push_back(value.kind == QORValueKind::None ? std::nullopt : std::optional(std::string(value.bytes)));
        m_into.push_back(
            {texts[0].value_or(""), m_source, texts[1].value_or(""), texts[2], Values(texts.begin() + 3, texts.end())});
    }
    void end(const AgentPage&) override {}

private:
    std::vector<Moment>& m_into;
    const std::size_t m_source;
};

/// The page before, as its token tells it.
struct Before {
    std::string time;
    std::size_t source = 0;
    std::string id;
};

class Timeline {
public:
    explicit Timeline(AgentCall& call) : m_call(call), m_now(currentTime()) {
        m_question = questionOf();
        if (call.parameters.has("after")) open(call.parameters.text("after"));
        readBounds();
    }

    HttpReply answer() {
        AgentRowsForm form = rowsFormOf(m_call.request, m_call.parameters);
        form.stream = false;
        const auto limit = static_cast<std::size_t>(rowsWanted(m_call.parameters, false));
        std::vector<Moment> moments;
        for (std::size_t source = 0; source < sources.size(); ++source)
            read(source, limit + 1, moments);
        // Each source's are in this order by themselves.
        std::stable_sort(moments.begin(), moments.end(), [](const Moment& a, const Moment& b) {
            return a.time != b.time ? a.time > b.time : a.source < b.source;
        });
        AgentPage page;
        page.goesOn = true;
        if (moments.size() > limit) {
            moments.resize(limit);
            page.next = tokenOf(moments.back());
        }
        page.returned = static_cast<std::int64_t>(moments.size());
        return replyWithRows(m_call, form, [&](AgentRowsWriter& writer, const auto& afterRow) {
            write(writer, afterRow, moments, page);
        });
    }

private:
    /// What a page and the next one have in common.
    std::string questionOf() const {
        QORDigest digest;
        digest.add("timeline");
        for (const char* name : {"from", "to", "env"})
            digest.add(std::string("\n") + name + (m_call.parameters.has(name) ? "=" : "") +
                       std::string(m_call.parameters.text(name)));
        return digest.hex();
    }

    void open(std::string_view text) {
        const auto refuse = [](const std::string& why) {
            throwProblem({.detail = "after: " + why, .code = "bad_token", .parameter = "after"});
        };
        QORPageToken token;
        try {
            token = openPageToken(text);
        } catch (const QORException& error) {
            refuse(error.message());
        }
        if (token.question != m_question || token.key.size() != 3) refuse("the page token is one of another question");
        m_now = token.now;
        m_before = Before{token.key[0].value_or(""), static_cast<std::size_t>(token.offset), token.key[2].value_or("")};
    }

    std::string tokenOf(const Moment& last) const {
        QORPageToken token;
        token.question = m_question;
        token.now = m_now;
        token.offset = static_cast<std::int64_t>(last.source);
        token.key = {last.time, std::nullopt, last.id};
        return sealPageToken(token);
    }

    /// What all sources have in common. \throws AgentProblemException for a text that is no such value
    void readBounds() {
        addTime("from", ">=");
        addTime("to", "<=");
        if (const QOREID eid = environmentOf(m_call.parameters); m_call.parameters.has("env"))
            add("eid = " + literalOf(eid.toString()));
    }

    void addTime(const char* name, const char* comparison) {
        if (const auto time = timeOf(m_call.parameters, name, m_now))
            add(std::string("time ") + comparison + " " + literalOf(time2str(*time)));
    }

    void add(const std::string& condition) { m_bounds += (m_bounds.empty() ? "" : " and ") + condition; }

    /// Records of the source that stand behind the page before.
    std::string behind(std::size_t source) const {
        const std::string time = literalOf(m_before->time);
        if (source < m_before->source) return "time < " + time;
        if (source > m_before->source) return "time <= " + time;
        const std::string id = sourceOf(source).isNumber ? m_before->id : literalOf(m_before->id);
        return "time <= " + time + " and (time < " + time + " or id < " + id + ")";
    }

    static AgentParameters parametersOf(std::size_t source, std::size_t most, const std::string& where) {
        return AgentParameters::ofBody(writtenObject([&](JsonWriter& json) {
                                           writeMember(json, "fields",
                                                       "time,id,eid" + std::string(sources.at(source).columns));
                                           writeMember(json, "sort", "-time,-id");
                                           writeKey(json, "limit");
                                           json.Uint64(most);
                                           if (!where.empty()) writeMember(json, "where", where);
                                       }),
                                       viewRowsParameters);
    }

    AgentSelect selectOf(std::size_t source, std::size_t most, const std::string& where) const {
        const std::string_view view = sourceOf(source).view;
        const auto views = m_call.application.views().listWith(view);
        AgentSelectContext context;
        context.now = m_now;
        return makeViewSelect(*views, views->find(view)->second, parametersOf(source, most, where), context);
    }

    void read(std::size_t source, std::size_t most, std::vector<Moment>& into) {
        std::string where = m_bounds;
        if (m_before) where += (where.empty() ? "" : " and ") + behind(source);
        AgentSelect select = selectOf(source, most, where);
        Moments moments(into, source);
        giveOperatorRows(m_call, select, moments, [](std::int64_t) { return true; });
    }

    void write(AgentRowsWriter& writer, const std::function<bool(std::int64_t)>& afterRow,
               const std::vector<Moment>& moments, const AgentPage& page) {
        writer.begin({{"time", QORColumnKind::Time},
                      {"source", QORColumnKind::Text},
                      {"env", QORColumnKind::Identifier},
                      {"environment", QORColumnKind::Text},
                      {"id", QORColumnKind::Text},
                      {"text", QORColumnKind::Text}});
        const QORClientContextScope scope(m_call.session().context());
        const auto environments = envCache()->getEnvList();
        const auto textOf = [](std::string_view text) { return QORRowValue{text, QORValueKind::Text}; };
        std::int64_t rows = 0;
        for (const Moment& moment : moments) {
            const std::string name = moment.environment ? nameOf(*environments, *moment.environment) : std::string();
            const std::string sentence = sources.at(moment.source).sentence(moment.rest);
            const std::array<QORRowValue, 6> values{textOf(moment.time),
                                                    textOf(sourceOf(moment.source).name),
                                                    moment.environment ? textOf(*moment.environment) : QORRowValue{},
                                                    name.empty() ? QORRowValue{} : textOf(name),
                                                    textOf(moment.id),
                                                    textOf(sentence)};
            writer.row(values);
            if (!afterRow(++rows)) return;
        }
        writer.end(page);
    }

    /// What people call it, of what its records say; nothing for one that is not known, or not shown.
    static std::string nameOf(const QOREnvList& environments, const std::string& text) {
        QOREID eid;
        if (!eid.fromString(text)) return {};
        const auto env = environments.find(eid);
        if (!env) return {};
        if (env->getTitle() && !env->getTitle()->empty()) return *env->getTitle();
        for (const auto& config : {env->getConfig(), env->getVirtualConfig()}) {
            if (!config) continue;
            for (const QOREnvMember member : {QOREnvMember::Name, QOREnvMember::Hostname}) {
                if (const auto& value = config->text(member); value && !value->empty()) return *value;
            }
        }
        return {};
    }

    AgentCall& m_call;
    std::string m_question;
    std::int64_t m_now;
    std::optional<Before> m_before;
    std::string m_bounds;  ///< a condition; empty: none
};

}  // namespace

HttpReply answerTimeline(AgentCall& call) {
    return Timeline(call).answer();
}

}  // namespace QOR
