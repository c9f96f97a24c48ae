#include "agent/api/AgentSelect.h"

#include <algorithm>
#include <set>
#include <utility>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORNearestName.h"
#include "QORCommon/QORText.h"
#include "QORCommon/QORTime.h"
#include "QORLibAgent/QORCountLimit.h"
#include "QORLibAgent/QORPageToken.h"
#include "QORQuery/QORCondition.h"
#include "QORQuery/QORQueryError.h"
#include "QORQuery/QORQueryField.h"
#include "agent/api/AgentAccept.h"
#include "agent/api/AgentProblem.h"

namespace QOR {
namespace {

/// Levels that select and where elements take of a message.
constexpr std::size_t levelsAboveCondition = 2;
constexpr std::array<std::string_view, 5> aggregates{"count", "sum", "average", "min", "max"};

std::string nearestOf(std::string_view name, const std::vector<std::string_view>& names) {
    const std::vector<std::string_view> near = nearestNames(name, names);
    return near.empty() ? std::string() : std::string(near.front());
}

class SelectBuilder {
public:
    SelectBuilder(const AgentViews::List& views, const AgentView& view, const AgentParameters& parameters,
                  const AgentSelectContext& context)
        : m_views(views),
          m_view(view),
          m_parameters(parameters),
          m_context(context),
          m_at(m_select.envelope.body.root()) {}

    AgentSelect build() {
        m_select.envelope.operatorName = "pager2";
        m_select.envelope.requestName = "select";
        requireRoom(m_at.addChild(tag::select));
        requireRoom(m_at.putValue(m_view.name, tag::view));
        addFields();
        if (m_parameters.flag("distinct")) addFlag(m_at, tag::distinct);
        if (m_parameters.has("where")) addWhere(m_parameters.text("where"));
        addSort();
        addPage(m_at, m_parameters, m_context.all);
        return std::move(m_select);
    }

private:
    void addFields() {
        if (!m_parameters.has("fields")) {
            for (const AgentViewColumn& column : m_view.columns)
                if (column.kind != QORColumnKind::Bytes && !column.ofRowSecurity) addField({column.name, ""}, column);
            return;
        }
        for (const AgentListItem& item : splitList(m_parameters, "fields")) {
            if (item.text == "*") {
                for (const AgentViewColumn& column : m_view.columns)
                    addField({column.name, ""}, column);
            } else {
                QORQueryField field = readField("fields", item, item.text);
                addField(field, *m_view.find(field.column));
            }
        }
    }

    /// \param text of the item, or a part of it
    QORQueryField readField(std::string_view parameter, const AgentListItem& item, std::string_view text) const {
        QORQueryField field = parseQueryField(text);
        const std::string function = toLowerText(field.function);
        if (!function.empty() && std::find(aggregates.begin(), aggregates.end(), function) == aggregates.end())
            refuse(parameter, item, "unknown_function", "there is no function " + quoteText(field.function),
                   field.function, "count, sum, average, min or max",
                   nearestOf(function, {aggregates.begin(), aggregates.end()}));
        field.function = function;
        if (m_view.find(field.column) != nullptr) return field;
        const std::vector<std::string_view> names(m_view.names.begin(), m_view.names.end());
        refuse(parameter, item, "unknown_column",
               "view " + quoteText(m_view.name) + " has no column " + quoteText(field.column), field.column,
               "a column of " + m_view.name, nearestOf(field.column, names));
    }

    [[noreturn]] void refuse(std::string_view parameter, const AgentListItem& item, std::string_view code,
                             std::string detail, std::string_view found, std::string expected,
                             std::string suggestion) const {
        throwProblem({.detail = std::string(parameter) + ": " + std::move(detail),
                      .code = code,
                      .parameter = std::string(parameter),
                      .position = charactersBefore(m_parameters.text(parameter), item.offset),
                      .found = std::string(found),
                      .expected = std::move(expected),
                      .suggestion = std::move(suggestion)});
    }

    void addField(const QORQueryField& field, const AgentViewColumn& column) {
        requireRoom(putQueryField(m_at, field));
        m_select.columns.push_back({answerName(field), columnKindOf(field, column.type)});
        m_select.names.push_back(answerName(field));
    }

    void addSort() {
        std::set<std::string> before;
        if (!m_parameters.has("sort")) return;
        for (const AgentListItem& item : splitList(m_parameters, "sort")) {
            const bool descending = item.text.starts_with('-');
            const QORQueryField field = readField("sort", item, trimmed(item.text.substr(descending ? 1 : 0)));
            const std::string label = answerName(field);
            if (!before.insert(label).second)
                refuse("sort", item, "bad_parameter", quoteText(label) + " is given twice", label, "", "");
            if (!field.function.empty() && !isAsked(label))
                refuse("sort", item, "bad_parameter", "sorting by " + quoteText(label) + " needs it among the fields",
                       label, "one of the fields", "");
            requireRoom(m_at.addChild(tag::sort));
            requireRoom(m_at.putValue(label, tag::field));
            if (descending) addFlag(m_at, tag::descending);
            requireRoom(m_at.seekUp());
        }
    }

    bool isAsked(const std::string& label) const {
        return std::find(m_select.names.begin(), m_select.names.end(), label) != m_select.names.end();
    }

    void addWhere(std::string_view text) {
        requireRoom(m_at.addChild(tag::where));
        const QORConditionOptions options = conditionOptions(m_views, m_view, m_parameters, m_context);
        try {
            parseCondition(text, options, m_at);
        } catch (const QORQueryError& error) {
            throwProblem({.detail = std::string("where: ") + error.what(),
                          .code = "bad_condition",
                          .parameter = "where",
                          .position = charactersBefore(text, error.offset()),
                          .found = error.detail().found,
                          .expected = error.detail().expected,
                          .suggestion = error.detail().suggestion});
        } catch (const QORException& error) {
            throwProblem({.detail = "where: " + error.message(), .code = "bad_condition", .parameter = "where"});
        }
        requireRoom(m_at.seekUp());
        if (!m_parameters.has("after")) requireRoom(m_at.putValue(std::to_string(options.now), tag::now));
    }

    const AgentViews::List& m_views;
    const AgentView& m_view;
    const AgentParameters& m_parameters;
    const AgentSelectContext& m_context;
    AgentSelect m_select;
    QORBinaryIterator m_at;
};

const AgentView* findView(const AgentViews::List& views, std::string_view view) {
    const auto found = views.find(view);
    return found == views.end() ? nullptr : &found->second;
}

}  // namespace

QORConditionOptions conditionOptions(const AgentViews::List& views, const AgentView& view,
                                     const AgentParameters& parameters, const AgentSelectContext& context) {
    QORConditionOptions options;
    options.view = view.name;
    options.levels = QORMessageLimits().depth - levelsAboveCondition;
    options.now = context.now ? *context.now : nowOf(parameters);
    options.currentEid = context.currentEid;
    options.types = [&views](std::string_view asked, std::string_view column) {
        const AgentView* const known = findView(views, asked);
        const AgentViewColumn* const one = known == nullptr ? nullptr : known->find(column);
        return one == nullptr ? std::string() : one->type;
    };
    options.columns = [&views](std::string_view asked) {
        const AgentView* const known = findView(views, asked);
        return known == nullptr ? nullptr : &known->names;
    };
    return options;
}

void addFlag(QORBinaryIterator& at, QORTag flag) {
    requireRoom(at.addChild(flag));
    requireRoom(at.seekUp());
}

void requireRoom(int status) {
    if (status != 0) throwProblem({.detail = "the request is larger than a message may be", .code = "too_large"});
}

std::vector<AgentListItem> splitList(const AgentParameters& parameters, std::string_view name) {
    const std::string_view text = parameters.text(name);
    std::vector<AgentListItem> items;
    for (const std::string_view item : splitQueryList(text)) {
        const auto offset = static_cast<std::size_t>(item.data() - text.data());
        if (item.empty())
            throwProblem({.detail = std::string(name) + ": a name is missing between the commas",
                          .code = "bad_parameter",
                          .parameter = std::string(name),
                          .position = charactersBefore(text, offset)});
        items.push_back({item, offset});
    }
    return items;
}

std::uint64_t rowsWanted(const AgentParameters& parameters, bool all) {
    return parameters.number("limit").value_or(all ? 0 : usualPage);
}

std::int64_t nowOf(const AgentParameters& parameters) {
    if (!parameters.has("after")) return currentTime();
    try {
        return openPageToken(parameters.text("after")).now;
    } catch (const QORException& error) {
        throwProblem({.detail = "after: " + error.message(), .code = "bad_token", .parameter = "after"});
    }
}

void addPage(QORBinaryIterator& at, const AgentParameters& parameters, bool all) {
    const std::string_view count = parameters.text("count");
    if (parameters.has("count") && !QORCountLimit::read(count))
        throwProblem(
            {.detail = "count is none, capped, exact, or a time in milliseconds such as 200ms, not " + quoteText(count),
             .code = "bad_parameter",
             .parameter = "count",
             .found = std::string(count),
             .expected = "none, capped, exact or 200ms"});
    if (parameters.has("after") && parameters.has("offset"))
        throwProblem({.detail = "offset: the page's token (after) says where the page begins already",
                      .code = "bad_parameter",
                      .parameter = "offset"});
    addFlag(at, tag::ordered);
    const std::uint64_t limit = rowsWanted(parameters, all);
    const std::uint64_t offset = parameters.number("offset").value_or(0);
    if (limit > 0 || offset > 0) {
        requireRoom(at.addChild(tag::limit));
        requireRoom(at.putInt(static_cast<std::int32_t>(limit == 0 ? offsetParameter.range.most : limit), tag::size));
        if (offset > 0) requireRoom(at.putInt(static_cast<std::int32_t>(offset), tag::offset));
        requireRoom(at.seekUp());
    }
    if (parameters.has("after")) {
        nowOf(parameters);  // a token that is none is told of by its parameter
        requireRoom(at.putValue(parameters.text("after"), tag::after));
    }
    if (parameters.has("count") && count != "none") requireRoom(at.putValue(count, tag::count));
}

AgentSelect makeViewSelect(const AgentViews::List& views, const AgentView& view, const AgentParameters& parameters,
                           const AgentSelectContext& context) {
    return SelectBuilder(views, view, parameters, context).build();
}

}  // namespace QOR
