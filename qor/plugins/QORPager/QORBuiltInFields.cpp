#include "QORPager/QORBuiltInFields.h"

#include <array>

#include "QORPager/QORFieldGetters.h"

namespace QOR {
namespace {

using enum TCursorType;
using enum TValueType;
using enum FieldStructType;

// A configuration and a virtual configuration have the same members, each of which is a field of its own.
constexpr std::array<QORBuiltInField, 51> fields{{
    {"pager.env.eid", Env, getFieldValueEID},
    {"pager.env.parent_eid", Env, getFieldValueParentEID},
    {"pager.env.parent_hostname", Env, getFieldValueParentHostname},
    {"pager.env.eid.InPlaceholder", Env, getFieldValueEmpty},
    {"pager.env.title", Env, getFieldValueEnvTitle},
    {"pager.env.state", Env, getFieldValueEnvState},
    {"pager.env.transition", Env, getFieldValueEnvTransition},
    {"pager.env.config.name", Env, getFieldValueConfigName},
    {"pager.env.config.description", Env, getFieldValueConfigDescription},
    {"pager.env.config.domain", Env, getFieldValueConfigDomain},
    {"pager.env.config.hostname", Env, getFieldValueConfigHostname},
    {"pager.env.config.architecture", Env, getFieldValueConfigArchitecture},
    {"pager.env.config.type", Env, getFieldValueConfigType},
    {"pager.env.config.os.name", Env, getFieldValueConfigOSname},
    {"pager.env.config.os.platform", Env, getFieldValueConfigOSplatform},
    {"pager.env.config.os.version", Env, getFieldValueConfigOSversion},
    {"pager.env.config.ip_text", Env, getFieldValueConfigIPText},
    {"pager.env.config.ip", Env, getFieldValueConfigIP, String, Multi, true},
    {"pager.env.vconfig.name", Env, getFieldValueVConfigName},
    {"pager.env.vconfig.description", Env, getFieldValueVConfigDescription},
    {"pager.env.vconfig.domain", Env, getFieldValueVConfigDomain},
    {"pager.env.vconfig.hostname", Env, getFieldValueVConfigHostname},
    {"pager.env.vconfig.architecture", Env, getFieldValueVConfigArchitecture},
    {"pager.env.vconfig.type", Env, getFieldValueVConfigType},
    {"pager.env.vconfig.os.name", Env, getFieldValueVConfigOSname},
    {"pager.env.vconfig.os.platform", Env, getFieldValueVConfigOSplatform},
    {"pager.env.vconfig.os.version", Env, getFieldValueVConfigOSversion},
    {"pager.env.vconfig.ip_text", Env, getFieldValueVConfigIPText},
    {"pager.env.vconfig.ip", Env, getFieldValueVConfigIP, String, Multi, true},
    {"pager.env.vconfig.base_sample_id", Env, getFieldValueByPath, String, Single, true,
     "env/virtual_config/base_sample_id"},
    {"pager.env.vconfig.base_snapshot_id", Env, getFieldValueByPath, String, Single, true,
     "env/virtual_config/base_snapshot_id"},
    {"pager.op_log.origin.eid", OpLog, getFieldValueImplActionsT<getActionOriginEID>},
    {"pager.op_log.origin.type", OpLog, getFieldValueImplActionsT<getActionOriginType>},
    {"pager.op_log.origin.title", OpLog, getFieldValueImplActionsT<getActionOriginTitle>},
    {"pager.op_log_eid.eid", OpLog, getFieldValueActionsEIDList, String, Multi, true},
    {"pager.op_log.time", OpLog, getFieldValueImplActionsT<getActionTime>, Time},
    {"pager.op_log.id", OpLog, getFieldValueImplActionsT<getActionId>},
    {"pager.op_log.parent_id", OpLog, getFieldValueImplActionsT<getActionParentId>},
    {"pager.op_log.op", OpLog, getFieldValueImplActionsT<getActionOp>},
    {"pager.op_log.status", OpLog, getFieldValueImplActionsT<getActionStatus>, Integer},
    {"pager.op_log.message", OpLog, getFieldValueImplActionsT<getActionMessage>},
    {"pager.op_log.messagexml", OpLog, getFieldValueActionsMessageXML},
    {"pager.op_log.latest", OpLog, getTrueFieldValue, Boolean},
    {"pager.op_log.task_id", OpLog, getFieldValueActionsTaskID},
    {"pager.event_log.origin.eid", EventLog, getFieldValueEventOriginEID},
    {"pager.event_log.origin.type", EventLog, getFieldValueEventOriginType},
    {"pager.event_log.origin.title", EventLog, getFieldValueEventOriginTitle},
    {"pager.event_log.time", EventLog, getFieldValueEventTime, Time},
    {"pager.event_log.source", EventLog, getFieldValueEventSource},
    {"pager.event_log.category", EventLog, getFieldValueEventCategory},
    {"pager.event_log.info", EventLog, getFieldValueEventInfo},
}};

}  // namespace

std::span<const QORBuiltInField> builtInFields() noexcept {
    return fields;
}

}  // namespace QOR
