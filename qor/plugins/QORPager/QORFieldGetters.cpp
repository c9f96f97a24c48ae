#include "QORPager/QORFieldGetters.h"

#include "QORCommon/QORTime.h"
#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORMessageRead.h"

namespace QOR {

namespace {

/// What a getter of the event log gives: read(row), "" for a row of another kind.
template <class Read>
std::string fromEvent(const QORArg& row, Read read) {
    const auto* const event = dynamic_cast<const QOREventArg*>(&row);
    return event == nullptr ? std::string() : read(*event);
}

/// Whether a list of `size` elements ends with the one at the index; a list of none has no further one.
bool isLast(std::size_t size, int index) {
    return size == 0 || size == static_cast<std::size_t>(index) + 1;
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
    if (row.env() != nullptr && index == 0) {
        const QORFurtherMember member = findFurtherMember(*row.env(), *field);
        if (member.isKnown) return last = member.last, std::string(member.text);
    }
    return getValueFromMessage(row.getMessage(), *field, last, index);
}

std::string getENVValueByPath(const QORArg& row, const QORField* field, bool& last, int index) {
    last = true;
    if (row.env() == nullptr) return {};
    const QORFurtherMember member = index == 0 ? findFurtherMember(*row.env(), *field) : QORFurtherMember();
    if (member.isKnown) return last = member.last, std::string(member.text);
    return getValueFromMessage(row.env()->getVirtualConfig()->getMessageIterator(), *field, last, index);
}

std::string getFieldValueParameter(const QORArg& row, const QORField* field, bool&, int) {
    return row.getInfo().getParameterByPath(field->path);
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
