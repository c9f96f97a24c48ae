#include "agent/api/AgentViews.h"

#include <vector>

#include "QORDBSchema/SchemaTable.h"
#include "agent/api/AgentJson.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

void writeColumn(JsonWriter& json, const QORViewColumn& column) {
    json.StartObject();
    writeMember(json, "name", column.column);
    writeMember(json, "type", column.type);
    writeKey(json, "length");
    json.Int(column.length);
    json.EndObject();
}

}  // namespace

HttpReply answerViews(AgentCall&) {
    QORRdbmsTran transaction(ASAccess::Read);
    const std::vector<QORViewColumn> columns = readViews(*transaction);
    return {200, writtenObject([&](JsonWriter& json) {
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
            })};
}

}  // namespace QOR
