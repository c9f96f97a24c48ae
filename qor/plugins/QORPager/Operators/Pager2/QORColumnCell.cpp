#include "QORPager/Operators/Pager2/QORColumnCell.h"

#include <array>
#include <string_view>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

namespace {

/// One comparison operator in the forms that the kinds of its operands ask for.
struct ComparisonForms {
    ASComparison (*values)(const ASData&, const ASData&);
    ASComparison (*attributes)(const ASAttribute&, const ASAttribute&);
    ASComparison (*attributeAndValue)(const ASAttribute&, const ASData&);
    /// The same with the operands exchanged: value > column is column < value.
    ASComparison (*mirrored)(const ASAttribute&, const ASData&);
};

constexpr ComparisonForms formsEq{ASData::EQ, QOR::operator==, QOR::operator==, QOR::operator== };
constexpr ComparisonForms formsNe{ASData::NE, QOR::operator!=, QOR::operator!=, QOR::operator!= };
constexpr ComparisonForms formsGt{ASData::GT, QOR::operator>, QOR::operator>, QOR::operator<};
constexpr ComparisonForms formsGe{ASData::GE, QOR::operator>=, QOR::operator>=, QOR::operator<= };
constexpr ComparisonForms formsLt{ASData::LT, QOR::operator<, QOR::operator<, QOR::operator> };
constexpr ComparisonForms formsLe{ASData::LE, QOR::operator<=, QOR::operator<=, QOR::operator>= };

ASComparison compare(const ColumnCell& left, const ColumnCell& right, const ComparisonForms& forms) {
    const auto& leftAttribute = left.getAttr();
    const auto& rightAttribute = right.getAttr();
    if (leftAttribute && rightAttribute) return forms.attributes(*leftAttribute, *rightAttribute);
    if (leftAttribute) return forms.attributeAndValue(*leftAttribute, *right.asData(left.colType()));
    if (rightAttribute) return forms.mirrored(*rightAttribute, *left.asData(right.colType()));
    return forms.values(*left.asData(), *right.asData());
}

/// An aggregating function of requests, and the type of its result (the column's own, clipped, where none is given).
struct AggregatingFunction {
    std::string_view name;
    ASGroupAttribute::Function function;
    ColumnType result;
};

constexpr ColumnType clippedColumnType{};

constexpr std::array<AggregatingFunction, 5> aggregatingFunctions{{
    {"sum", ASGroupAttribute::Function::Sum, clippedColumnType},
    {"average", ASGroupAttribute::Function::Average, ColumnType::Double},
    {"min", ASGroupAttribute::Function::Min, clippedColumnType},
    {"max", ASGroupAttribute::Function::Max, clippedColumnType},
    {"count", ASGroupAttribute::Function::Count, ColumnType::BigInt},
}};

const AggregatingFunction& aggregatingFunction(const std::string& name) {
    const std::string lowered = toLowerText(name);
    for (const AggregatingFunction& candidate : aggregatingFunctions) {
        if (candidate.name == lowered) return candidate;
    }
    throwException(errFailure, "invalid aggregating function name \"" + name + "\"", pager2SourcePath, __LINE__);
}

}  // namespace

ColumnCell::ColumnCell(ASDomainPtr domain, const std::string& column, const std::string& displayName, ColumnType type,
                       std::uint32_t length, const std::string& function)
    : m_domain(std::move(domain)),
      m_attribute(std::in_place, column, type),
      m_displayName(displayName.empty() ? column : displayName) {
    if (function.empty()) {
        m_data = SelectStmnt::interpret(type, nullptr, length);
        m_attribute->Register(m_data, m_domain);
    } else {
        const AggregatingFunction& aggregating = aggregatingFunction(function);
        const bool clipped = aggregating.result == clippedColumnType;
        m_data =
            SelectStmnt::interpret(clipped ? SelectStmnt::clipNumericType(type) : aggregating.result, nullptr, length);
        m_attribute->Register(m_domain);
        m_aggregate.emplace(aggregating.function, *m_attribute);
        m_aggregate->Register(m_data, m_domain);
    }
    m_data->Bind(*m_attribute);
}

ColumnCell::ColumnCell(std::string text, bool isSql) {
    if (isSql) {
        m_attribute.emplace(ASAttribute::Raw::Expression, std::move(text));
    } else {
        m_value = std::move(text);
    }
}

ASComparison ColumnCell::eq(const ColumnCell& other) const {
    return compare(*this, other, formsEq);
}
ASComparison ColumnCell::ne(const ColumnCell& other) const {
    return compare(*this, other, formsNe);
}
ASComparison ColumnCell::gt(const ColumnCell& other) const {
    return compare(*this, other, formsGt);
}
ASComparison ColumnCell::ge(const ColumnCell& other) const {
    return compare(*this, other, formsGe);
}
ASComparison ColumnCell::lt(const ColumnCell& other) const {
    return compare(*this, other, formsLt);
}
ASComparison ColumnCell::le(const ColumnCell& other) const {
    return compare(*this, other, formsLe);
}

ASComparison ColumnCell::like(const ColumnCell& pattern, char escape) const {
    if (pattern.m_attribute) return ASAttribute::Like(getAttrValue(), *pattern.m_attribute, escape);
    return ASAttribute::Like(getAttrValue(), pattern.asData()->Str(), escape);
}

ASComparison ColumnCell::between(const ColumnCell& low, const ColumnCell& high) const {
    return ASAttribute::Between(getAttrValue(), low.getAttrValue(), high.getAttrValue());
}

ASComparison ColumnCell::inOne(const ColumnCell& item) const {
    if (item.m_attribute && item.m_attribute->isSelect()) return ASAttribute::In(getAttrValue(), *item.m_attribute);
    return ASAttribute::In(getAttrValue(), item.asSQLString());
}

ASComparison ColumnCell::inList(const std::vector<ColumnCell>& items) const {
    ASComparison condition;
    std::vector<ASAttribute> list;
    for (const ColumnCell& item : items) {
        // Beside other items a select would be read as one scalar, so it gets an "in" of its own.
        if (item.m_attribute && item.m_attribute->isSelect()) {
            condition = std::move(condition) || inOne(item);
            continue;
        }
        list.push_back(item.getAttrValue());
    }
    if (list.empty()) return condition;
    return std::move(condition) || ASAttribute::In(getAttrValue(), list);
}

ASComparison ColumnCell::isNull() const {
    return ASAttribute::IsNull(getAttrValue());
}

std::string ColumnCell::lower() const {
    return ASAttribute::Lower(getAttrValue()).Query();
}

std::string ColumnCell::upper() const {
    return ASAttribute::Upper(getAttrValue()).Query();
}

std::string ColumnCell::asSQLString() const {
    return m_attribute ? m_attribute->Query() : ASSession::quoteLiteral(m_value);
}

ASAttribute ColumnCell::getAttrValue() const {
    if (m_attribute) return *m_attribute;
    return {ASAttribute::Raw::Expression, asSQLString()};
}

ASDataPtr ColumnCell::asData(ColumnType type) const {
    return SelectStmnt::interpret(type == ColumnType{} ? ColumnType::VarChar : type, &m_value, m_value.size());
}

}  // namespace QOR
