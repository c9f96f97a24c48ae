#include "ingest/QORRecords.h"

#include <algorithm>
#include <array>
#include <limits>
#include <set>
#include <span>
#include <vector>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORNumbers.h"
#include "QORCommon/QORSourcePath.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "ingest/JsonTree.h"

namespace QOR {
namespace {

[[noreturn]] void refuse(const std::string& reason) {
    throw QORException(errBadRequest, reason, QOR_SOURCE_PATH, __LINE__);
}

std::string describe(const JsonValue& value) {
    switch (value.type) {
        case JsonType::Null:
            return "null";
        case JsonType::False:
            return "false";
        case JsonType::True:
            return "true";
        case JsonType::Number:
            return std::string(value.text.substr(0, 80));
        case JsonType::String:
            return quoteText(value.text);
        case JsonType::Object:
            return "an object";
        case JsonType::Array:
            return "an array";
    }
    return {};
}

/// A value and the name by which complaints call it, such as "config.hostname".
struct Named {
    const JsonTree& tree;
    const JsonValue& value;
    std::string_view prefix;
    const QORRecordBounds& bounds;

    [[noreturn]] void refuseAs(const std::string& wanted) const {
        refuse("member " + quoteText(std::string(prefix) + std::string(value.name)) + ": " + describe(value) +
               " is not " + wanted);
    }
    bool isNull() const { return value.type == JsonType::Null; }
};

std::optional<std::string> readText(const Named& member) {
    if (member.isNull()) return std::nullopt;
    if (member.value.type != JsonType::String) member.refuseAs("a text");
    if (member.value.text.find('\0') != std::string_view::npos) member.refuseAs("a text without NUL characters");
    return std::string(member.value.text);
}

/// A text that an index holds.
std::optional<std::string> readIndexed(const Named& member) {
    auto text = readText(member);
    if (text && text->size() > member.bounds.longestIndexed) {
        refuse("member " + quoteText(std::string(member.prefix) + std::string(member.value.name)) + " has " +
               std::to_string(text->size()) + " bytes; what is searched by has at most " +
               std::to_string(member.bounds.longestIndexed) + " in this database");
    }
    return text;
}

std::string readIdentifier(const Named& member) {
    auto text = readIndexed(member);
    if (!text || text->empty()) member.refuseAs("an identifier");
    return std::move(*text);
}

std::int32_t readInt(const Named& member) {
    if (member.isNull()) return 0;
    const auto number = member.value.type == JsonType::Number ? parseInt32(member.value.text) : std::nullopt;
    if (!number) member.refuseAs("an integer of 32 bits");
    return *number;
}

std::int64_t readSize(const Named& member) {
    if (member.isNull()) return 0;
    const auto number = member.value.type == JsonType::Number ? parseInt64(member.value.text) : std::nullopt;
    if (!number || *number < 0) member.refuseAs("a size (a whole number from 0 to 9223372036854775807)");
    return *number;
}

std::optional<std::int64_t> toTime(const Named& member) {
    std::optional<std::int64_t> seconds;
    if (member.value.type == JsonType::Number) seconds = parseInt64(member.value.text);
    if (member.value.type == JsonType::String) seconds = parseTime(member.value.text);
    if (seconds && (*seconds < member.bounds.firstSecond || *seconds > lastDbSecond)) seconds.reset();
    return seconds;
}

std::int64_t readTime(const Named& member) {
    const auto seconds = toTime(member);
    if (!seconds) member.refuseAs("a time (whole seconds since 1970, or a text such as \"2024-01-31T12:00:00Z\")");
    return *seconds;
}

QOREID readEid(const Named& member) {
    if (member.isNull()) return {};
    QOREID eid;
    if (member.value.type != JsonType::String) member.refuseAs("a GUID");
    if (!member.value.text.empty() && !eid.fromString(member.value.text)) member.refuseAs("a GUID");
    return eid;
}

QORGUIDBase readGuid(const Named& member) {
    if (member.isNull()) return {};
    const auto guid =
        member.value.type == JsonType::String ? QORGUIDBase::parse(member.value.text) : std::optional<QORGUIDBase>();
    if (!guid || !guid->isValid()) member.refuseAs("a GUID");
    return *guid;
}

QOREID readRequiredEid(const Named& member) {
    const QOREID eid = readEid(member);
    if (!eid.isValid()) member.refuseAs("the GUID of an environment");
    return eid;
}

std::vector<QOREID> readEids(const Named& member) {
    std::vector<QOREID> eids;
    std::set<QOREID> known;
    if (member.isNull()) return eids;
    if (member.value.type != JsonType::Array) member.refuseAs("an array of GUIDs");
    for (auto item = member.tree.firstChild(member.value); item; item = member.tree.nextSibling(*item)) {
        JsonValue named = *item;
        named.name = member.value.name;
        const QOREID eid = readRequiredEid({member.tree, named, member.prefix, member.bounds});
        if (!known.insert(eid).second) continue;
        if (eids.size() == QOROperationRecord::mostEids) {
            refuse("member " + quoteText(std::string(member.prefix) + std::string(member.value.name)) +
                   ": an operation touches at most " + std::to_string(QOROperationRecord::mostEids) + " environments");
        }
        eids.push_back(eid);
    }
    return eids;
}

std::vector<std::string> readTexts(const Named& member) {
    std::vector<std::string> texts;
    if (member.isNull()) return texts;
    if (member.value.type != JsonType::Array) member.refuseAs("an array of texts");
    for (auto item = member.tree.firstChild(member.value); item; item = member.tree.nextSibling(*item)) {
        JsonValue named = *item;
        named.name = member.value.name;
        auto text = readIndexed({member.tree, named, member.prefix, member.bounds});
        if (!text) member.refuseAs("an array of texts without null");
        texts.push_back(std::move(*text));
    }
    return texts;
}

std::string_view scalarText(const JsonValue& value) {
    switch (value.type) {
        case JsonType::False:
            return "false";
        case JsonType::True:
            return "true";
        case JsonType::Number:
        case JsonType::String:
            return value.text;
        default:
            return {};
    }
}

/// Builds an info document from an object, with a stack of its own.
class InfoBuilder {
public:
    explicit InfoBuilder(const JsonTree& tree) : m_tree(tree) {}

    QORInfo build(const JsonValue& object) {
        m_open.clear();
        m_open.push_back({QORInfo(), m_tree.firstChild(object), {}, false});
        for (;;) {
            Frame& top = m_open.back();
            if (top.next == nullptr) {
                if (m_open.size() == 1) return std::move(top.info);
                close();
                continue;
            }
            const JsonValue& value = *top.next;
            top.next = m_tree.nextSibling(value);
            take(value, top.itemName.empty() ? value.name : top.itemName);
        }
    }

private:
    struct Frame {
        QORInfo info;
        const JsonValue* next;
        std::string_view itemName;  // of an array: how its items are named
        bool repeats;               // an array whose items go into the frame below
    };

    void take(const JsonValue& value, std::string_view name) {
        const JsonValue* first = m_tree.firstChild(value);
        if (value.type == JsonType::Object) {
            m_open.push_back({QORInfo(std::string(name)), first, {}, false});
        } else if (value.type != JsonType::Array) {
            target().add(std::string(name), std::string(scalarText(value)));
        } else if (m_open.back().itemName.empty() && !name.empty()) {
            m_open.push_back({QORInfo(), first, name, true});
        } else {
            m_open.push_back({QORInfo(std::string(name)), first, "item", false});
        }
    }

    void close() {
        Frame done = std::move(m_open.back());
        m_open.pop_back();
        if (!done.repeats) target().add(std::move(done.info));
    }

    QORInfo& target() {
        const std::size_t top = m_open.size() - 1;
        return m_open[m_open[top].repeats ? top - 1 : top].info;
    }

    const JsonTree& m_tree;
    std::vector<Frame> m_open;
};

std::optional<QORInfo> readInfo(const Named& member) {
    if (member.isNull()) return std::nullopt;
    if (member.value.type != JsonType::Object) member.refuseAs("an object");
    return InfoBuilder(member.tree).build(member.value);
}

/// A member of a record: its name and what takes its value.
template <class Record>
struct Member {
    std::string_view name;
    void (*read)(Record& record, const Named& member);
    bool required = false;
    void (*readText)(Record& record, const Named& member, QOREnvMember which) = nullptr;  ///< instead of read
    QOREnvMember which{};
};

/// Gives every member of the object to its reader. \param open members without a reader are passed over
template <class Record>
void readMembers(const Named& object, std::span<const Member<Record>> members, bool open, Record& record) {
    std::uint32_t seen = 0;
    for (auto child = object.tree.firstChild(object.value); child; child = object.tree.nextSibling(*child)) {
        const auto found = std::find_if(members.begin(), members.end(),
                                        [&](const Member<Record>& member) { return member.name == child->name; });
        const std::string name = std::string(object.prefix) + std::string(child->name);
        if (found == members.end()) {
            if (open) continue;
            std::vector<std::string_view> known;
            for (const Member<Record>& member : members)
                known.push_back(member.name);
            refuse("unknown member " + quoteText(name) + adviseOnName(child->name, known));
        }
        const std::uint32_t bit = 1U << (found - members.begin());
        if ((seen & bit) != 0) refuse("member " + quoteText(name) + " is there twice");
        seen |= bit;
        const Named member{object.tree, *child, object.prefix, object.bounds};
        found->readText != nullptr ? found->readText(record, member, found->which) : found->read(record, member);
    }
    for (std::size_t i = 0; i < members.size(); ++i) {
        if (members[i].required && (seen & (1U << i)) == 0) {
            refuse("member " + quoteText(std::string(object.prefix) + std::string(members[i].name)) + " is missing");
        }
    }
}

void ignoreKind(auto&, const Named&) {}

using ConfigMember = Member<QORConfigRecord>;

// The document holds the text.
void checkText(QORConfigRecord& record, const Named& member, QOREnvMember which) {
    record.nulls[static_cast<std::size_t>(which)] =
        !(which == QOREnvMember::Hostname ? readIndexed(member) : readText(member));
}

void readOs(QORConfigRecord& record, const Named& member);

/// The members of a group, the named texts first.
std::vector<ConfigMember> configMembersOf(std::string_view group, std::vector<ConfigMember> others) {
    std::vector<ConfigMember> members;
    for (const QOREnvMemberRow& row : envMembers) {
        if (row.group == group) members.push_back({row.name, nullptr, false, checkText, row.member});
    }
    members.insert(members.end(), others.begin(), others.end());
    return members;
}

constexpr std::string_view osGroup = "os";

const std::vector<ConfigMember>& configMembers() {
    static const std::vector<ConfigMember> members =
        configMembersOf({}, {
                                {osGroup, readOs},
                                {"ip", [](QORConfigRecord& r, const Named& m) { r.addresses = readTexts(m); }},
                                {"memory",
                                 [](QORConfigRecord& r, const Named& m) {
                                     if (m.value.type == JsonType::Number) r.memory = parseInt64(m.value.text);
                                 }},
                                {"boot_time", [](QORConfigRecord& r, const Named& m) { r.bootTime = toTime(m); }},
                            });
    return members;
}

void readOs(QORConfigRecord& record, const Named& member) {
    static const std::vector<ConfigMember> members = configMembersOf(osGroup, {});
    if (member.isNull()) return;
    if (member.value.type != JsonType::Object) member.refuseAs("an object");
    const std::string prefix = std::string(member.prefix) + "os.";
    readMembers<QORConfigRecord>({member.tree, member.value, prefix, member.bounds}, members, true, record);
}

std::optional<QORConfigRecord> readConfig(const Named& member) {
    auto document = readInfo(member);
    if (!document) return std::nullopt;
    QORConfigRecord record(std::move(*document));
    const std::string prefix = std::string(member.value.name) + ".";
    readMembers<QORConfigRecord>({member.tree, member.value, prefix, member.bounds}, configMembers(), true, record);
    return record;
}

constexpr Member<QOREnvironmentRecord> environmentMembers[] = {
    {"kind", ignoreKind},
    {"eid", [](QOREnvironmentRecord& r, const Named& m) { r.eid = readRequiredEid(m); }, true},
    {"parent_eid", [](QOREnvironmentRecord& r, const Named& m) { r.parentEid = readEid(m); }},
    {"title", [](QOREnvironmentRecord& r, const Named& m) { r.title = readText(m); }},
    {"state", [](QOREnvironmentRecord& r, const Named& m) { r.state = readInt(m); }},
    {"transition", [](QOREnvironmentRecord& r, const Named& m) { r.transition = readInt(m); }},
    {"config", [](QOREnvironmentRecord& r, const Named& m) { r.config = readConfig(m); }},
    {"virtual_config", [](QOREnvironmentRecord& r, const Named& m) { r.virtualConfig = readConfig(m); }},
};

constexpr Member<QOROperationRecord> operationMembers[] = {
    {"kind", ignoreKind},
    {"id", [](QOROperationRecord& r, const Named& m) { r.id = readIdentifier(m); }, true},
    {"parent_id", [](QOROperationRecord& r, const Named& m) { r.parentId = readText(m); }},
    {"op", [](QOROperationRecord& r, const Named& m) { r.op = readText(m); }},
    {"status", [](QOROperationRecord& r, const Named& m) { r.status = readInt(m); }},
    {"time", [](QOROperationRecord& r, const Named& m) { r.time = readTime(m); }, true},
    {"eid", [](QOROperationRecord& r, const Named& m) { r.eid = readEid(m); }},
    {"eids", [](QOROperationRecord& r, const Named& m) { r.eids = readEids(m); }},
    {"message", [](QOROperationRecord& r, const Named& m) { r.message = readInfo(m); }},
};

constexpr Member<QOREventRecord> eventMembers[] = {
    {"kind", ignoreKind},
    {"id", [](QOREventRecord& r, const Named& m) { r.id = readGuid(m); }},
    {"time", [](QOREventRecord& r, const Named& m) { r.time = readTime(m); }, true},
    {"eid", [](QOREventRecord& r, const Named& m) { r.eid = readEid(m); }},
    {"source", [](QOREventRecord& r, const Named& m) { r.source = readText(m); }},
    {"category", [](QOREventRecord& r, const Named& m) { r.category = readIndexed(m); }},
    {"info", [](QOREventRecord& r, const Named& m) { r.info = readInfo(m); }},
};

constexpr Member<QORBackupRecord> backupMembers[] = {
    {"kind", ignoreKind},
    {"id", [](QORBackupRecord& r, const Named& m) { r.id = readIdentifier(m); }, true},
    {"eid", [](QORBackupRecord& r, const Named& m) { r.eid = readEid(m); }},
    {"storage_eid", [](QORBackupRecord& r, const Named& m) { r.storageEid = readEid(m); }},
    {"time", [](QORBackupRecord& r, const Named& m) { r.time = readTime(m); }, true},
    {"size", [](QORBackupRecord& r, const Named& m) { r.size = readSize(m); }},
    {"type", [](QORBackupRecord& r, const Named& m) { r.type = readInt(m); }},
    {"description", [](QORBackupRecord& r, const Named& m) { r.description = readText(m); }},
    {"name", [](QORBackupRecord& r, const Named& m) { r.name = readText(m); }},
    {"hostname", [](QORBackupRecord& r, const Named& m) { r.hostname = readText(m); }},
    {"info", [](QORBackupRecord& r, const Named& m) { r.info = readInfo(m); }},
};

template <class Record, std::size_t size>
QORRecord readRecord(const Named& object, const Member<Record> (&members)[size]) {
    Record record;
    readMembers<Record>(object, members, false, record);
    return record;
}

constexpr std::array<std::string_view, recordKindCount> kindNames{"environment", "operation", "event", "backup"};

QORRecordKind readKind(const Named& object) {
    for (auto child = object.tree.firstChild(object.value); child; child = object.tree.nextSibling(*child)) {
        if (child->name != "kind") continue;
        if (child->type == JsonType::String) {
            const auto kind = std::find(kindNames.begin(), kindNames.end(), child->text);
            if (kind != kindNames.end()) return static_cast<QORRecordKind>(kind - kindNames.begin());
        }
        refuse("unknown kind " + describe(*child) +
               (child->type == JsonType::String ? adviseOnName(child->text, kindNames) : std::string()));
    }
    refuse("member \"kind\" is missing");
}

}  // namespace

std::string_view recordKindName(QORRecordKind kind) {
    return kindNames[static_cast<std::size_t>(kind)];
}

struct QORRecordParser::Impl {
    JsonTree tree;
    const QORRecordBounds bounds;
};

QORRecordBounds QORRecordBounds::of(const ASDialect& dialect) noexcept {
    return {dialect.firstSecond, dialect.longestIndexed};
}

QORRecordParser::QORRecordParser(const QORRecordBounds& bounds)
    : m_impl(std::make_unique<Impl>(Impl{JsonTree(), bounds})) {}
QORRecordParser::~QORRecordParser() = default;

bool QORRecordParser::isAside(std::string_view line) {
    const auto isName = [](std::string_view name) { return name == "position" || name == "end"; };
    const std::size_t begin = line.find('"') + 1;
    // Records begin otherwise, and are read once.
    if (!isName(line.substr(begin, std::min(line.find('"', begin), line.size()) - begin))) return false;
    try {
        const JsonValue& root = m_impl->tree.parse(line);
        const JsonValue* const member = root.type == JsonType::Object ? m_impl->tree.firstChild(root) : nullptr;
        return member != nullptr && isName(member->name) && member->type == JsonType::Object &&
               m_impl->tree.nextSibling(*member) == nullptr;
    } catch (const QORException&) {  // whoever parses it as a record says what is wrong with it
        return false;
    }
}

QORRecord QORRecordParser::parse(std::string_view line) {
    const JsonValue& root = m_impl->tree.parse(line);
    if (root.type != JsonType::Object) refuse("a record is a JSON object, not " + describe(root));
    const Named object{m_impl->tree, root, {}, m_impl->bounds};
    switch (readKind(object)) {
        case QORRecordKind::Environment:
            return readRecord(object, environmentMembers);
        case QORRecordKind::Operation:
            return readRecord(object, operationMembers);
        case QORRecordKind::Event:
            return readRecord(object, eventMembers);
        case QORRecordKind::Backup:
            return readRecord(object, backupMembers);
    }
    refuse("unknown kind");
}

}  // namespace QOR
