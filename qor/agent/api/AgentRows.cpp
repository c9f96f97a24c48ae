#include "agent/api/AgentRows.h"

#include <algorithm>
#include <deque>
#include <optional>
#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORKeptByText.h"
#include "QORCommon/QORMemory.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORMessage/QORAnswer.h"
#include "agent/api/AgentAccept.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentOperatorProblem.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRoutes.h"
#include "host/QORAnswerText.h"

namespace QOR {
namespace {

std::string_view valueOf(const QORMessageNode& node) {
    return {node.data, node.size};
}

/// What an operator answers, on its way to the writer: columns in the order of their names become those that were asked
/// for.
class OperatorRows final : public QORAnswerFormat {
public:
    /// \param place becomes that of an error in the filter; null: nobody asks
    OperatorRows(AgentRowsWriter& writer, std::vector<AgentColumn> columns, std::vector<std::string> names,
                 std::optional<std::int64_t>* place = nullptr)
        : m_writer(writer), m_columns(std::move(columns)), m_wanted(std::move(names)), m_place(place) {}

    void element(const QORMessageNode& element) override {
        if (element.tag == tag::offset && m_place != nullptr) *m_place = parseInt64(valueOf(element));
    }
    void openRows(const QORMessageNode&) override {}
    void child(const QORMessageNode& child) override {
        switch (child.tag) {
            case tag::name:
                m_names.emplace_back(valueOf(child));
                break;
            case tag::cell:
                m_names.push_back(nameIn(child));
                break;
            case tag::row:
                rowOfElements(child);
                break;
            case tag::total:
                m_page.total = parseInt64(valueOf(child));
                break;
            case tag::exactness:
                m_page.exactness = valueOf(child);
                break;
            case tag::most:
                m_page.most = parseInt64(valueOf(child));
                break;
            case tag::spent:
                m_page.spent = parseInt64(valueOf(child));
                break;
            case tag::next:
                m_page.goesOn = true;
                if (child.size > 0) m_page.next.emplace(valueOf(child));
                break;
            case tag::changed:
                m_page.changed = valueOf(child) == "true";
                break;
            default:
                break;
        }
    }
    void row(std::span<const QORRowValue> values) override {
        begin();
        ++m_page.returned;
        if (m_places.empty()) return m_writer.row(values);
        for (std::size_t at = 0; at < m_places.size(); ++at)
            m_values[at] = m_places[at] < values.size() ? values[m_places[at]] : QORRowValue{};
        m_writer.row(m_values);
    }
    void closeRows() override { begin(); }
    void end(const QORAnswerError* error) override {
        if (error != nullptr) throw QORException(error->code, error->message);
        begin();
        m_writer.end(m_page);
    }
    void flush() override { m_writer.flush(); }

private:
    /// Where each column stands in the rows; nothing where they stand as they were asked for.
    void begin() {
        if (std::exchange(m_begun, true)) return;
        if (m_names != m_wanted) {
            for (const std::string& name : m_wanted) {
                const auto found = std::find(m_names.begin(), m_names.end(), name);
                m_places.push_back(static_cast<std::size_t>(found - m_names.begin()));
            }
            m_values.resize(m_places.size());
        }
        m_writer.begin(std::move(m_columns));
    }

    /// The name of a column that stands in a cell, or for a list in one within.
    static std::string nameIn(const QORMessageNode& cell) {
        const QORMessageNode* child = cell.firstChild;
        if (child != nullptr && child->tag == tag::cell) child = child->firstChild;
        return child == nullptr ? std::string() : std::string(valueOf(*child));
    }

    void rowOfElements(const QORMessageNode& row) {
        std::vector<QORRowValue> values;
        std::deque<std::string> lists;
        for (const QORMessageNode* value = row.firstChild; value != nullptr; value = value->next)
            values.push_back(value->tag == tag::cell ? valueIn(*value, lists)
                                                     : QORRowValue{valueOf(*value), value->kind});
        this->row(values);
    }

    /// The value in a cell, or the values of the cells within as one. \param lists where texts are put together
    static QORRowValue valueIn(const QORMessageNode& cell, std::deque<std::string>& lists) {
        const QORMessageNode* child = cell.firstChild;
        if (child == nullptr) return {};
        if (child->tag == tag::value) return {valueOf(*child), child->kind};
        std::string& list = lists.emplace_back();
        for (; child != nullptr; child = child->next) {
            if (!list.empty()) list += AgentRowsWriter::listSeparator;
            if (child->firstChild != nullptr) list += valueOf(*child->firstChild);
        }
        return {list, QORValueKind::Text};
    }

    AgentRowsWriter& m_writer;
    std::vector<AgentColumn> m_columns;
    const std::vector<std::string> m_wanted;
    std::vector<std::string> m_names;
    std::vector<std::size_t> m_places;
    std::vector<QORRowValue> m_values;
    AgentPage m_page;
    bool m_begun = false;
    std::optional<std::int64_t>* const m_place;
};

const HttpFields variesByAccept{{"Vary", "Accept"}};

/// What decides how a question is read, but for the views and the moment. Nothing in it holds a NUL.
std::string questionText(std::string_view view, const AgentParameters& parameters, const AgentSelectContext& context) {
    std::string text(view);
    text.append(1, '\0').append(context.currentEid).append(1, '\0').append(context.all ? "all" : "page");
    return text.append(1, '\0').append(parameters.asText());
}

constexpr std::string_view howToGetTheRest =
    ": ask for fewer rows (limit), fewer fields, or for all as a stream (Accept: application/x-ndjson, without limit)";

}  // namespace

std::string currentEidOf(AgentCall& call) {
    const QORClientContextPtr context = call.session().context();
    QOREID eid;
    if (!context->token->ownSID() || !extractObjIdFromSID(*context->token->ownSID(), eid)) return {};
    return eid.toString();
}

void giveOperatorRows(AgentCall& call, AgentSelect& select, AgentRowsWriter& writer,
                      const std::function<bool(std::int64_t rows)>& afterRow) {
    OperatorRows rows(writer, std::move(select.columns), std::move(select.names));
    call.host.router().ask(call.session(), select.envelope, rows, afterRow);
}

AgentRowsForm rowsFormOf(const HttpRequest& request, const AgentParameters& parameters) {
    AgentRowsForm form;
    if (parameters.has("format")) {
        const auto* const word = std::find(agentFormatWords.begin(), agentFormatWords.end(), parameters.text("format"));
        form.format = static_cast<AgentFormat>(word - agentFormatWords.begin());
    } else if (const auto place = acceptedType(request, agentFormatTypes)) {
        form.format = static_cast<AgentFormat>(*place);
    } else {
        throwProblem({.status = 406, .detail = "rows are answered as JSON, NDJSON, CSV, XML or notation"});
    }
    form.stream = form.format == AgentFormat::Ndjson && !parameters.has("limit") && !parameters.has("after");
    return form;
}

bool streamsRows(const HttpRequest& head, const AgentParameters& parameters) {
    return rowsFormOf(head, parameters).stream;
}

HttpReply replyWithRows(
    AgentCall& call, const AgentRowsForm& form,
    const std::function<void(AgentRowsWriter& writer, const std::function<bool(std::int64_t rows)>& afterRow)>& give) {
    const std::string type(agentFormatTypes[static_cast<std::size_t>(form.format)]);
    HttpReply reply;
    reply.contentType = type;
    reply.fields = variesByAccept;
    if (!form.stream) {
        QORAnswerText text(call.host.router().answerLimits().bytes);
        bool fits = true;
        const auto writer =
            makeRowsWriter(form.format, [&](std::string_view block) { return fits = fits && text.add(block); });
        give(*writer, [&](std::int64_t) { return fits; });
        if (!fits)
            throwProblem(
                {.status = 422,
                 .detail = "the answer is larger than " + describeBytes(text.most()) + std::string(howToGetTheRest),
                 .code = "answer_too_large"});
        reply.body = text.takeText();
        reply.memory = text.takeMemory();
        return reply;
    }
    QORStreamPace pace;
    bool taken = true;
    call.request.stream->describe(type, variesByAccept);
    const auto writer = makeRowsWriter(form.format, [&](std::string_view block) {
        taken = taken && call.request.stream->send(block);
        if (QORRequestControl* const control = QORRequestControl::current(); control != nullptr && taken)
            control->renew();
        pace.left();
        return taken;
    });
    give(*writer, [&](std::int64_t rows) {
        if (pace.isDue(rows)) writer->flush();
        return taken;
    });
    if (!taken) throw QORException(errFailure, "the answer broke off in the middle");
    return reply;
}

void refuseAsOperator(AgentCall& call, const QORRequestEnvelope& request, const QORException& error,
                      const AgentParameters& parameters, std::optional<std::int64_t> place) {
    throwProblem(problemOfOperator(error, parameters, place, [&](std::string_view name) {
        return request.operatorName == "pager" ? call.application.fields().nearest(name) : std::string();
    }));
}

HttpReply replyOfOperator(AgentCall& call, const AgentParameters& parameters, QORRequestEnvelope& request,
                          std::vector<AgentColumn> columns, std::vector<std::string> names) {
    const AgentRowsForm form = rowsFormOf(call.request, parameters);
    std::optional<std::int64_t> place;
    try {
        return replyWithRows(call, form, [&](AgentRowsWriter& writer, const auto& afterRow) {
            OperatorRows rows(writer, std::move(columns), std::move(names), &place);
            call.host.router().ask(call.session(), request, rows, afterRow);
        });
    } catch (const QORException& error) {
        refuseAsOperator(call, request, error, parameters, place);
    }
}

AgentSelectContext selectContext(AgentCall& call, const AgentParameters& parameters, bool all) {
    AgentSelectContext context;
    context.all = all;
    if (parameters.has("where")) context.currentEid = currentEidOf(call);
    return context;
}

HttpReply viewRows(AgentCall& call, std::string_view view, const AgentParameters& parameters) {
    const auto views = call.application.views().listWith(view);
    AgentSelectContext context = selectContext(call, parameters, rowsFormOf(call.request, parameters).stream);
    const auto make = [&] { return makeViewSelect(*views, views->find(view)->second, parameters, context); };
    std::string question = questionText(view, parameters, context);
    // The moment of a page behind a token is told by the token, which is opened each time.
    if (parameters.has("after") || question.size() > longestKeptSelect) {
        AgentSelect select = make();
        return replyOfOperator(call, parameters, select.envelope, std::move(select.columns), std::move(select.names));
    }
    context.now = currentTime();
    QORKeptByText<AgentKeptSelect>& selects = call.application.selects();
    std::optional<AgentKeptSelect> kept = selects.take(
        question, [&](const AgentKeptSelect& one) { return one.views == views && one.now == *context.now; });
    if (!kept) {
        const QORMemoryScope uncounted(nullptr);  // it outlives the request, and is small
        kept.emplace(AgentKeptSelect{make(), views, *context.now});
    }
    AgentSelect& select = kept->select;
    HttpReply reply = replyOfOperator(call, parameters, select.envelope, select.columns, select.names);
    selects.keep(std::move(question), std::move(*kept));
    return reply;
}

HttpReply answerViewRows(AgentCall& call) {
    return viewRows(call, call.names.front(), call.parameters);
}

}  // namespace QOR
