#include "QORPager/QORFieldGetters.h"

#include <algorithm>
#include <array>

#include "QORCommon/QORTime.h"
#include "QORLibAgent/QOREnvCache.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessageRead.h"

namespace QOR {

namespace {

/// What a getter of environments gives: read(environment), "" for a row without one.
template <class Read>
std::string fromEnv(const QORArg& row, Read read) {
    return row.env() == nullptr ? std::string() : read(*row.env());
}

/// The same for the rows of the event log.
template <class Read>
std::string fromEvent(const QORArg& row, Read read) {
    const auto* const event = dynamic_cast<const QOREventArg*>(&row);
    return event == nullptr ? std::string() : read(*event);
}

/// Whether a list of `size` elements ends with the one at the index; a list of none has no further one.
bool isLast(std::size_t size, int index) {
    return size == 0 || size == static_cast<std::size_t>(index) + 1;
}

// A message costs some microseconds, and a filter may read a field from very many environments. So the plain text of
// a member that only the further members can hold is read from there; everything else goes through the message, which
// defines what a path means.

bool isPlainText(const QORField& field) {
    const bool hasForm = field.valueType == TValueType::Time || field.valueType == TValueType::Boolean || field.base64;
    return field.valueName.empty() && !hasForm;
}

/// Whether a step of a path means what it says: nothing is passed over, and a number means a tag.
bool isPlainStep(std::string_view name) {
    return !name.empty() && (name.front() < '0' || name.front() > '9');
}

/// Whether the member has a place of its own in a configuration.
bool isKnownMember(std::string_view name) {
    constexpr std::array<std::string_view, 8> names{"name",         "description", "domain", "hostname",
                                                    "architecture", "type",        "os",     "ip"};
    return std::find(names.begin(), names.end(), name) != names.end();
}

/// The parameter without children at a path below the further members of a configuration; null when there is none, or
/// when it must be looked for in the message. \param last set, when it is found, to whether no sibling has its name
const QORInfo* findLeaf(const QOREnvConfig& config, std::string_view path, bool& last) {
    if (isKnownMember(path.substr(0, path.find('/')))) return nullptr;
    const QORInfo* found = &config.further();
    for (bool end = false; !end;) {
        const std::size_t length = std::min(path.find('/'), path.size());
        const std::string_view name = path.substr(0, length);
        end = length == path.size();
        path.remove_prefix(end ? length : length + 1);
        if (!isPlainStep(name)) return nullptr;
        const auto& children = found->children();
        const auto hasName = [name](const QORInfo& child) { return child.name() == name; };
        const auto child = std::find_if(children.begin(), children.end(), hasName);
        if (child == children.end()) return nullptr;
        found = &*child;
        if (end) last = std::none_of(child + 1, children.end(), hasName);
    }
    return found->children().empty() ? found : nullptr;
}

/// The same for a path from the root of a row's message.
const QORInfo* findFurtherMember(const QORArg& row, const QORField& field, bool& last, int index) {
    constexpr std::string_view configPath = "env/config/";
    constexpr std::string_view virtualConfigPath = "env/virtual_config/";
    if (row.env() == nullptr || index != 0 || !isPlainText(field)) return nullptr;
    const std::string_view path = field.path;
    if (path.starts_with(configPath)) {
        return findLeaf(*row.env()->getConfig(), path.substr(configPath.size()), last);
    }
    if (path.starts_with(virtualConfigPath)) {
        return findLeaf(*row.env()->getVirtualConfig(), path.substr(virtualConfigPath.size()), last);
    }
    return nullptr;
}

std::string readByType(const QORMessageIterator& at, const QORField& field) {
    std::string text;
    switch (field.valueType) {
        case TValueType::Time: {
            std::int64_t seconds = 0;
            return readTime(at, field.valueName, seconds) == 0 ? time2str(seconds) : std::string();
        }
        case TValueType::Boolean: {
            bool value = false;
            if (existsNamed(at, field.valueName)) static_cast<void>(readBoolean(at, field.valueName, value));
            return value ? "1" : "0";
        }
        case TValueType::String:
            if (field.base64) {
                static_cast<void>(readBase64Text(at, field.valueName, text));
                return text;
            }
            break;
        default:
            break;
    }
    static_cast<void>(readText(at, field.valueName, text));
    return text;
}

}  // namespace

std::string getFieldValueEID(const QORArg& row, const QORField*, bool&, int) {
    return fromEnv(row, [](const QOREnv& env) { return fieldText(env.getEID()); });
}

std::string getFieldValueParentEID(const QORArg& row, const QORField*, bool&, int) {
    return fromEnv(row, [](const QOREnv& env) { return fieldText(env.getParentEID()); });
}

std::string getFieldValueParentHostname(const QORArg& row, const QORField*, bool&, int) {
    return fromEnv(row, [](const QOREnv& env) {
        const QOREnvCache* const cache = envCache();
        if (!env.getParentEID().isValid() || cache == nullptr) return std::string();
        const QORPtr<const QOREnv> parent = cache->getEnvCopy(env.getParentEID());
        return parent == nullptr ? std::string() : fieldText(parent->getConfig()->hostname());
    });
}

std::string getFieldValueEnvTitle(const QORArg& row, const QORField*, bool&, int) {
    return fromEnv(row, [](const QOREnv& env) { return fieldText(env.getTitle()); });
}

std::string getFieldValueEnvState(const QORArg& row, const QORField*, bool&, int) {
    return fromEnv(row, [](const QOREnv& env) { return std::to_string(env.getStatus().state); });
}

std::string getFieldValueEnvTransition(const QORArg& row, const QORField*, bool&, int) {
    return fromEnv(row, [](const QOREnv& env) { return std::to_string(env.getStatus().transition); });
}

std::string getIP(const std::optional<std::vector<std::string>>& addresses, bool& last, int index) {
    last = true;
    if (!addresses) return {};
    last = isLast(addresses->size(), index);
    const auto position = static_cast<std::size_t>(index);
    return position < addresses->size() ? (*addresses)[position] : std::string();
}

std::string getValueFromMessage(const std::shared_ptr<QORMessageIterator>& it, const QORField& field, bool& last,
                                int index) {
    last = true;
    if (it == nullptr || it->seekPath(field.path) != 0) return {};
    for (int passed = 0; passed < index; ++passed) {
        if (nextSameName(*it) != 0) return {};
    }
    std::string text;
    if (field.valueName == "/") {
        static_cast<void>(serializeMessage(*it, text));
    } else {
        text = readByType(*it, field);
    }
    last = nextSameName(*it) != 0;
    return text;
}

std::string getFieldValueByPath(const QORArg& row, const QORField* field, bool& last, int index) {
    if (const QORInfo* const value = findFurtherMember(row, *field, last, index)) return value->value();
    return getValueFromMessage(row.getMessage(), *field, last, index);
}

std::string getENVValueByPath(const QORArg& row, const QORField* field, bool& last, int index) {
    last = true;
    if (row.env() == nullptr) return {};
    const QOREnvConfig& config = *row.env()->getVirtualConfig();
    if (isPlainText(*field) && index == 0) {
        if (const QORInfo* const value = findLeaf(config, field->path, last)) return value->value();
    }
    return getValueFromMessage(row.env()->getVirtualConfig()->getMessageIterator(), *field, last, index);
}

std::string getFieldValueParameter(const QORArg& row, const QORField* field, bool&, int) {
    return row.getInfo().getParameterByPath(field->path);
}

std::string getFieldValueEmpty(const QORArg&, const QORField*, bool&, int) {
    return {};
}

std::string getTrueFieldValue(const QORArg&, const QORField*, bool&, int) {
    return "true";
}

std::string getFieldValueActionsTaskID(const QORArg& row, const QORField*, bool&, int) {
    return row.getInfo().getParameterByPath("task_id");
}

std::string getActionTime(const QORProgressArg& row) {
    return time2str(row.record.time);
}
std::string getActionId(const QORProgressArg& row) {
    return row.record.id;
}
std::string getActionParentId(const QORProgressArg& row) {
    return row.record.parentId;
}
std::string getActionOp(const QORProgressArg& row) {
    return row.record.op;
}
std::string getActionStatus(const QORProgressArg& row) {
    return std::to_string(row.record.status);
}
std::string getActionMessage(const QORProgressArg& row) {
    return row.record.message.toString();
}
std::string getActionOriginEID(const QORProgressArg& row) {
    return fieldText(row.origin.eid);
}
std::string getActionOriginType(const QORProgressArg& row) {
    return row.origin.type;
}
std::string getActionOriginTitle(const QORProgressArg& row) {
    return fieldText(row.origin.title);
}

std::string getFieldValueActionsMessageXML(const QORArg& row, const QORField*, bool&, int) {
    const auto* const action = dynamic_cast<const QORProgressArg*>(&row);
    if (action == nullptr) return {};
    QORMessage message;
    QORBinaryIterator it = message.root();
    if (putObj(it, tag::message, action->record.message) != 0 || it.firstChild(tag::message) != 0) return {};
    std::string text;
    return serializeMessage(it, messageFormatXml, text) == 0 ? text : std::string();
}

std::string getFieldValueActionsEIDList(const QORArg& row, const QORField*, bool& last, int index) {
    last = true;
    const auto* const action = dynamic_cast<const QORProgressArg*>(&row);
    if (action == nullptr) return {};
    last = isLast(action->record.eids.size(), index);
    const QOREID* const eid = action->touchedEnv(static_cast<std::size_t>(index));
    return eid == nullptr ? std::string() : fieldText(*eid);
}

std::string getFieldValueEventTime(const QORArg& row, const QORField*, bool&, int) {
    return fromEvent(row, [](const QOREventArg& arg) { return time2str(arg.event.time); });
}

std::string getFieldValueEventOriginEID(const QORArg& row, const QORField*, bool&, int) {
    return fromEvent(row, [](const QOREventArg& arg) { return fieldText(arg.origin.eid); });
}

std::string getFieldValueEventOriginType(const QORArg& row, const QORField*, bool&, int) {
    return fromEvent(row, [](const QOREventArg& arg) { return arg.origin.type; });
}

std::string getFieldValueEventOriginTitle(const QORArg& row, const QORField*, bool&, int) {
    return fromEvent(row, [](const QOREventArg& arg) { return fieldText(arg.origin.title); });
}

std::string getFieldValueEventSource(const QORArg& row, const QORField*, bool&, int) {
    return fromEvent(row, [](const QOREventArg& arg) { return arg.event.source; });
}

std::string getFieldValueEventCategory(const QORArg& row, const QORField*, bool&, int) {
    return fromEvent(row, [](const QOREventArg& arg) { return arg.event.category; });
}

std::string getFieldValueEventInfo(const QORArg& row, const QORField*, bool&, int) {
    return fromEvent(row, [](const QOREventArg& arg) { return arg.event.info.toString(); });
}

}  // namespace QOR
