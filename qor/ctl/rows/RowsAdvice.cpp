#include "rows/RowsAdvice.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "QORPager/QORExpressionEvaluation.h"
#include "QORPager/QORFilterNames.h"

namespace QOR {
namespace {

/// A comparison whose constant a source takes.
struct Constant {
    std::string_view name;
    TTokenType type;
};

/// What a field is called in the view over the same records.
struct Column {
    std::string_view field;
    std::string_view column;
};

/// Where rows come from, by how the names of its fields begin.
struct Source {
    std::string_view prefix;
    std::string_view noun;
    std::string_view view;
    std::span<const Constant> constants;
    std::span<const Column> columns;
};

constexpr std::array<Constant, 3> operationConstants{{
    {"pager.op_log.parameter.env.eid", ttEqual},
    {"pager.op_log.time", ttLowerOrEqual},
    {"pager.op_log.time", ttGreaterOrEqual},
}};
constexpr std::array<Column, 7> operationColumns{{
    {"pager.op_log.id", "id"},
    {"pager.op_log.parent_id", "parent_id"},
    {"pager.op_log.op", "op"},
    {"pager.op_log.status", "status"},
    {"pager.op_log.time", "time"},
    {"pager.op_log.message", "message"},
    {"pager.op_log.parameter.env.eid", "eid"},
}};
constexpr std::array<Constant, 3> eventConstants{{
    {"pager.event_log.parameter.env.eid", ttEqual},
    {"pager.event_log.time", ttLowerOrEqual},
    {"pager.event_log.time", ttGreaterOrEqual},
}};
constexpr std::array<Column, 5> eventColumns{{
    {"pager.event_log.time", "time"},
    {"pager.event_log.source", "source"},
    {"pager.event_log.category", "category"},
    {"pager.event_log.info", "info"},
    {"pager.event_log.parameter.env.eid", "eid"},
}};
constexpr std::array<Column, 9> backupColumns{{
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
constexpr std::array<Column, 4> environmentColumns{{
    {"pager.env.eid", "eid"},
    {"pager.env.title", "title"},
    {"pager.env.state", "state"},
    {"pager.env.config.hostname", "hostname"},
}};
constexpr std::array<Source, 3> sources{{
    {"pager.op_log", "the operation log", "vOpLog", operationConstants, operationColumns},
    {"pager.event_log.", "the event log", "vEventLog", eventConstants, eventColumns},
    {"pager.backup.", "backups", "vBackupInfo", {}, backupColumns},
}};
constexpr Source environments{"pager.env.", "environments", "vEnvironment", {}, environmentColumns};

/// Backups are found by the first of these that the filter holds, narrowed by the storage.
constexpr std::array<Constant, 4> backupConditions{{
    {"pager.backup.info.name", ttLike},
    {"pager.backup.info.hostname", ttLike},
    {"pager.backup.info.veid", ttEqual},
    {"pager.backup.info.ip", ttLike},
}};
constexpr std::array<Constant, 2> backupTimes{{
    {"pager.backup.time", ttLowerOrEqual},
    {"pager.backup.time", ttGreaterOrEqual},
}};
constexpr Constant backupStorage{"pager.backup.storage_eid", ttEqual};

constexpr std::string_view categoryField = "pager.event_log.category";
constexpr std::array<std::string_view, 2> categories{"resource_alert", "env_status"};

const Source* sourceOf(const std::vector<std::string>& fields) {
    for (const std::string& field : fields) {
        for (const Source& source : sources)
            if (field.starts_with(source.prefix)) return &source;
    }
    const bool aboutEnvironments = std::all_of(
        fields.begin(), fields.end(), [](const std::string& field) { return field.starts_with(environments.prefix); });
    return aboutEnvironments ? &environments : nullptr;
}

bool isConstant(const TToken& token) {
    return token.tokenClass == tcString || token.tokenClass == tcNumber;
}

/// Whether the filter says nothing but what the source takes from it: one comparison for each constant, joined by
/// "and". A filter that cannot be read counts as understood: its error is the answer.
class FilterCheck {
public:
    FilterCheck(const Source& source, std::string_view text) : m_source(source), m_text(text) {
        if (source.prefix == sources[2].prefix) {
            m_text = withoutLower(text);
            m_expected.push_back(backupStorage);
        }
        m_expected.insert(m_expected.end(), source.constants.begin(), source.constants.end());
        forEachName(m_text, [this](std::string_view name) { m_filter.setIdentifier(name, "", false); });
        m_filter.initializeIdentifiers();
        m_filter.setExpression(m_text);
    }

    bool isUsedWholly() {
        const TNode* const tree = m_filter.buildTree();
        if (tree == nullptr) return true;
        if (m_source.prefix == sources[2].prefix) expectBackupCondition();
        std::vector<const TNode*> open{tree};
        while (!open.empty()) {
            const TNode& node = *open.back();
            open.pop_back();
            if (node.token().type == ttAnd || (node.token().type == ttOr && isCategories(node))) {
                for (const TNode& child : node.children())
                    open.push_back(&child);
            } else if (!isCategory(node) && !take(node)) {
                return false;
            }
        }
        return true;
    }

private:
    static std::string withoutLower(std::string_view text) {
        constexpr std::string_view word = "lower";
        std::string rest(text);
        for (std::size_t at = rest.find(word); at != std::string::npos; at = rest.find(word, at))
            rest.erase(at, word.size());
        return rest;
    }

    void expectBackupCondition() {
        for (const Constant& condition : backupConditions) {
            bool found = false;
            m_filter.extractConstByIdentifierAndOperation(condition.name, condition.type, found);
            if (!found) continue;
            m_expected.push_back(condition);
            return;
        }
        m_expected.insert(m_expected.end(), backupTimes.begin(), backupTimes.end());
    }

    static bool isComparison(const TNode& node) {
        return node.children().size() == 2 && node.children().back().token().tokenClass == tcIdentifier &&
               isConstant(node.children().front().token());
    }

    /// A comparison that a constant is taken from. Each is taken once.
    bool take(const TNode& node) {
        if (!isComparison(node)) return false;
        const auto found = std::find_if(m_expected.begin(), m_expected.end(), [&](const Constant& constant) {
            return constant.name == node.children().back().token().text && constant.type == node.token().type;
        });
        if (found == m_expected.end()) return false;
        m_expected.erase(found);
        return true;
    }

    bool isCategory(const TNode& node) const {
        if (m_source.prefix != sources[1].prefix || !isComparison(node) || node.token().type != ttEqual) return false;
        if (node.children().back().token().text != categoryField) return false;
        const std::string& category = node.children().front().token().text;
        if (std::find(categories.begin(), categories.end(), category) == categories.end()) return false;
        return m_text.find(std::string(categoryField) + "='" + category + "'") != std::string::npos;
    }
    bool isCategories(const TNode& node) const {
        return std::all_of(node.children().begin(), node.children().end(),
                           [this](const TNode& child) { return isCategory(child); });
    }

    const Source& m_source;
    std::string m_text;
    std::vector<Constant> m_expected;
    TExpressionEvaluation m_filter;
};

std::string_view columnOf(const Source& source, std::string_view field) {
    for (const Column& column : source.columns)
        if (column.field == field) return column.column;
    return {};
}

/// The command that asks the view, with those of the fields that the view has.
std::string selectCommand(const RowsOptions& options, const Source& source) {
    std::string command = "qorctl select --view " + std::string(source.view);
    bool any = false;
    for (const std::string& field : options.fields) {
        const std::string_view column = columnOf(source, field);
        if (column.empty()) continue;
        command.append(" -f ").append(column);
        any = true;
    }
    if (!any) command.append(" -f ").append(source.columns.front().column);
    if (options.where) command += " --where CONDITION";
    for (std::string_view key : options.sort) {
        const bool descending = key.starts_with('-');
        const std::string_view column = columnOf(source, key.substr(descending ? 1 : 0));
        if (!column.empty()) command.append(descending ? " --sort -" : " --sort ").append(column);
    }
    if (options.limit > 0) command += " --limit " + std::to_string(options.limit);
    if (options.offset > 0) command += " --offset " + std::to_string(options.offset);
    return command;
}

}  // namespace

std::vector<std::string> adviseOnRows(const RowsOptions& options) {
    std::vector<std::string> advice;
    const Source* const source = sourceOf(options.fields);
    if (source == nullptr) return advice;
    const std::string noun(source->noun);
    if (source == &environments) {
        advice.push_back("environments are not listed by themselves");
    } else {
        if (!options.sort.empty())
            advice.push_back("--sort has no effect on " + noun + ", whose rows come newest first");
        if (source->prefix == sources[2].prefix && (options.limit > 0 || options.offset > 0))
            advice.push_back("--limit and --offset have no effect on backups");
        if (options.where && !FilterCheck(*source, *options.where).isUsedWholly())
            advice.push_back("--where holds conditions that have no effect on " + noun);
        if (!options.where && source->prefix == sources[1].prefix)
            advice.push_back(
                "events are found by their category only, for example --where "
                "\"pager.event_log.category='env_status'\"");
    }
    if (!advice.empty())
        advice.push_back("the view " + std::string(source->view) + " does it: " + selectCommand(options, *source));
    return advice;
}

}  // namespace QOR
