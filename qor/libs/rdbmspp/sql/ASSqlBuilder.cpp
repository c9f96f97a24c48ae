#include "rdbmspp/sql/ASSqlBuilder.h"

#include <algorithm>
#include <utility>

#include "rdbmspp/engine/AException.h"
#include "rdbmspp/sql/ASConditionWriter.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSqlText.h"
#include "rdbmspp/sql/ASTypedTerms.h"

namespace QOR {

namespace {

using Function = ASGroupAttribute::Function;

const char* functionName(Function function) {
    switch (function) {
        case Function::Sum:
            return "sum(";
        case Function::Average:
            return "avg(";
        case Function::Min:
            return "min(";
        case Function::Max:
            return "max(";
        case Function::Count:
            break;
    }
    return "count(";
}

bool isText(ASType type) {
    return type == ASType::VarChar || type == ASType::Char;
}

// Smallest and greatest texts and GUIDs have no place in a number; sums and averages of GUIDs mean nothing either.
bool hasNoNumber(Function function, ASType type) {
    if (function == Function::Count) return false;
    if (type == ASType::Guid) return true;
    return (function == Function::Min || function == Function::Max) && (isText(type) || type == ASType::Blob);
}

}  // namespace

void appendColumn(std::string& out, const ASAttribute& column) {
    if (const auto& domain = column.domain()) {
        appendQuoted(out, domain->reference(), '"');
        out += '.';
    }
    appendQuoted(out, column.name(), '"');
}

void appendOperand(std::string& out, const ASAttribute& attribute) {
    if (attribute.isColumn()) return appendColumn(out, attribute);
    const std::string sql = attribute.Query();
    const bool brackets = attribute.isSelect() || !isSingleTerm(sql);
    if (brackets) out += '(';
    out += sql;
    if (brackets) out += ')';
}

ASSqlBuilder::ASSqlBuilder(const ASDialect& dialect, ASPurpose purpose, bool exactSums, std::string spare)
    : m_dialect(dialect),
      m_purpose(purpose),
      m_executes(isExecuted()),
      m_exactSums(exactSums),
      m_text(std::move(spare)) {
    m_text.clear();
}

void ASSqlBuilder::select(const ASSelect& select, const ASComparison& where) {
    if (!select.m_count) return selected(select, where);
    append("SELECT count(*) FROM (");
    selected(select, where);
    append(") AS \"counted\"");
}

void ASSqlBuilder::selected(const ASSelect& select, const ASComparison& where) {
    const ASFilter& filter = select.m_filter;
    if (m_executes && m_purpose != ASPurpose::Nested && spread(select, where)) return;
    if (m_dialect.typed && m_executes && filter.m_project.m_distinct) return distinct(select, where);
    append(filter.m_project.m_distinct ? "SELECT DISTINCT " : "SELECT ");
    projection(filter.m_project);
    rows(select, where);
    if (select.m_order) orderBy(*select.m_order);
    if (select.m_limit > 0) page(select.m_limit, select.m_offset);
}

/// Which rows and groups are selected.
void ASSqlBuilder::rows(const ASSelect& select, const ASComparison& where) {
    const ASFilter& filter = select.m_filter;
    from(filter.m_project, where);
    filtered(filter, where);
    groupBy(filter.m_project);
}

void ASSqlBuilder::filtered(const ASFilter& filter, const ASComparison& where) {
    if (!filter.m_condition.empty()) checkCondition(m_dialect, *filter.m_condition.node());
    if (where.empty()) return;
    append(" WHERE ");
    condition(where);
}

/// The column whose values an item selects, null where it selects others.
const ASAttribute* ASSqlBuilder::columnIn(const ASProject::Item& item) {
    if (!item.group) return item.attribute->isColumn() ? &*item.attribute : nullptr;
    const bool exact = item.group->function() != Function::Count && item.group->function() != Function::Average;
    if (!exact) return nullptr;
    const ASAttribute* const column = item.group->aggregated();  // of nothing are counts only
    return column->storage() == ASStorage::Decimal ? column : nullptr;
}

// Such an engine sorts distinct rows only by what is written in the list of what is selected, to the letter. So they
// are made distinct first, and then read and sorted.
void ASSqlBuilder::distinct(const ASSelect& select, const ASComparison& where) {
    constexpr const char* inner = "distinctRows";
    const auto& items = select.m_filter.m_project.m_items;
    std::vector<ASAttribute> columns;
    ASStorages storages;
    for (const auto& item : items) {
        const ASAttribute* const column = columnIn(*item);
        const ASType type = column ? column->type() : ASType::VarChar;
        columns.emplace_back("c" + std::to_string(columns.size()), type == ASType::Char ? ASType::VarChar : type);
        if (!column) continue;
        const ASStorage storage = column->storage();
        if (storage == ASStorage::Decimal || storage == ASStorage::ZonedTime) {
            storages.emplace(columns.back().name(), storage);
        }
    }
    const auto domain = ASDomain::view(inner, {}, std::move(storages));
    append("SELECT ");
    for (std::size_t i = 0; i < columns.size(); ++i) {
        columns[i].Register(domain);
        if (i > 0) append(", ");
        projectedAttribute(columns[i]);
    }
    append(" FROM (SELECT DISTINCT ");
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0) append(", ");
        distinctItem(*items[i]);
        append(" AS ");
        identifier(columns[i].name());
    }
    rows(select, where);
    append(") AS ");
    identifier(inner);
    const char* separator = " ORDER BY ";
    for (const auto& key :
         select.m_order ? select.m_order->m_keys : std::vector<std::shared_ptr<const ASOrder::Key>>()) {
        const auto same = [&](const auto& item) { return item->isSame(key->attribute, key->group); };
        const auto found = std::find_if(items.begin(), items.end(), same);
        if (found == items.end()) {
            throw AException(std::string(m_dialect.name) + " sorts distinct rows only by what is selected of them");
        }
        append(separator);
        separator = ", ";
        column(columns[static_cast<std::size_t>(found - items.begin())]);
        direction(key->descending);
    }
    if (select.m_limit > 0) page(select.m_limit, select.m_offset);
}

void ASSqlBuilder::distinctItem(const ASProject::Item& item) {
    if (item.group) return aggregate(*item.group);
    operand(*item.attribute);
    if (!item.attribute->isColumn() || isText(item.attribute->type())) append(m_dialect.byteOrder);
}

// Where its values are literals, nothing of it has to outlive this.
void ASSqlBuilder::nested(const ASNestedSelect& nested) {
    const ASPurpose outer = std::exchange(m_purpose, ASPurpose::Nested);
    if (m_dialect.typed) {
        select(nested.select(), m_conditions.emplace_back(nested.select().where(m_dialect)));
    } else {
        select(nested.select(), nested.select().where(m_dialect));
    }
    m_purpose = outer;
}

void ASSqlBuilder::condition(const ASComparison& condition) {
    if (!condition.empty()) writeCondition(*this, *condition.node());
}

void ASSqlBuilder::operand(const ASAttribute& attribute) {
    if (m_dialect.typed) return ASTypedTerms(*this).operand(attribute);
    const auto& select = attribute.nestedSelect();
    if (!select) return appendOperand(m_text, attribute);
    append("(");
    nested(*select);
    append(")");
}

void ASSqlBuilder::aggregate(const ASGroupAttribute& attribute, bool projected) {
    const auto& impl = *attribute.m_impl;
    if (m_dialect.typed && impl.attribute)
        return ASTypedTerms(*this).aggregate(attribute, m_purpose == ASPurpose::Nested, projected);
    if (isDecimalSum(attribute)) return append(decimalSum(attribute, projected));
    if (m_purpose == ASPurpose::Nested && impl.attribute) return nestedAggregate(attribute);
    if (isExactSum(attribute)) return append(exactSum(attribute));
    append(functionName(impl.function));
    if (!impl.attribute) {
        append("*");
    } else if (hasNoNumber(impl.function, impl.attribute->type())) {
        append("NULL");
    } else if (impl.attribute->type() == ASType::DateTime && impl.function != Function::Count) {
        append(m_dialect.epochSeconds(impl.attribute->Query()));
    } else {
        operand(*impl.attribute);
    }
    append(")");
}

// Nothing here fails on a row: whether a nested select runs at all, and over which rows of what is around it, is the
// engine's choice, and a failure would tell of that.
void ASSqlBuilder::nestedAggregate(const ASGroupAttribute& attribute) {
    const auto& impl = *attribute.m_impl;
    const ASType type = impl.attribute->type();
    const bool adds = impl.function == Function::Sum || impl.function == Function::Average;
    std::string operand = impl.attribute->Query();
    if (adds && type == ASType::Guid) operand = "NULL";
    if (adds && type == ASType::DateTime) operand = m_dialect.epochSeconds(operand);
    if (isExactSum(attribute)) return append(exactSum(attribute));
    append(functionName(impl.function));
    append(operand);
    append(")");
}

// An engine that adds in floating point for an average rounds whole numbers beyond 2^53, and in what order is its
// choice.
bool ASSqlBuilder::isDecimalSum(const ASGroupAttribute& attribute) const {
    const auto& impl = *attribute.m_impl;
    if (impl.function == Function::Average && isWhole(impl.attribute->type())) return true;
    const bool adds = impl.function == Function::Sum || impl.function == Function::Average;
    return adds && impl.attribute->storage() == ASStorage::Decimal;
}

std::string ASSqlBuilder::decimalSum(const ASGroupAttribute& attribute, bool projected) const {
    const std::string column = attribute.m_impl->attribute->Query();
    if (attribute.m_impl->function == Function::Average) {
        const std::string average = m_dialect.decimalAverage(column);
        return projected ? m_dialect.exactDouble(average) : average;
    }
    return projected ? m_dialect.decimalSum(column) : m_dialect.comparedDecimalSum(column);
}

bool ASSqlBuilder::isExactSum(const ASGroupAttribute& attribute) const {
    const auto& impl = *attribute.m_impl;
    if ((m_purpose != ASPurpose::Nested && !m_exactSums) || impl.function != Function::Sum) return false;
    return impl.attribute->type() != ASType::Guid && impl.attribute->type() != ASType::DateTime;
}

std::string ASSqlBuilder::exactSum(const ASGroupAttribute& attribute) const {
    const ASAttribute& column = *attribute.m_impl->attribute;
    return isWhole(column.type()) ? m_dialect.wholeSum(column.Query()) : m_dialect.realSum(column.Query());
}

void ASSqlBuilder::value(const ASValue& value) {
    if (m_purpose != ASPurpose::Execution || m_parameters.size() >= m_dialect.maxParameters) {
        value.appendLiteral(m_text, m_dialect);
        return;
    }
    parameter(value);
}

// Only as a parameter: the engine runs several statements in one text, so nothing that was asked for is ever part of
// it. A parameter's type would be taken from what stands beside it.
void ASSqlBuilder::typedValue(const ASValue& value, const char* type) {
    if (!m_executes) return value.appendLiteral(m_text, m_dialect);
    const std::size_t most = m_purpose == ASPurpose::Streaming ? m_dialect.maxParameters : m_dialect.maxDescribed;
    if (m_parameters.size() >= most) {
        throw AException(std::string("the select holds too many values for ") + m_dialect.name);
    }
    append("CAST(");
    parameter(value);
    append(" AS ");
    append(type);
    append(")");
}

void ASSqlBuilder::parameter(const ASValue& value) {
    // A literal could not hold it; nor may a parameter, so that one text means one thing everywhere.
    if (value.kind == ASValue::Kind::Text) refuseUntakeable(value.text, m_dialect);
    m_parameters.push_back(&value);
    append("?");
}

void ASSqlBuilder::openIn(const ASAttribute& attribute, bool negated) {
    operand(attribute);
    append(negated ? " NOT IN (" : " IN (");
}

void ASSqlBuilder::in(const ASAttribute& attribute, std::string_view list, bool negated) {
    openIn(attribute, negated);
    append(list);
    append(")");
}

void ASSqlBuilder::in(const ASAttribute& attribute, const ASNestedSelect& select, bool negated) {
    openIn(attribute, negated);
    nested(select);
    append(")");
}

// Of a literal in a function too, so that it does not depend on the rows whether a request is refused.
void ASSqlBuilder::checkPattern(const ASAttribute* column, const ASValue& pattern, char escape) const {
    if (static_cast<unsigned char>(escape) > 127) throw AException("the escape character of LIKE has to be ASCII");
    const std::size_t length = column ? literalLength(column->Query()).value_or(0) : pattern.text.size();
    if (length <= m_dialect.maxLikePattern) return;
    throw AException("a pattern of LIKE has " + std::to_string(length) + " bytes; " + m_dialect.name + " takes " +
                     std::to_string(m_dialect.maxLikePattern));
}

void ASSqlBuilder::like(const ASAttribute& attribute, const ASAttribute* column, const ASValue& pattern, char escape,
                        bool negated) {
    checkPattern(column, pattern, escape);
    operand(attribute);
    if (negated) append(" NOT");
    append(m_dialect.like);
    if (column) {
        likeColumn(*column);
    } else {
        if (m_purpose == ASPurpose::Execution) append(m_dialect.likeParameter);
        value(pattern);
    }
    if (escape == 0) {
        append(m_dialect.noEscape);
        return;
    }
    append(" ESCAPE ");
    appendQuoted(m_text, std::string_view(&escape, 1), '\'');
}

// A column may hold more than the engine takes for a pattern, and then the whole select would fail for one row of it.
// Such a row is not known to match, like one whose pattern is null.
void ASSqlBuilder::likeColumn(const ASAttribute& pattern) {
    if (m_purpose == ASPurpose::Reading || literalLength(pattern.Query())) return operand(pattern);
    append(m_dialect.boundedPattern(pattern.Query()));
}

void ASSqlBuilder::projection(const ASProject& project) {
    bool first = true;
    for (const auto& item : project.m_items) {
        if (!first) append(", ");
        first = false;
        if (item->group) {
            projectedAggregate(*item->group);
        } else {
            projectedAttribute(*item->attribute);
        }
    }
    if (first) throw AException("nothing is selected");
}

// Only what is executed takes the driver's ways of reading into account; a text form and a nested select show the
// column as it is compared and grouped by.
void ASSqlBuilder::projectedAttribute(const ASAttribute& attribute) {
    if (isExecuted() && attribute.isColumn()) {
        if (m_dialect.typed) return ASTypedTerms(*this).projected(attribute);
        if (attribute.type() == ASType::Double) return append(m_dialect.exactDouble(attribute.Query()));
        if (attribute.type() == ASType::Blob) return append(m_dialect.exactBytes(attribute.Query()));
    }
    operand(attribute);
}

void ASSqlBuilder::projectedAggregate(const ASGroupAttribute& attribute) {
    const auto& data = attribute.data();
    if (!m_dialect.typed && isExecuted() && data && data->type() == ASType::Double && !isDecimalSum(attribute)) {
        append(m_dialect.exactDouble(isExactSum(attribute) ? exactSum(attribute) : attribute.Query(m_dialect)));
    } else {
        aggregate(attribute, isExecuted());
    }
}

void ASSqlBuilder::from(const ASProject& project, const ASComparison& where) {
    const ASDomain* const domain = project.domain();
    if (domain == nullptr) throw AException("a select needs a view or table to select from");
    m_computes = m_computes || !domain->handsOutOnly();
    append(" FROM ");
    if (!domain->derivedSql().empty()) {
        append("(");
        append(domain->derivedSql());
        append(") AS ");
        identifier(domain->name());
    } else {
        fromView(*domain, where);
    }
    if (domain->secondName().empty()) return;
    append(" AS ");
    identifier(domain->secondName());
}

void ASSqlBuilder::groupBy(const ASProject& project) {
    bool plain = false;
    bool aggregates = false;
    for (const auto& item : project.m_items)
        (item->group ? aggregates : plain) = true;
    if (!plain || !aggregates) return;
    const char* separator = " GROUP BY ";
    for (const auto& item : project.m_items) {
        if (item->group) continue;
        append(separator);
        operand(*item->attribute);
        separator = ", ";
    }
}

void ASSqlBuilder::orderBy(const ASOrder& order) {
    const char* separator = " ORDER BY ";
    for (const auto& key : order.m_keys) {
        append(separator);
        separator = ", ";
        if (key->group) {
            aggregate(*key->group);
        } else {
            operand(*key->attribute);
            if (key->attribute->isColumn() && isText(key->attribute->type())) append(m_dialect.byteOrder);
        }
        direction(key->descending);
    }
}

void ASSqlBuilder::direction(bool descending) {
    if (descending) append(" DESC");
    append(descending ? m_dialect.nullsDescending : m_dialect.nullsAscending);
}

// As parameters, so that all pages of one select are one prepared statement.
void ASSqlBuilder::page(std::int32_t limit, std::int32_t offset) {
    append(" LIMIT ");
    pageNumber(limit);
    if (m_purpose != ASPurpose::Execution && offset == 0) return;
    append(" OFFSET ");
    pageNumber(offset);
}

void ASSqlBuilder::pageNumber(std::int32_t number) {
    const ASValue& kept = keep(ASValue::ofInteger(number));
    m_dialect.typed ? typedValue(kept, "bigint") : value(kept);
}

}  // namespace QOR
