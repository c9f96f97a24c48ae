#include "QORQuery/QORExplanation.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <array>
#include <functional>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORText.h"
#include "QORMessage/QORTags.h"

namespace QOR {
namespace {

using JsonWriter = rapidjson::Writer<rapidjson::StringBuffer>;

// ---- as rows --------------------------------------------------------------------------------------------------------

constexpr std::array<const char*, 7> columnNames{"what",     "text",  "code",      "parameter",
                                                 "position", "found", "suggestion"};
using Row = std::array<std::string, columnNames.size()>;

void append(std::vector<Row>& rows, std::string_view what, std::string_view text) {
    rows.push_back({std::string(what), std::string(text)});
}
void append(std::vector<Row>& rows, std::string_view what, const std::vector<std::string>& texts) {
    for (const std::string& text : texts)
        append(rows, what, text);
}
void appendKnown(std::vector<Row>& rows, std::string_view what, std::string_view text) {
    if (!text.empty()) append(rows, what, text);
}
void appendKnown(std::vector<Row>& rows, std::string_view what, std::optional<std::int64_t> number) {
    if (number) append(rows, what, std::to_string(*number));
}
void appendFlag(std::vector<Row>& rows, std::string_view what, bool flag) {
    if (flag) append(rows, what, "true");
}

std::vector<Row> rowsOf(const QORExplanation& explanation) {
    std::vector<Row> rows;
    appendKnown(rows, "view", explanation.view);
    appendKnown(rows, "source", explanation.source);
    appendFlag(rows, "restricted", explanation.isRestricted);
    appendKnown(rows, "access", explanation.access);
    appendKnown(rows, "engine", explanation.engine);
    for (const QORExplanation::Statement& statement : explanation.statements) {
        append(rows, "sql", statement.sql);
        append(rows, "parameter", statement.parameters);
        append(rows, "plan", statement.plan);
        appendFlag(rows, "serves condition", statement.servesCondition);
        appendFlag(rows, "serves order", statement.servesOrder);
        appendFlag(rows, "elsewhere", statement.isElsewhere);
    }
    for (const QORExplanation::Index& index : explanation.indexes) {
        append(rows, "index", index.name);
        append(rows, "index column", index.columns);
    }
    append(rows, "narrowing", explanation.narrowing);
    append(rows, "ignored", explanation.ignored);
    appendKnown(rows, "tested", explanation.tested);
    appendKnown(rows, "order", explanation.order);
    appendKnown(rows, "estimate", explanation.estimate);
    appendKnown(rows, "most", explanation.most);
    for (const QORExplainedWarning& one : explanation.warnings)
        rows.push_back({"warning", one.message, one.code, one.parameter,
                        one.offset ? std::to_string(*one.offset) : std::string(), one.found, one.suggestion});
    return rows;
}

int writeRow(QORMessageIterator& at, const Row& row) {
    if (const int failed = at.addChild(tag::row)) return failed;
    for (const std::string& text : row)
        if (const int failed = at.putValue(text, tag::value)) return failed;
    return at.seekUp();
}

using Statement = QORExplanation::Statement;

/// What is said of the statement, or of the index, that came last.
struct Field {
    std::string_view what;
    void (*take)(QORExplanation& into, const std::string& text);
};
Statement& last(QORExplanation& into) {
    if (into.statements.empty()) into.statements.emplace_back();
    return into.statements.back();
}
constexpr std::array fields{
    Field{"view", [](QORExplanation& into, const std::string& text) { into.view = text; }},
    Field{"source", [](QORExplanation& into, const std::string& text) { into.source = text; }},
    Field{"restricted", [](QORExplanation& into, const std::string&) { into.isRestricted = true; }},
    Field{"access", [](QORExplanation& into, const std::string& text) { into.access = text; }},
    Field{"engine", [](QORExplanation& into, const std::string& text) { into.engine = text; }},
    Field{"sql", [](QORExplanation& into, const std::string& text) { into.statements.push_back({.sql = text}); }},
    Field{"parameter", [](QORExplanation& into, const std::string& text) { last(into).parameters.push_back(text); }},
    Field{"plan", [](QORExplanation& into, const std::string& text) { last(into).plan.push_back(text); }},
    Field{"serves condition", [](QORExplanation& into, const std::string&) { last(into).servesCondition = true; }},
    Field{"serves order", [](QORExplanation& into, const std::string&) { last(into).servesOrder = true; }},
    Field{"elsewhere", [](QORExplanation& into, const std::string&) { last(into).isElsewhere = true; }},
    Field{"index", [](QORExplanation& into, const std::string& text) { into.indexes.push_back({.name = text}); }},
    Field{"index column",
          [](QORExplanation& into, const std::string& text) {
              if (!into.indexes.empty()) into.indexes.back().columns.push_back(text);
          }},
    Field{"narrowing", [](QORExplanation& into, const std::string& text) { into.narrowing.push_back(text); }},
    Field{"ignored", [](QORExplanation& into, const std::string& text) { into.ignored.push_back(text); }},
    Field{"tested", [](QORExplanation& into, const std::string& text) { into.tested = text; }},
    Field{"order", [](QORExplanation& into, const std::string& text) { into.order = text; }},
    Field{"estimate", [](QORExplanation& into, const std::string& text) { into.estimate = parseInt64(text); }},
    Field{"most", [](QORExplanation& into, const std::string& text) { into.most = parseInt64(text); }},
};

// ---- as JSON --------------------------------------------------------------------------------------------------------

void writeText(JsonWriter& json, std::string_view text) {
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}
void writeMember(JsonWriter& json, const char* key, std::string_view text) {
    json.Key(key);
    writeText(json, text);
}
void writeKnown(JsonWriter& json, const char* key, std::string_view text) {
    if (!text.empty()) writeMember(json, key, text);
}
void writeFlag(JsonWriter& json, const char* key, bool flag) {
    json.Key(key);
    json.Bool(flag);
}
template <class List, class Write>
void writeList(JsonWriter& json, const char* key, const List& list, Write write) {
    json.Key(key);
    json.StartArray();
    for (const auto& item : list)
        write(item);
    json.EndArray();
}
void writeTexts(JsonWriter& json, const char* key, const std::vector<std::string>& texts) {
    writeList(json, key, texts, [&](const std::string& text) { writeText(json, text); });
}
void writeTextOrNull(JsonWriter& json, const char* key, std::string_view text) {
    json.Key(key);
    if (text.empty()) {
        json.Null();
    } else {
        writeText(json, text);
    }
}

void writeWarning(JsonWriter& json, const QORExplainedWarning& warning, std::string_view where) {
    json.StartObject();
    writeMember(json, "code", warning.code);
    writeMember(json, "message", warning.message);
    writeKnown(json, "parameter", warning.parameter);
    if (warning.offset) {
        json.Key("position");
        json.Uint64(charactersBefore(where, *warning.offset));
    }
    writeKnown(json, "found", warning.found);
    writeKnown(json, "suggestion", warning.suggestion);
    json.EndObject();
}

void writeView(JsonWriter& json, const QORExplanation& explanation) {
    if (!explanation.isRestricted) {
        writeMember(json, "engine", explanation.engine);
        writeList(json, "statements", explanation.statements, [&](const Statement& statement) {
            json.StartObject();
            writeMember(json, "sql", statement.sql);
            writeTexts(json, "parameters", statement.parameters);
            writeTexts(json, "plan", statement.plan);
            writeFlag(json, "servesCondition", statement.servesCondition);
            writeFlag(json, "servesOrder", statement.servesOrder);
            writeFlag(json, "elsewhere", statement.isElsewhere);
            json.EndObject();
        });
    }
    writeList(json, "indexes", explanation.indexes, [&](const QORExplanation::Index& index) {
        json.StartObject();
        writeMember(json, "name", index.name);
        writeTexts(json, "columns", index.columns);
        json.EndObject();
    });
}

void writeSource(JsonWriter& json, const QORExplanation& explanation) {
    writeTexts(json, "narrowing", explanation.narrowing);
    writeTexts(json, "ignored", explanation.ignored);
    writeTextOrNull(json, "tested", explanation.tested);
    writeMember(json, "order", explanation.order);
}

void writeEstimate(JsonWriter& json, const QORExplanation& explanation) {
    const auto number = [&](const char* key, std::optional<std::int64_t> rows) {
        json.Key(key);
        if (rows) {
            json.Int64(*rows);
        } else {
            json.Null();
        }
    };
    json.Key("estimate");
    json.StartObject();
    number("rows", explanation.estimate);
    number("most", explanation.most);
    json.EndObject();
}

}  // namespace

void QORExplanation::warn(const QORConditionWarning& warning) {
    warnings.push_back({.code = std::string(warning.code),
                        .parameter = std::string(warning.parameter),
                        .message = warning.message,
                        .offset = warning.offset,
                        .found = warning.found,
                        .suggestion = warning.suggestion});
}

void QORExplanation::lint(std::string_view where, const QORConditionOptions& options,
                          const std::vector<std::string>& sort, const QORColumnValues& values) {
    QORConditionFacts facts{.view = view, .types = options.types, .values = values, .sort = sort};
    if (!indexes.empty()) facts.indexes.emplace();
    for (const Index& index : indexes)
        facts.indexes->push_back(index.columns);
    facts.rows = most ? most : estimate;
    for (const QORConditionWarning& warning : lintCondition(where, options, facts))
        warn(warning);
}

int QORExplanation::write(const QORMessageIterator& out) const {
    const auto at = out.clone();
    if (const int failed = at->addChild(tag::rowSet)) return failed;
    for (const char* const name : columnNames) {
        if (const int failed = at->addChild(tag::name)) return failed;
        if (const int failed = at->putValue(name)) return failed;
        at->seekUp();
    }
    for (const Row& row : rowsOf(*this))
        if (const int failed = writeRow(*at, row)) return failed;
    return 0;
}

void QORExplanation::take(const std::vector<std::string>& row) {
    if (row.size() < 2) return;
    const std::string& what = row[0];
    if (what == "warning" && row.size() == columnNames.size()) {
        const auto offset = parseInt64(row[4]);
        warnings.push_back({.code = row[2],
                            .parameter = row[3],
                            .message = row[1],
                            .offset = offset ? std::optional(static_cast<std::size_t>(*offset)) : std::nullopt,
                            .found = row[5],
                            .suggestion = row[6]});
        return;
    }
    const auto* const found =
        std::find_if(fields.begin(), fields.end(), [&](const Field& field) { return field.what == what; });
    if (found != fields.end()) found->take(*this, row[1]);
}

std::string QORExplanation::json(std::string_view where) const {
    rapidjson::StringBuffer buffer;
    JsonWriter json(buffer);
    json.StartObject();
    writeMember(json, source.empty() ? "view" : "source", source.empty() ? view : source);
    writeFlag(json, "restricted", isRestricted);
    writeTextOrNull(json, "access", access);
    if (source.empty()) {
        writeView(json, *this);
    } else {
        writeSource(json, *this);
    }
    if (!isRestricted) writeEstimate(json, *this);
    writeList(json, "warnings", warnings,
              [&](const QORExplainedWarning& warning) { writeWarning(json, warning, where); });
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

void QORExplanationReader::child(const QORMessageNode& child) {
    if (child.tag != tag::row) return;
    std::vector<std::string> row;
    for (const QORMessageNode* cell = child.firstChild; cell != nullptr; cell = cell->next) {
        const bool holds = cell->data == nullptr && cell->firstChild != nullptr;
        const QORMessageNode& value = holds ? *cell->firstChild : *cell;
        row.emplace_back(value.data == nullptr ? "" : value.data, value.size);
    }
    m_explanation.take(row);
}

void QORExplanationReader::row(std::span<const QORRowValue> values) {
    std::vector<std::string> row;
    for (const QORRowValue& value : values)
        row.emplace_back(value.bytes);
    m_explanation.take(row);
}

void QORExplanationReader::element(const QORMessageNode& element) {
    if (element.tag == tag::offset) m_errorPlace = parseInt64({element.data, element.size});
}

void QORExplanationReader::end(const QORAnswerError* error) {
    if (error != nullptr) throw QORException(error->code, error->message);
}

}  // namespace QOR
