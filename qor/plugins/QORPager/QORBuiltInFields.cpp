#include "QORPager/QORBuiltInFields.h"

#include <array>

namespace QOR {
namespace {

using enum TCursorType;
using enum TValueType;
using enum FieldStructType;

constexpr std::array<QORBuiltInField, 51> fields{{
    {"pager.env.eid", Env},
    {"pager.env.parent_eid", Env},
    {"pager.env.parent_hostname", Env},
    {"pager.env.eid.InPlaceholder", Env},
    {"pager.env.title", Env},
    {"pager.env.state", Env},
    {"pager.env.transition", Env},
    {"pager.env.config.name", Env},
    {"pager.env.config.description", Env},
    {"pager.env.config.domain", Env},
    {"pager.env.config.hostname", Env},
    {"pager.env.config.architecture", Env},
    {"pager.env.config.type", Env},
    {"pager.env.config.os.name", Env},
    {"pager.env.config.os.platform", Env},
    {"pager.env.config.os.version", Env},
    {"pager.env.config.ip_text", Env},
    {"pager.env.config.ip", Env, String, Multi, true},
    {"pager.env.vconfig.name", Env},
    {"pager.env.vconfig.description", Env},
    {"pager.env.vconfig.domain", Env},
    {"pager.env.vconfig.hostname", Env},
    {"pager.env.vconfig.architecture", Env},
    {"pager.env.vconfig.type", Env},
    {"pager.env.vconfig.os.name", Env},
    {"pager.env.vconfig.os.platform", Env},
    {"pager.env.vconfig.os.version", Env},
    {"pager.env.vconfig.ip_text", Env},
    {"pager.env.vconfig.ip", Env, String, Multi, true},
    {"pager.env.vconfig.base_sample_id", Env, String, Single, true, "env/virtual_config/base_sample_id"},
    {"pager.env.vconfig.base_snapshot_id", Env, String, Single, true, "env/virtual_config/base_snapshot_id"},
    {"pager.op_log.origin.eid", OpLog},
    {"pager.op_log.origin.type", OpLog},
    {"pager.op_log.origin.title", OpLog},
    {"pager.op_log_eid.eid", OpLog, String, Multi, true},
    {"pager.op_log.time", OpLog, Time},
    {"pager.op_log.id", OpLog},
    {"pager.op_log.parent_id", OpLog},
    {"pager.op_log.op", OpLog},
    {"pager.op_log.status", OpLog, Integer},
    {"pager.op_log.message", OpLog},
    {"pager.op_log.messagexml", OpLog},
    {"pager.op_log.latest", OpLog, Boolean},
    {"pager.op_log.task_id", OpLog},
    {"pager.event_log.origin.eid", EventLog},
    {"pager.event_log.origin.type", EventLog},
    {"pager.event_log.origin.title", EventLog},
    {"pager.event_log.time", EventLog, Time},
    {"pager.event_log.source", EventLog},
    {"pager.event_log.category", EventLog},
    {"pager.event_log.info", EventLog},
}};

}  // namespace

std::span<const QORBuiltInField> builtInFields() noexcept {
    return fields;
}

}  // namespace QOR
