#include "ingest/QORExportPosition.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "ingest/JsonTree.h"

namespace QOR {
namespace {

constexpr std::array allRecordKinds{QORRecordKind::Environment, QORRecordKind::Operation, QORRecordKind::Event,
                                    QORRecordKind::Backup};

[[noreturn]] void refusePosition(const std::string& what) {
    throw QORException(errBadRequest, "this is no position of an export: " + what, QOR_SOURCE_PATH, __LINE__);
}

/// A member of the object that a position is.
struct PositionMember {
    const JsonTree& tree;
    const JsonValue& value;

    [[noreturn]] void refuse() const { refusePosition("member " + quoteText(value.name) + " is none of its own"); }

    std::string text() const {
        if (value.type != JsonType::String) refuse();
        return std::string(value.text);
    }
    std::int64_t number() const {
        const auto read = value.type == JsonType::Number ? parseInt64(value.text) : std::nullopt;
        if (!read) refuse();
        return *read;
    }
    std::uint64_t count() const {
        const std::int64_t read = number();
        if (read < 0) refuse();
        return static_cast<std::uint64_t>(read);
    }
    QORRecordKind kind() const {
        const auto read =
            value.type == JsonType::String ? recordKindOfPlural(value.text) : std::optional<QORRecordKind>();
        if (!read) refuse();
        return *read;
    }
    template <class Use>
    void each(JsonType type, Use use) const {
        if (value.type != type) refuse();
        for (const JsonValue* child = tree.firstChild(value); child != nullptr; child = tree.nextSibling(*child))
            use(PositionMember{tree, *child});
    }
};

void takePositionMember(const PositionMember& member, QORExportPosition& position) {
    const std::string_view name = member.value.name;
    if (name == "kinds") {
        member.each(JsonType::Array,
                    [&](const PositionMember& kind) { position.question.kinds.push_back(kind.kind()); });
    } else if (name == "from") {
        position.question.from = member.number();
    } else if (name == "to") {
        position.question.to = member.number();
    } else if (name == "env") {
        if (!position.question.environment.fromString(member.text())) member.refuse();
    } else if (name == "at") {
        position.kind = member.kind();
    } else if (name == "after") {
        position.after = member.text();
    } else if (name == "counts") {
        member.each(JsonType::Object, [&](const PositionMember& count) {
            const auto kind = recordKindOfPlural(count.value.name);
            if (!kind) member.refuse();
            position.counts[static_cast<std::size_t>(*kind)] = count.count();
        });
    } else if (name == "of") {
        position.of = member.count();
    } else if (name == "unreadable") {
        position.unreadable = member.count();
    } else if (name == "database") {
        position.database = member.text();
    } else if (name == "server") {
        refusePosition(
            "it is one of an earlier version, which exported one server after the other: export to another file, from "
            "the beginning");
    } else {
        member.refuse();
    }
}

/// What stands in it is compared with columns of these types.
void checkPlace(const QORExportPosition& position) {
    const std::vector<QORRecordKind> kinds = position.kinds();
    if (!position.kind || std::find(kinds.begin(), kinds.end(), *position.kind) == kinds.end())
        refusePosition("it does not say where it is");
    if (position.after.empty()) return;
    const bool isPlace = *position.kind == QORRecordKind::Environment ? QORGUIDBase::parse(position.after).has_value()
                                                                      : parseInt64(position.after).has_value();
    if (!isPlace) refusePosition(quoteText(position.after) + " is no record's place");
}

using PositionJson = rapidjson::Writer<rapidjson::StringBuffer>;

void writeText(PositionJson& json, std::string_view text) {
    json.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void writeQuestion(PositionJson& json, const QORExportQuestion& question) {
    if (!question.kinds.empty()) {
        json.Key("kinds");
        json.StartArray();
        for (const QORRecordKind kind : question.kinds)
            writeText(json, recordKindPlural(kind));
        json.EndArray();
    }
    if (question.from) {
        json.Key("from");
        json.Int64(*question.from);
    }
    if (question.to) {
        json.Key("to");
        json.Int64(*question.to);
    }
    if (question.environment.isValid()) {
        json.Key("env");
        writeText(json, question.environment.toString());
    }
}

void writeCounts(PositionJson& json, const QORExportPosition& position) {
    json.Key("counts");
    json.StartObject();
    for (const QORRecordKind kind : position.kinds()) {
        const std::string name = recordKindPlural(kind);
        json.Key(name.c_str(), static_cast<rapidjson::SizeType>(name.size()));
        json.Uint64(position.counts[static_cast<std::size_t>(kind)]);
    }
    json.EndObject();
    if (position.unreadable == 0) return;
    json.Key("unreadable");
    json.Uint64(position.unreadable);
}

}  // namespace

std::string recordKindPlural(QORRecordKind kind) {
    return std::string(recordKindName(kind)) + "s";
}

std::optional<QORRecordKind> recordKindOfPlural(std::string_view word) {
    for (const QORRecordKind kind : allRecordKinds) {
        if (recordKindPlural(kind) == word) return kind;
    }
    return std::nullopt;
}

QORExportPosition QORExportPosition::ofText(std::string_view text) {
    JsonTree tree;
    const JsonValue& root = tree.parse(text);
    if (root.type != JsonType::Object) refusePosition("it is no object");
    QORExportPosition position;
    for (const JsonValue* child = tree.firstChild(root); child != nullptr; child = tree.nextSibling(*child))
        takePositionMember({tree, *child}, position);
    std::vector<QORRecordKind>& kinds = position.question.kinds;
    std::sort(kinds.begin(), kinds.end());
    kinds.erase(std::unique(kinds.begin(), kinds.end()), kinds.end());
    checkPlace(position);
    position.begun = true;
    return position;
}

std::string QORExportPosition::text() const {
    rapidjson::StringBuffer buffer;
    PositionJson json(buffer);
    json.StartObject();
    writeQuestion(json, question);
    json.Key("at");
    writeText(json, recordKindPlural(kind.value_or(kinds().front())));
    if (!after.empty()) {
        json.Key("after");
        writeText(json, after);
    }
    writeCounts(json, *this);
    if (of) {
        json.Key("of");
        json.Uint64(*of);
    }
    if (!database.empty()) {
        json.Key("database");
        writeText(json, database);
    }
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::string QORExportPosition::countsText() const {
    rapidjson::StringBuffer buffer;
    PositionJson json(buffer);
    json.StartObject();
    writeCounts(json, *this);
    json.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::vector<QORRecordKind> QORExportPosition::kinds() const {
    return question.kinds.empty() ? std::vector(allRecordKinds.begin(), allRecordKinds.end()) : question.kinds;
}

std::uint64_t QORExportPosition::records() const {
    std::uint64_t all = 0;
    for (const std::uint64_t count : counts)
        all += count;
    return all;
}

}  // namespace QOR
