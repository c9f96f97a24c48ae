#include "QORDBSchema/QORViewDescriptions.h"

#include <algorithm>
#include <array>
#include <span>

#include "QORDBSchema/QORDBSchema.h"
#include "QORDBSchema/QORSchemaEngine.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {
namespace {

struct Column {
    std::string_view name;
    std::string_view meaning;
    std::string_view stored{};  ///< its name in the table, where that is another one
};

// A table a view. Several views have columns of one name, each of its own meaning.
constexpr std::string_view security = "row security; the object is `eid`";
constexpr std::string_view reporter = "the identity that brought the record";

constexpr Column environmentColumns[] = {
    {"eid", "identifier"},
    {"parent_eid", "the environment it runs in"},
    {"title", "what people call it"},
    {"state", "6 is running"},
    {"transition", "the change of state under way, 0 for none"},
    {"name", "from its configuration"},
    {"description", "from its configuration"},
    {"domain", "from its configuration"},
    {"hostname", "from its configuration"},
    {"architecture", "`x86_64`; `host`, `container`, ..."},
    {"type", "`x86_64`; `host`, `container`, ..."},
    {"os_name", "of its operating system"},
    {"os_platform", "of its operating system"},
    {"os_version", "of its operating system"},
    {"os_kernel", "of its operating system"},
    {"ip", "the first of its addresses"},
    {"memory", "MiB"},
    {"boot_time", "last boot"},
    {"config", "the whole documents, as XML"},
    {"virtual_config", "the whole documents, as XML"},
    {"updated", "when the record was stored"},
    {"securityOperation_1", security},
    {"securableObjId", security, "eid"},
    {"reporter", reporter},
};
constexpr Column operationColumns[] = {
    {"id", "identifier"},
    {"parent_id", "the operation it is a part of"},
    {"op", "what was done: `install`, `upgrade`, `configure`, `remove`, ..."},
    {"status", "0 done, others as the source says"},
    {"time", "when it was done"},
    {"eid", "the environment it belongs to"},
    {"package", "from the message's `package`"},
    {"version", "from the message's `package`"},
    {"message", "the info document, as XML"},
    {"securityOperation_2", security},
    {"securableObjId", security, "eid"},
    {"reporter", reporter},
};
constexpr Column eventColumns[] = {
    {"id", "number in the order of arrival", "seq"},
    {"time", "when it happened"},
    {"eid", "the environment it is about"},
    {"source", "who reported it"},
    {"category", "`resource_alert`, `env_status`, ..."},
    {"info", "the info document, as XML"},
    {"securityOperation_3", security},
    {"securableObjId", security, "eid"},
    {"reporter", reporter},
};
constexpr Column backupColumns[] = {
    {"id", "identifier"},
    {"eid", "the environment that was backed up"},
    {"storage_eid", "the environment that keeps the backup"},
    {"time", "when it was made"},
    {"size", "bytes"},
    {"type", "0 full, others as the source says"},
    {"description", "as its source calls it"},
    {"name", "as its source calls it"},
    {"hostname", "as its source calls it"},
    {"info", "the info document, as XML in bytes; cannot be compared"},
    {"securityOperation_4", security},
    {"securableObjId", security, "eid"},
    {"reporter", reporter},
};

struct View {
    std::string_view name;
    std::string_view meaning;
    std::string_view table;
    std::span<const Column> columns;
    std::string_view main;  ///< names of columns with a comma behind each
};

constexpr std::array views{
    View{"vEnvironment", "One row an environment: a host, a container, a virtual machine.", "qor_environment",
         environmentColumns, "eid,hostname,os_name,os_version,ip,memory,state,"},
    View{"vOpLog", "One row an operation, such as an action on a package.", "qor_operation", operationColumns,
         "time,eid,op,package,version,status,"},
    View{"vEventLog", "One row an event.", "qor_event", eventColumns, "time,eid,category,source,"},
    View{"vBackupInfo", "One row a backup.", "qor_backup", backupColumns, "time,eid,name,size,type,storage_eid,"},
};

const View* find(std::string_view name) noexcept {
    const auto* const found =
        std::find_if(views.begin(), views.end(), [name](const View& view) { return view.name == name; });
    return found == views.end() ? nullptr : found;
}

/// The view's column that shows a column of the table; empty for one that no column shows. Engines differ in what a
/// column is called that the host numbers itself.
std::string_view shownAs(const View& view, std::string_view stored) noexcept {
    std::string_view shown;
    for (const Column& column : view.columns) {
        if (column.name == stored && (column.stored.empty() || column.stored == "seq")) return column.name;
        if (shown.empty() && column.stored == stored && column.name != "securableObjId") shown = column.name;
    }
    return shown;
}

}  // namespace

std::string_view viewMeaning(std::string_view view) noexcept {
    const View* const found = find(view);
    return found == nullptr ? std::string_view() : found->meaning;
}

std::string_view viewColumnMeaning(std::string_view view, std::string_view column) noexcept {
    const View* const found = find(view);
    if (found == nullptr) return {};
    for (const Column& one : found->columns)
        if (one.name == column) return one.meaning;
    return {};
}

std::vector<std::string_view> viewMainColumns(std::string_view view) {
    const View* const found = find(view);
    std::vector<std::string_view> names;
    std::string_view rest = found == nullptr ? std::string_view() : found->main;
    while (!rest.empty()) {
        names.push_back(rest.substr(0, rest.find(',')));
        rest.remove_prefix(names.back().size() + 1);
    }
    return names;
}

std::vector<std::string> viewColumnValues(std::string_view view, std::string_view column) {
    // What the collector of the package log makes of its lines; and the categories that filters ask for by name.
    if (view == "vOpLog" && column == "op")
        return {"install", "upgrade", "configure", "trigproc", "remove", "purge", "disappear", "apt"};
    if (view == "vEventLog" && column == "category") return {"resource_alert", "env_status"};
    return {};
}

std::vector<QORViewIndex> viewIndexes(ASSession& session, std::string_view view) {
    const View* const known = find(view);
    if (known == nullptr || QORDBSchema::inspect(session).kind != QORSchemaState::Kind::Ours) return {};
    std::vector<QORViewIndex> indexes;
    std::string last;  // of which nothing more is taken
    ASStatement& select = session.prepare(QORSchemaEngine::of(session.engine()).indexes);
    select.execute();
    while (select.fetch()) {
        if (select.text(1) != known->table || select.text(2) == last) continue;
        const std::string name(select.text(2));
        const std::string_view column = shownAs(*known, select.text(3));
        if (column.empty()) {
            last = name;
            continue;
        }
        if (indexes.empty() || indexes.back().name != name) indexes.push_back({name, {}});
        indexes.back().columns.emplace_back(column);
    }
    select.close();
    return indexes;
}

}  // namespace QOR
