#include "agent/api/AgentFields.h"

#include <algorithm>
#include <string>
#include <utility>

#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORBinaryIterator.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentProblem.h"
#include "agent/api/AgentRows.h"

namespace QOR {
namespace {

constexpr const char* operatorName = "pager";

QORColumnKind kindOf(std::string_view type) noexcept {
    if (type == "int" || type == "boolean") return QORColumnKind::Integer;
    return type == "time" ? QORColumnKind::Time : QORColumnKind::Text;
}

const QOROpField& need(AgentFields& fields, std::string_view parameter, std::string_view name,
                       const AgentParameters& parameters) {
    if (const QOROpField* const field = fields.find(name)) return *field;
    const std::string_view text = parameters.text(parameter);
    throwProblem({.detail = std::string(parameter) + ": there is no field " + quoteText(name),
                  .code = "unknown_field",
                  .parameter = std::string(parameter),
                  .position = charactersBefore(text, static_cast<std::size_t>(name.data() - text.data())),
                  .found = std::string(name),
                  .expected = "one of /v1/fields",
                  .suggestion = fields.nearest(name)});
}

/// Fields of several sources in one question the operator refuses; some stand beside those of others.
void addFields(AgentFields& fields, const AgentParameters& parameters, QORBinaryIterator& at, AgentSelect& select) {
    const std::string_view source = parameters.text("source");
    bool any = source.empty();
    for (const AgentListItem& item : splitList(parameters, "fields")) {
        const QOROpField& field = need(fields, "fields", item.text, parameters);
        any = any || source == field.source;
        requireRoom(at.putValue(item.text, tag::field));
        select.columns.push_back({std::string(item.text), kindOf(field.type), field.list});
        select.names.emplace_back(item.text);
    }
    if (any) return;
    throwProblem({.detail = "fields: none of them is a field of " + quoteText(source),
                  .code = "bad_parameter",
                  .parameter = "fields",
                  .expected = "fields of the source, see /v1/fields"});
}

void addSort(AgentFields& fields, const AgentParameters& parameters, QORBinaryIterator& at) {
    if (!parameters.has("sort")) return;
    for (const AgentListItem& item : splitList(parameters, "sort")) {
        const bool descending = item.text.starts_with('-');
        const std::string_view name = item.text.substr(descending ? 1 : 0);
        need(fields, "sort", name, parameters);
        requireRoom(at.addChild(tag::sort));
        requireRoom(at.putValue(name, tag::field));
        if (descending) addFlag(at, tag::descending);
        requireRoom(at.seekUp());
    }
}

}  // namespace

const std::vector<QOROpField>& AgentFields::all() {
    const std::lock_guard lock(m_mutex);
    if (m_fields.empty()) {
        const QORPtr<QOROpFactory> factory = QOROpFactoryRegistry::instance().find(operatorName);
        if (factory == nullptr)
            throwProblem({.status = 503, .detail = "no plug-in has the operator \"pager\"", .code = "no_operator"});
        m_fields = factory->fields();
    }
    return m_fields;
}

const QOROpField* AgentFields::find(std::string_view name) {
    const std::vector<QOROpField>& fields = all();
    const auto found = std::find_if(fields.begin(), fields.end(), [name](const QOROpField& field) {
        return field.prefix ? name.starts_with(field.name) && name.size() > field.name.size() : field.name == name;
    });
    return found == fields.end() ? nullptr : &*found;
}

std::string AgentFields::nearest(std::string_view name) {
    std::vector<std::string_view> names;
    for (const QOROpField& field : all())
        if (!field.prefix) names.emplace_back(field.name);
    const std::vector<std::string_view> near = nearestNames(name, names);
    return near.empty() ? std::string() : std::string(near.front());
}

HttpReply answerFields(AgentCall& call) {
    HttpReply reply;
    reply.revalidated = true;
    reply.body = writtenObject([&](JsonWriter& json) {
        writeKey(json, "fields");
        json.StartArray();
        for (const QOROpField& field : call.application.fields().all()) {
            json.StartObject();
            writeMember(json, "name", field.name);
            writeMember(json, "source", field.source);
            writeMember(json, "type", wordOf(kindOf(field.type)));
            writeKey(json, "list");
            json.Bool(field.list);
            writeKey(json, "prefix");
            json.Bool(field.prefix);
            json.EndObject();
        }
        json.EndArray();
    });
    return reply;
}

AgentSelect sourceSelect(AgentCall& call, const AgentParameters& parameters, bool all) {
    AgentFields& fields = call.application.fields();
    AgentSelect select;
    select.envelope.operatorName = operatorName;
    select.envelope.requestName = "select";
    QORBinaryIterator at = select.envelope.body.root();
    requireRoom(at.addChild(tag::select));
    addFields(fields, parameters, at, select);
    if (parameters.has("where")) requireRoom(at.putValue(parameters.text("where"), tag::where));
    addSort(fields, parameters, at);
    addFlag(at, tag::exact);
    addPage(at, parameters, all);
    return select;
}

HttpReply sourceRows(AgentCall& call, const AgentParameters& parameters) {
    AgentSelect select = sourceSelect(call, parameters, rowsFormOf(call.request, parameters).stream);
    return replyOfOperator(call, parameters, select.envelope, std::move(select.columns), std::move(select.names));
}

HttpReply answerSourceRows(AgentCall& call) {
    return sourceRows(call, call.parameters);
}

}  // namespace QOR
