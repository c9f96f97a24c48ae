#include "QORPager/QORSources.h"

#include <algorithm>
#include <array>
#include <cassert>

namespace QOR {
namespace {

using Turn = QORConstantTurn;
using Use = QORConstantUse;

// A table for what each source has of a kind. They look alike, and each says something else.
constexpr std::array<QORSourceConstant, 1> environmentConstants{{
    {"pager.env.eid.InPlaceholder", ttIn, Use::Unit, "unit that the environments belong to"},
}};
constexpr std::array<QORSourceColumn, 4> environmentColumns{{
    {"pager.env.eid", "eid"},
    {"pager.env.title", "title"},
    {"pager.env.state", "state"},
    {"pager.env.config.hostname", "hostname"},
}};

constexpr std::array<QORSourceConstant, 3> operationConstants{{
    {"pager.op_log.parameter.env.eid", ttEqual, Use::Environment, "environment"},
    {"pager.op_log.time", ttLowerOrEqual, Use::Latest, "latest time"},
    {"pager.op_log.time", ttGreaterOrEqual, Use::Earliest, "earliest time"},
}};
constexpr std::array<QORSourceColumn, 7> operationColumns{{
    {"pager.op_log.id", "id"},
    {"pager.op_log.parent_id", "parent_id"},
    {"pager.op_log.op", "op"},
    {"pager.op_log.status", "status"},
    {"pager.op_log.time", "time"},
    {"pager.op_log.message", "message"},
    {"pager.op_log.parameter.env.eid", "eid"},
}};

constexpr std::array<QORSourceConstant, 3> eventConstants{{
    {"pager.event_log.parameter.env.eid", ttEqual, Use::Environment, "environment"},
    {"pager.event_log.time", ttLowerOrEqual, Use::Latest, "latest time"},
    {"pager.event_log.time", ttGreaterOrEqual, Use::Earliest, "earliest time"},
}};
constexpr std::array<QORSourceCategory, 2> eventCategories{{
    {"resource_alert", "pager.event_log.category='resource_alert'"},
    {"env_status", "pager.event_log.category='env_status'"},
}};
constexpr std::array<QORSourceColumn, 5> eventColumns{{
    {"pager.event_log.time", "time"},
    {"pager.event_log.source", "source"},
    {"pager.event_log.category", "category"},
    {"pager.event_log.info", "info"},
    {"pager.event_log.parameter.env.eid", "eid"},
}};

constexpr std::array<QORSourceConstant, 7> backupConstants{{
    {"pager.backup.storage_eid", ttEqual, Use::Storage, "storage"},
    {"pager.backup.info.name", ttLike, Use::Name, "name", Turn::Alternative},
    {"pager.backup.info.hostname", ttLike, Use::HostName, "host name", Turn::Alternative},
    {"pager.backup.info.veid", ttEqual, Use::Container, "container", Turn::Alternative},
    {"pager.backup.info.ip", ttLike, Use::Address, "address", Turn::Alternative},
    {"pager.backup.time", ttLowerOrEqual, Use::Latest, "latest time", Turn::Last},
    {"pager.backup.time", ttGreaterOrEqual, Use::Earliest, "earliest time", Turn::Last},
}};
constexpr std::array<QORSourceColumn, 9> backupColumns{{
    {"pager.backup.id", "id"},
    {"pager.backup.eid", "eid"},
    {"pager.backup.storage_eid", "storage_eid"},
    {"pager.backup.time", "time"},
    {"pager.backup.size", "size"},
    {"pager.backup.type", "type"},
    {"pager.backup.description", "description"},
    {"pager.backup.info.name", "name"},
    {"pager.backup.info.hostname", "hostname"},
}};

constexpr std::array<QORSource, 4> sources{{
    {.cursorType = TCursorType::Env,
     .title = "environments",
     .noun = "environments",
     .records = "environments",
     .view = "vEnvironment",
     .namePrefix = "pager.env.",
     .parameterPrefix = {},
     .prefixIsConfigured = false,
     .hasRows = false,
     .hasPages = false,
     .ignoresCase = false,
     .constants = environmentConstants,
     .categories = {},
     .columns = environmentColumns,
     .shown = "config.hostname,title,state"},
    {.cursorType = TCursorType::OpLog,
     .title = "operation log",
     .noun = "the operation log",
     .records = "operations",
     .view = "vOpLog",
     .namePrefix = "pager.op_log",  // those of the log itself, and of the environments that an operation touches
     .parameterPrefix = "pager.op_log.parameter.",
     .prefixIsConfigured = false,
     .hasRows = true,
     .hasPages = true,
     .ignoresCase = false,
     .constants = operationConstants,
     .categories = {},
     .columns = operationColumns,
     .shown = "time,op,package.name,package.version,status"},
    {.cursorType = TCursorType::EventLog,
     .title = "event log",
     .noun = "the event log",
     .records = "events",
     .view = "vEventLog",
     .namePrefix = "pager.event_log.",
     .parameterPrefix = "pager.event_log.parameter.",
     .prefixIsConfigured = false,
     .hasRows = true,
     .hasPages = true,
     .ignoresCase = false,
     .constants = eventConstants,
     .categories = eventCategories,
     .columns = eventColumns,
     .shown = "time,category,source"},
    {.cursorType = TCursorType::Info,
     .title = "backups",
     .noun = "backups",
     .records = "backups",
     .view = "vBackupInfo",
     .namePrefix = "pager.backup.",
     .parameterPrefix = "pager.backup.",
     .prefixIsConfigured = true,
     .hasRows = true,
     .hasPages = false,
     .ignoresCase = true,
     .constants = backupConstants,
     .categories = {},
     .columns = backupColumns,
     .shown = "time,info.name,info.hostname,size"},
}};

constexpr std::size_t placeOf(TCursorType type) noexcept {
    switch (type) {
        case TCursorType::Env:
            return 0;
        case TCursorType::OpLog:
            return 1;
        case TCursorType::EventLog:
            return 2;
        case TCursorType::Info:
            return 3;
    }
    return 0;
}

static_assert(std::all_of(sources.begin(), sources.end(), [](const QORSource& source) {
    return sources[placeOf(source.cursorType)].cursorType == source.cursorType;
}));

}  // namespace

const QORSourceConstant& QORSource::constant(QORConstantUse use) const noexcept {
    const auto found = std::find_if(constants.begin(), constants.end(),
                                    [use](const QORSourceConstant& constant) { return constant.use == use; });
    assert(found != constants.end());
    return *found;
}

std::span<const QORSource> pagerSources() noexcept {
    return sources;
}

const QORSource& sourceOf(TCursorType type) noexcept {
    return sources[placeOf(type)];
}

std::size_t longestSourceTitle() noexcept {
    std::size_t longest = 0;
    for (const QORSource& source : sources)
        longest = std::max(longest, source.title.size());
    return longest;
}

std::string withoutLower(std::string_view filter) {
    constexpr std::string_view word = "lower";
    std::string rest;
    rest.reserve(filter.size());
    for (std::size_t at = 0; at < filter.size();) {
        const std::size_t found = std::min(filter.find(word, at), filter.size());
        rest.append(filter, at, found - at);
        at = found + word.size();
    }
    return rest;
}

}  // namespace QOR
