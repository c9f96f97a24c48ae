#include "agent/api/AgentExplain.h"

#include <utility>

#include "QORCommon/QORException.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORQuery/QORExplanation.h"
#include "QORQuery/QORQueryField.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentFields.h"
#include "agent/api/AgentQuery.h"
#include "agent/api/AgentRows.h"

namespace QOR {
namespace {

/// What the operator tells of the question.
QORExplanation ask(AgentCall& call, AgentSelect& select, const AgentParameters& question) {
    QORBinaryIterator at = select.envelope.body.root();
    requireRoom(at.firstChild(tag::select));
    addFlag(at, tag::explain);
    QORExplanation explanation;
    QORExplanationReader reader(explanation);
    try {
        call.host.router().ask(call.session(), select.envelope, reader, [](std::int64_t) { return true; });
    } catch (const QORException& error) {
        refuseAsOperator(call, select.envelope, error, question, reader.errorPlace());
    }
    return explanation;
}

/// Sort keys that are columns.
std::vector<std::string> sortedBy(const AgentParameters& question) {
    std::vector<std::string> columns;
    if (!question.has("sort")) return columns;
    for (const AgentListItem& item : splitList(question, "sort")) {
        const QORQueryField field = parseQueryField(item.text.substr(item.text.starts_with('-') ? 1 : 0));
        if (!field.function.empty()) return columns;
        columns.push_back(field.column);
    }
    return columns;
}

QORExplanation explainView(AgentCall& call, const AgentParameters& question) {
    const auto views = call.application.views().listWith(question.text("view"));
    const AgentView& view = views->find(question.text("view"))->second;
    const AgentSelectContext context = selectContext(call, question, false);
    AgentSelect select = makeViewSelect(*views, view, question, context);
    QORExplanation explanation = ask(call, select, question);
    explanation.lint(question.text("where"), conditionOptions(*views, view, question, context), sortedBy(question),
                     viewColumnValues);
    return explanation;
}

}  // namespace

HttpReply answerExplain(AgentCall& call) {
    const AgentParameters question = readQuestion(call);
    if (question.has("view")) return {200, explainView(call, question).json(question.text("where"))};
    AgentSelect select = sourceSelect(call, question, false);
    return {200, ask(call, select, question).json(question.text("where"))};
}

}  // namespace QOR
