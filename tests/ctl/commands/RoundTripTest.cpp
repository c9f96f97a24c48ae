// What goes in comes out, byte for byte: records of all kinds and sizes, through every way in and every way out.
#include <gmock/gmock.h>
#include <rapidjson/document.h>
#include <pugixml.hpp>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sstream>

#include "QORCommon/QORText.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "ctl/CtlProcess.h"
#include "ctl/commands/MadeRecords.h"
#include "ingest/QORIngest.h"
#include "support/AgentProcess.h"
#include "support/HostDatabase.h"
#include "support/HttpClient.h"

namespace QOR::test {
namespace {

/// Rows in an order of their own, so that they can be compared however they came.
using Rows = std::vector<std::vector<std::optional<std::string>>>;

constexpr unsigned perKind = 36;

/// Two generations of records; the second replaces some of the first, in another order.
struct Made {
    std::vector<MadeRecord> first;
    std::vector<MadeRecord> second;

    explicit Made(unsigned seed) {
        RecordMaker maker(seed);
        for (unsigned number = 0; number < perKind; ++number)
            add(maker, number, first);
        for (unsigned number = perKind + 6; number > perKind / 2; --number)
            add(maker, number, second);
    }
    static void add(RecordMaker& maker, unsigned number, std::vector<MadeRecord>& to) {
        to.push_back(maker.environment(number));
        to.push_back(maker.operation(number));
        to.push_back(maker.event(number));
        to.push_back(maker.backup(number));
    }

    /// What is there in the end.
    std::vector<const MadeRecord*> left(const std::string& view) const {
        std::vector<const MadeRecord*> all;
        for (const auto* generation : {&first, &second}) {
            for (const MadeRecord& record : *generation) {
                if (record.view != view) continue;
                if (!record.key.empty())
                    std::erase_if(all, [&](const MadeRecord* older) { return older->key == record.key; });
                all.push_back(&record);
            }
        }
        return all;
    }
};

const Made& made() {
    static const Made records(20240701);
    return records;
}

Rows sorted(Rows rows) {
    std::sort(rows.begin(), rows.end());
    return rows;
}

Words columnsOf(const std::string& view) {
    Words columns;
    for (const auto& [name, value] : made().left(view).front()->row)
        columns.push_back(name);
    for (const MadeRecord* record : made().left(view))
        EXPECT_EQ(record->row.size(), columns.size());
    return columns;
}

Rows expected(const std::string& view) {
    Rows rows;
    for (const MadeRecord* record : made().left(view)) {
        auto& row = rows.emplace_back();
        for (const auto& [name, value] : record->row)
            row.push_back(value);
    }
    return sorted(std::move(rows));
}

/// Long values are not worth printing: says where rows differ first.
void expectSame(const Rows& got, const Rows& wanted, const std::string& what) {
    ASSERT_EQ(got.size(), wanted.size()) << what;
    for (std::size_t row = 0; row < got.size(); ++row) {
        ASSERT_EQ(got[row].size(), wanted[row].size()) << what;
        for (std::size_t column = 0; column < got[row].size(); ++column) {
            if (got[row][column] == wanted[row][column]) continue;
            const auto show = [](const std::optional<std::string>& value) {
                return value ? std::to_string(value->size()) + " bytes " + quoteText(*value, 200) : "null";
            };
            FAIL() << what << ": row " << row << " column " << column << ": " << show(got[row][column])
                   << " instead of " << show(wanted[row][column]);
        }
    }
}

const Words views{"vEnvironment", "vOpLog", "vEventLog", "vBackupInfo"};

bool isBytes(const std::string& view, const std::string& column) {
    return view == "vBackupInfo" && column == "info";
}

std::string selectOf(const std::string& view) {
    std::string text = R"({"operator":"pager2","request":"select","body":[1740,[[1009,")" + view + "\"]";
    for (const std::string& column : columnsOf(view))
        text += R"(,[1741,")" + column + "\"]";
    return text + "]]}";
}

/// Rows of an answer of "pager2"; its columns come in the order of their names, as those of a map do.
Rows rowsOfView(std::string_view answer) {
    QORMessageLimits limits;
    const QORResponse response = readResponse(answer, limits);
    if (response.error) throw std::runtime_error(response.error->message);
    QORMessage& message = const_cast<QORMessage&>(response.response);
    QORBinaryIterator it = message.root();
    Rows rows;
    if (it.firstChild(tag::rowSet) != 0) return rows;
    for (int found = it.firstChild(tag::row); found == 0; found = it.nextSibling(tag::row)) {
        auto& row = rows.emplace_back();
        QORBinaryIterator cell = it;
        for (int more = cell.firstChild(tag::value); more == 0; more = cell.nextSibling(tag::value)) {
            std::string value;
            row.push_back(cell.getValue(value) == 0 ? std::optional(value) : std::nullopt);
        }
    }
    return sorted(std::move(rows));
}

/// Rows of an answer of "pager", which has no null.
Rows rowsOfLog(std::string_view answer) {
    const QORResponse response = readResponse(answer, {});
    if (response.error) throw std::runtime_error(response.error->message);
    QORBinaryIterator it = const_cast<QORMessage&>(response.response).root();
    Rows rows;
    if (it.firstChild(tag::rowSet) != 0) return rows;
    for (int found = it.firstChild(tag::row); found == 0; found = it.nextSibling(tag::row)) {
        auto& row = rows.emplace_back();
        QORBinaryIterator cell = it;
        for (int more = cell.firstChild(tag::cell); more == 0; more = cell.nextSibling(tag::cell)) {
            std::string value;
            cell.getValue(value, tag::value);
            row.emplace_back(value);
        }
    }
    return sorted(std::move(rows));
}

// ---- the forms of exports

std::optional<std::string> textOrBytes(const rapidjson::Value& value) {
    if (value.IsNull()) return std::nullopt;
    if (value.IsString()) return std::string(value.GetString(), value.GetStringLength());
    const auto& base64 = value["base64"];
    return parseBase64({base64.GetString(), base64.GetStringLength()});
}

Rows rowsOfJson(const std::string& text, const Words& columns) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseNumbersAsStringsFlag>(text.data(), text.size());  // as they are spelled
    Rows rows;
    for (const auto& object : document.GetArray()) {
        auto& row = rows.emplace_back();
        for (const std::string& column : columns)
            row.push_back(textOrBytes(object[column.c_str()]));
    }
    return sorted(std::move(rows));
}

/// RFC 4180; a null is a field without quotes and without anything.
Rows rowsOfCsv(const std::string& text, const std::vector<bool>& bytes) {
    Rows rows;
    std::vector<std::optional<std::string>> row;
    std::size_t at = 0;
    while (at < text.size()) {
        std::optional<std::string> field;
        if (text[at] == '"') {
            field.emplace();
            for (++at;; ++at) {
                if (text[at] == '"' && text[++at] != '"') break;
                *field += text[at];
            }
        } else {
            const std::size_t end = text.find_first_of(",\r", at);
            if (end > at) field = text.substr(at, end - at);
            at = end;
        }
        if (field && bytes[row.size()] && !rows.empty()) field = parseBase64(*field);
        row.push_back(std::move(field));
        if (text[at] == ',') {
            ++at;
            continue;
        }
        at += 2;
        rows.push_back(std::move(row));
        row.clear();
    }
    rows.erase(rows.begin());  // the names
    return sorted(std::move(rows));
}

Rows rowsOfXml(const std::string& text) {
    pugi::xml_document document;
    EXPECT_TRUE(document.load_buffer(text.data(), text.size(), pugi::parse_default | pugi::parse_ws_pcdata));
    Rows rows;
    for (const pugi::xml_node element : document.child("row_set").children("row")) {
        auto& row = rows.emplace_back();
        for (const pugi::xml_node cell : element.children("value")) {
            // An empty text and none are told apart by the form of the element, which a reader of XML does not tell.
            std::optional<std::string> value(cell.text().get());
            if (std::string_view(cell.attribute("encoding").value()) == "base64") value = parseBase64(*value);
            row.push_back(std::move(value));
        }
    }
    return rows;
}

/// Without the difference between an empty text and none.
Rows withoutNull(Rows rows) {
    for (auto& row : rows)
        for (auto& value : row)
            if (!value) value.emplace();
    return sorted(std::move(rows));
}

// ---- ways in

std::string linesOf(const std::vector<MadeRecord>& records) {
    std::string lines;
    for (const MadeRecord& record : records)
        lines += record.line + '\n';
    return lines;
}

Words standalone(const std::string& database) {
    return {"--standalone", "--database", database};
}

CtlResult runOn(Words arguments, const Words& connection, std::string_view input = {}) {
    arguments.insert(arguments.end(), connection.begin(), connection.end());
    return runCtl(std::move(arguments), input);
}

void importStandalone(const std::string& database) {
    for (const auto* generation : {&made().first, &made().second}) {
        const CtlResult result = runOn({"import"}, standalone(database), linesOf(*generation));
        ASSERT_EQ(result.status, 0) << result.err;
    }
}

/// One record in a transaction, in this process.
void importSingly(const std::string& database) {
    ASDatabaseOptions options;
    options.connectionString = database;
    QORDBSchema::open(options, QORSchemaMode::Own);
    QORIngestOptions singly;
    singly.batchRecords = 1;
    for (const auto* generation : {&made().first, &made().second}) {
        const QORIngestResult result = QORIngest(singly).importBatch(linesOf(*generation));
        ASSERT_EQ(result.accepted(), generation->size());
    }
    QORRdbms::instance().shutdown();
}

void sendTogether(const std::string& socket) {
    for (const auto* generation : {&made().first, &made().second}) {
        const HttpAnswer answer = HttpClient(socket).post("/v1/records", linesOf(*generation));
        ASSERT_EQ(answer.status, 200U) << answer.body;
        ASSERT_THAT(answer.body, testing::HasSubstr(R"("refusedCount":0)"));
    }
}

void sendSingly(const std::string& socket) {
    HttpClient client(socket);
    for (const auto* generation : {&made().first, &made().second}) {
        for (const MadeRecord& record : *generation) {
            const HttpAnswer answer = client.post("/v1/records", record.line);
            ASSERT_EQ(answer.status, 200U) << answer.body;
            ASSERT_THAT(answer.body, testing::HasSubstr(R"("refusedCount":0)"));
        }
    }
}

enum class In { Standalone, Singly, Together, OneByOne };

class RoundTrip : public testing::TestWithParam<In> {
protected:
    void SetUp() override {
        m_agent = std::make_unique<AgentProcess>();
        const bool agent = GetParam() == In::Together || GetParam() == In::OneByOne;
        if (!agent) m_agent->stop();
        if (GetParam() == In::Standalone) importStandalone(m_agent->connectionString());
        if (GetParam() == In::Singly) importSingly(m_agent->connectionString());
        if (GetParam() == In::Together) sendTogether(m_agent->socketPath());
        if (GetParam() == In::OneByOne) sendSingly(m_agent->socketPath());
        if (!agent) m_agent->start();
    }
    std::vector<Words> connections() const {
        return {{"--socket", m_agent->socketPath()}, standalone(m_agent->connectionString())};
    }
    std::string ask(const std::string& request) const { return HttpClient(m_agent->socketPath()).message(request); }

    std::unique_ptr<AgentProcess> m_agent;
};

std::string nameOf(const testing::TestParamInfo<In>& way) {
    constexpr const char* names[] = {"Standalone", "Singly", "Together", "OneByOne"};
    return names[static_cast<int>(way.param)];
}
INSTANTIATE_TEST_SUITE_P(All, RoundTrip, testing::Values(In::Standalone, In::Singly, In::Together, In::OneByOne),
                         nameOf);

TEST_P(RoundTrip, ViewsGiveWhatWasStored) {
    for (const std::string& view : views)
        expectSame(rowsOfView(ask(selectOf(view))), expected(view), view);
}

TEST_P(RoundTrip, LogsAndBackupsGiveWhatWasStored) {
    const auto log = [&](const std::string& fields, const std::string& where) {
        return rowsOfLog(ask(R"({"operator":"pager","request":"select","body":[1740,[)" + fields + R"(,[1742,")" +
                             where + R"("]]]})"));
    };
    const auto text = [](const MadeRecord& record, const char* column) { return record.row.at(column).value_or(""); };
    Rows operations, events, backups;
    // Logs begin with 1970 for "pager".
    const auto early = [](const MadeRecord& record) { return *record.row.at("time") < "1970"; };
    for (const MadeRecord* r : made().left("vOpLog")) {
        if (early(*r)) continue;
        operations.push_back(
            {text(*r, "id"), text(*r, "parent_id"), text(*r, "op"), text(*r, "time"), text(*r, "message"), r->title});
    }
    for (const MadeRecord* r : made().left("vEventLog")) {
        if (early(*r) || r->row.at("category") != "env_status") continue;
        events.push_back({text(*r, "source"), text(*r, "time"), r->title});
    }
    for (const MadeRecord* r : made().left("vBackupInfo")) {
        backups.push_back({text(*r, "id"), text(*r, "description"), text(*r, "size"), text(*r, "time"), r->title});
    }
    expectSame(log(R"([1741,"pager.op_log.id"],[1741,"pager.op_log.parent_id"],[1741,"pager.op_log.op"],)"
                   R"([1741,"pager.op_log.time"],[1741,"pager.op_log.message"],[1741,"pager.op_log.parameter.title"])",
                   "true"),
               sorted(operations), "operations");
    expectSame(log(R"([1741,"pager.event_log.source"],[1741,"pager.event_log.time"],)"
                   R"([1741,"pager.event_log.parameter.title"])",
                   "pager.event_log.category='env_status'"),
               sorted(events), "events");
    expectSame(log(R"([1741,"pager.backup.id"],[1741,"pager.backup.description"],[1741,"pager.backup.size"],)"
                   R"([1741,"pager.backup.time"],[1741,"pager.backup.info.title"])",
                   "pager.backup.time >= '1900-01-01' and pager.backup.time <= '2100-01-01'"),
               sorted(backups), "backups");
}

TEST_P(RoundTrip, ExportsGiveWhatWasStored) {
    for (const std::string& view : views) {
        const Words columns = columnsOf(view);
        std::vector<bool> bytes;
        Words select{"select", "--view", view};
        for (const std::string& column : columns) {
            select.insert(select.end(), {"-f", column});
            bytes.push_back(isBytes(view, column));
        }
        for (const Words& connection : connections()) {
            const auto exported = [&](const char* form) {
                Words arguments = select;
                arguments.insert(arguments.end(), {"-o", form});
                const CtlResult result = runOn(arguments, connection);
                EXPECT_EQ(result.status, 0) << result.err;
                return result.out;
            };
            expectSame(rowsOfJson(exported("json"), columns), expected(view), view + " json");
            expectSame(rowsOfCsv(exported("csv"), bytes), expected(view), view + " csv");
            expectSame(withoutNull(rowsOfXml(exported("xml"))), withoutNull(expected(view)), view + " xml");
        }
    }
}

/// Tables are for people: long values are cut and what disturbs a terminal is spelt out. What needs neither is whole.
TEST_P(RoundTrip, TablesGiveShortValuesWhole) {
    for (const std::string& view : views) {
        Rows wanted;
        const bool time = view != "vEnvironment";
        for (const MadeRecord* record : made().left(view))
            wanted.push_back({record->row.at("eid"), record->row.at(time ? "time" : "state")});
        for (const Words& connection : connections()) {
            const CtlResult result = runOn(
                {"select", "--view", view, "-f", "eid", "-f", time ? "time" : "state", "--width", "0"}, connection);
            std::istringstream lines(result.out);
            std::string first, second;
            Rows rows;
            while (lines >> first >> second)
                rows.push_back({first, second});
            ASSERT_GE(rows.size(), 2U) << result.err;
            rows.erase(rows.begin(), rows.begin() + 2);  // names and a rule
            expectSame(sorted(std::move(rows)), sorted(wanted), view);
        }
    }
}

TEST_P(RoundTrip, LinesGiveWhatWasStored) {
    std::string requests;
    for (const std::string& view : views)
        requests += selectOf(view) + '\n';
    for (const Words& connection : connections()) {
        const CtlResult result = runOn({"request", "--lines"}, connection, requests);
        ASSERT_EQ(result.status, 0) << result.err;
        std::string_view rest = result.out;
        for (const std::string& view : views) {
            const std::size_t end = rest.find('\n');
            ASSERT_NE(end, std::string_view::npos);
            expectSame(rowsOfView(rest.substr(0, end)), expected(view), view);
            rest.remove_prefix(end + 1);
        }
    }
}

/// Lines of an export without what each position says of its database, which is another one.
std::string withoutDatabases(std::string lines) {
    const std::string begin = R"(,"database":")";
    for (std::size_t at = lines.find(begin); at != std::string::npos; at = lines.find(begin, at))
        lines.erase(at, lines.find('"', at + begin.size()) + 1 - at);
    return lines;
}

/// From the tests' engine into SQLite, and from there back.
TEST(Export, IsTheSameOfWhatWasImportedFromItOnAnyEngine) {
    const AgentProcess agent;
    sendTogether(agent.socketPath());
    const auto exported = [](const Words& connection) {
        const CtlResult result = runOn({"export"}, connection);
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    };
    const std::string lines = exported({"--socket", agent.socketPath()});
    const TemporaryDirectory directory;
    const TestDatabase again(TestTables::Own);
    for (const std::string& database :
         {"Driver=SQLite3;Database=" + (directory / "other.db").string(), again.connectionString()}) {
        const CtlResult result = runOn({"import"}, standalone(database), lines);
        ASSERT_EQ(result.status, 0) << result.err;
        // Not printed: it is megabytes.
        EXPECT_TRUE(withoutDatabases(exported(standalone(database))) == withoutDatabases(lines)) << database;
        for (const std::string& view : views) {
            Words select{"select", "--view", view, "-o", "json"};
            for (const std::string& column : columnsOf(view))
                select.insert(select.end(), {"-f", column});
            expectSame(rowsOfJson(runOn(select, standalone(database)).out, columnsOf(view)), expected(view), view);
        }
    }
}

TEST(Times, TheSecondBeforeTheEpochGoesInAndOutAndIsFound) {
    const TestDatabase database;
    const Words connection = standalone(database.connectionString());
    EXPECT_EQ(runOn({"import"}, connection,
                    R"({"kind":"operation","id":"at","time":"1969-12-31 23:59:59"})"
                    "\n"
                    R"({"kind":"operation","id":"before","time":"1969-12-31T23:59:58Z"})")
                  .status,
              0);
    for (const char* where : {"time = '1969-12-31 23:59:59'", "time >= '1969-12-31T23:59:59Z'"}) {
        const CtlResult result =
            runOn({"select", "--view", "vOpLog", "-f", "id", "-f", "time", "--where", where, "-o", "csv"}, connection);
        EXPECT_EQ(result.out, "id,time\r\nat,1969-12-31T23:59:59+0000\r\n") << where << result.err;
    }
}

// ---- what no line can hold

TEST(Bytes, OfEveryValueSurviveInDocuments) {
    const HostDatabase database(TestTables::Own);
    database.open();
    std::string all;
    for (int byte = 0; byte < 256; ++byte)
        all += static_cast<char>(byte);
    std::vector<QORRecord> records;
    std::vector<std::string> documents;
    for (const std::size_t size : {256U, 1U, 0U, 200U, 255U, 3U}) {
        QORInfo info;
        info.add(all.substr(256 - size), all.substr(0, size)).add("more", all + all.substr(0, size));
        documents.push_back(info.serializeToString());
        QOROperationRecord operation;
        operation.id = std::to_string(documents.size());
        operation.message = info;
        records.emplace_back(operation);
        QORBackupRecord backup;
        backup.id = operation.id;
        backup.info = info;
        records.emplace_back(backup);
        QOREventRecord event;
        event.info = info;
        records.emplace_back(event);
    }
    EXPECT_EQ(QORIngest().store(records, false).accepted(), records.size());
    const std::string ofBackups =
        testEngine() == ASEngine::SQLite ? "CAST(info AS nvarchar)" : "convert_from(info, 'UTF8')";
    for (const std::string& select : {std::string(R"(SELECT message FROM "vOpLog" ORDER BY id)"),
                                      std::string(R"(SELECT info FROM "vEventLog" ORDER BY id)"),
                                      "SELECT " + ofBackups + R"( FROM "vBackupInfo" ORDER BY id)"}) {
        const auto rows = queryRows(select, 1);
        ASSERT_EQ(rows.size(), documents.size());
        for (std::size_t row = 0; row < rows.size(); ++row) {
            EXPECT_EQ(rows[row].front(), documents[row]) << select;
            QORInfo read;
            ASSERT_EQ(read.deserializeFromString(rows[row].front()), 0);
            EXPECT_EQ(read.children().back().value().substr(0, 256), all);
        }
    }
}

TEST(Nul, IsRefusedByNameInTextsAndKeptInDocuments) {
    const HostDatabase database(TestTables::Own);
    database.open();
    const auto reason = [](const std::string& line) {
        const QORIngestResult result = QORIngest().importBatch(line);
        return result.refusedLines.empty() ? std::string() : result.refusedLines.front().reason;
    };
    const std::pair<const char*, const char*> lines[] = {
        {R"({"kind":"event","time":1,"source":"a\u0000b"})", "\"source\""},
        {R"({"kind":"event","time":1,"category":"\u0000"})", "\"category\""},
        {R"({"kind":"operation","id":"a\u0000","time":1})", "\"id\""},
        {R"({"kind":"operation","id":"a","op":"\u0000","time":1})", "\"op\""},
        {R"({"kind":"backup","id":"a","name":"x\u0000","time":1})", "\"name\""},
        {R"({"kind":"environment","eid":"0e000000-0000-4000-8000-100000000000","config":{"os":{"kernel":"\u0000"}}})",
         "\"config.os.kernel\""},
        {R"({"kind":"environment","eid":"0e000000-0000-4000-8000-100000000000","config":{"ip":["1","\u0000"]}})",
         "\"config.ip\""},
    };
    for (const auto& [line, member] : lines) {
        EXPECT_THAT(reason(line), testing::AllOf(testing::HasSubstr(member), testing::HasSubstr("without NUL")));
    }
    EXPECT_EQ(reason(R"({"kind":"operation","id":"a","time":1,"message":{"package":"x\u0000y","\u0000":"z"}})"), "");
    EXPECT_EQ(queryText("SELECT coalesce(package, 'none') FROM \"vOpLog\""), "none");
    QORInfo read;
    ASSERT_EQ(read.deserializeFromString(queryText("SELECT message FROM \"vOpLog\"")), 0);
    EXPECT_EQ(read.getParameterByPath("package"), std::string("x\0y", 3));
    EXPECT_EQ(read.getParameterByPath(std::string_view("\0", 1)), "z");
}

}  // namespace
}  // namespace QOR::test
