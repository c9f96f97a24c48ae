#include "agent/api/AgentViews.h"

#include <algorithm>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORText.h"
#include "QORDBSchema/QORViewDescriptions.h"
#include "QORDBSchema/SchemaTable.h"
#include "agent/api/AgentApplication.h"
#include "agent/api/AgentJson.h"
#include "agent/api/AgentProblem.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

std::vector<QORViewColumn> columnsNow() {
    QORRdbmsTran transaction(ASAccess::Read);
    return readViews(*transaction);
}

std::shared_ptr<const AgentViews::List> listNow() {
    auto list = std::make_shared<AgentViews::List>();
    for (QORViewColumn& column : columnsNow()) {
        AgentView& view = list->try_emplace(column.view, AgentView{column.view}).first->second;
        view.names.push_back(column.column);
        const bool security =
            column.column.starts_with("securityOperation_") || column.column.starts_with("securableObjId");
        const QORColumnKind kind = columnKindOf(column.type);
        view.columns.push_back({std::move(column.column), std::move(column.type), column.length, kind, security});
    }
    return list;
}

void writeColumn(JsonWriter& json, const QORViewColumn& column) {
    json.StartObject();
    writeMember(json, "name", column.column);
    writeMember(json, "type", column.type);
    writeKey(json, "length");
    json.Int(column.length);
    json.EndObject();
}

bool isSecurable(const AgentView& view) {
    const auto has = [&](std::string_view begin) {
        return std::any_of(view.names.begin(), view.names.end(),
                           [&](const std::string& name) { return name.starts_with(begin); });
    };
    return has("securityOperation_") && has("securableObjId");
}

void writeDescription(JsonWriter& json, const AgentView& view, const AgentViewColumn& column, bool indexed) {
    json.StartObject();
    writeMember(json, "name", column.name);
    writeMember(json, "type", wordOf(column.kind));
    writeMember(json, "declared", column.type);
    writeKey(json, "length");
    json.Int(column.length);
    writeMember(json, "meaning", viewColumnMeaning(view.name, column.name));
    writeKey(json, "indexed");
    json.Bool(indexed);
    json.EndObject();
}

void writeIndexes(JsonWriter& json, const std::vector<QORViewIndex>& indexes) {
    writeKey(json, "indexes");
    json.StartArray();
    for (const QORViewIndex& index : indexes) {
        json.StartObject();
        writeMember(json, "name", index.name);
        writeKey(json, "columns");
        json.StartArray();
        for (const std::string& column : index.columns)
            writeText(json, column);
        json.EndArray();
        json.EndObject();
    }
    json.EndArray();
}

[[noreturn]] void refuseView(const AgentViews::List& list, std::string_view view) {
    std::vector<std::string_view> names;
    for (const auto& [name, known] : list)
        names.emplace_back(name);
    const std::vector<std::string_view> near = nearestNames(view, names);
    throwProblem({.status = 404,
                  .detail = "there is no view " + quoteText(view),
                  .code = "unknown_view",
                  .parameter = "view",
                  .found = std::string(view),
                  .suggestion = near.empty() ? std::string() : std::string(near.front())});
}

}  // namespace

const AgentViewColumn* AgentView::find(std::string_view column) const noexcept {
    const auto found =
        std::find_if(columns.begin(), columns.end(), [&](const AgentViewColumn& one) { return one.name == column; });
    return found == columns.end() ? nullptr : &*found;
}

bool AgentViews::CaseLess::operator()(std::string_view a, std::string_view b) const {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [](char x, char y) { return toLowerChar(x) < toLowerChar(y); });
}

std::shared_ptr<const AgentViews::List> AgentViews::listWith(std::string_view view) {
    {
        const std::lock_guard lock(m_mutex);
        if (m_list && m_list->find(view) != m_list->end()) return m_list;
    }
    auto list = listNow();
    if (list->find(view) == list->end()) refuseView(*list, view);
    const std::lock_guard lock(m_mutex);
    m_list = list;
    return list;
}

HttpReply answerViews(AgentCall&) {
    const std::vector<QORViewColumn> columns = columnsNow();
    HttpReply reply;
    reply.revalidated = true;
    reply.body = writtenObject([&](JsonWriter& json) {
        writeKey(json, "views");
        json.StartArray();
        for (auto column = columns.begin(); column != columns.end();) {
            const std::string& view = column->view;
            json.StartObject();
            writeMember(json, "name", view);
            writeKey(json, "columns");
            json.StartArray();
            for (; column != columns.end() && column->view == view; ++column)
                writeColumn(json, *column);
            json.EndArray();
            json.EndObject();
        }
        json.EndArray();
    });
    return reply;
}

HttpReply answerView(AgentCall& call) {
    const auto views = call.application.views().listWith(call.names.front());
    const AgentView& view = views->find(call.names.front())->second;
    const std::vector<QORViewIndex> indexes = [&] {
        QORRdbmsTran transaction(ASAccess::Read);
        return viewIndexes(*transaction, view.name);
    }();
    HttpReply reply;
    reply.revalidated = true;
    reply.body = writtenObject([&](JsonWriter& json) {
        writeMember(json, "name", view.name);
        writeMember(json, "meaning", viewMeaning(view.name));
        writeKey(json, "securable");
        json.Bool(isSecurable(view));
        writeKey(json, "columns");
        json.StartArray();
        for (const AgentViewColumn& column : view.columns) {
            const bool indexed = std::any_of(indexes.begin(), indexes.end(), [&](const QORViewIndex& index) {
                return index.columns.front() == column.name;
            });
            writeDescription(json, view, column, indexed);
        }
        json.EndArray();
        writeIndexes(json, indexes);
    });
    return reply;
}

}  // namespace QOR
