// The where tree of a select: a recursive descent over the message cursor. Its depth is the message's, which the
// message's own limit bounds.

#include <string>
#include <vector>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORPager/Operators/Pager2/QORSelectStmnt.h"
#include "QORPager/Operators/QORPagerOperator2.h"

namespace QOR {

namespace {

/// Complains when an element follows the last operand; the element itself is not read.
void expectNoFurther(QORBinaryIterator& it, const char* complaint, int line) {
    if (it.nextSibling() == 0) refuseRequest(complaint, line);
}

}  // namespace

void SelectStmnt::firstChild(QORBinaryIterator& it) {
    if (it.firstChild() != 0) refuseRequest("incorrect <where> clause", __LINE__);
}

void SelectStmnt::nextSibling(QORBinaryIterator& it) {
    if (it.nextSibling() != 0) refuseRequest("incorrect <where> clause", __LINE__);
}

ASComparison SelectStmnt::logicalExpr(QORBinaryIterator it) {
    const QORTag operation = it.curID();
    if (operation == tag::logicalNot) {
        firstChild(it);
        return !logicalExpr(it);
    }
    if (operation != tag::logicalAnd && operation != tag::logicalOr) return comparisonExpr(it);

    firstChild(it);
    ASComparison result = logicalExpr(it);
    while (it.nextSibling() == 0) {
        ASComparison next = logicalExpr(it);
        result = operation == tag::logicalAnd ? std::move(result) && next : std::move(result) || next;
    }
    return result;
}

ASComparison SelectStmnt::comparisonExpr(const QORBinaryIterator& it) {
    switch (it.curID()) {
        case tag::eq:
        case tag::ne:
        case tag::gt:
        case tag::ge:
        case tag::lt:
        case tag::le:
            return binaryExpr(it, it.curID());
        case tag::like:
            return likeExpr(it);
        case tag::between:
            return betweenExpr(it);
        case tag::isNull:
            return isNullExpr(it);
        case tag::in:
            return inExpr(it);
        default:
            refuseRequest("incorrect <where> clause", __LINE__);
    }
}

ASComparison SelectStmnt::binaryExpr(QORBinaryIterator it, QORTag operation) {
    firstChild(it);
    const ColumnCell left = primaryExpr(it);
    nextSibling(it);
    const ColumnCell right = primaryExpr(it);
    expectNoFurther(it, "more than two arguments detected", __LINE__);
    switch (operation) {
        case tag::eq:
            return left.eq(right);
        case tag::ne:
            return left.ne(right);
        case tag::gt:
            return left.gt(right);
        case tag::ge:
            return left.ge(right);
        case tag::lt:
            return left.lt(right);
        default:
            return left.le(right);
    }
}

ASComparison SelectStmnt::likeExpr(QORBinaryIterator it) {
    firstChild(it);
    const ColumnCell operand = primaryExpr(it);
    nextSibling(it);
    const ColumnCell pattern = primaryExpr(it);
    char escape = '\0';
    if (it.nextSibling() == 0) {
        escape = escapeExpr(it);
        expectNoFurther(it, "more than three arguments detected", __LINE__);
    }
    return operand.like(pattern, escape);
}

ASComparison SelectStmnt::betweenExpr(QORBinaryIterator it) {
    firstChild(it);
    const ColumnCell operand = primaryExpr(it);
    nextSibling(it);
    const ColumnCell low = primaryExpr(it);
    nextSibling(it);
    const ColumnCell high = primaryExpr(it);
    expectNoFurther(it, "more than three arguments detected", __LINE__);
    return operand.between(low, high);
}

ASComparison SelectStmnt::isNullExpr(QORBinaryIterator it) {
    firstChild(it);
    const ColumnCell operand = primaryExpr(it);
    expectNoFurther(it, "more than one argument detected", __LINE__);
    return operand.isNull();
}

ASComparison SelectStmnt::inExpr(QORBinaryIterator it) {
    firstChild(it);
    const ColumnCell operand = primaryExpr(it);
    std::vector<ColumnCell> items;
    while (it.nextSibling() == 0)
        items.push_back(primaryExprIn(it));
    if (items.empty()) refuseRequest("no arguments of IN operator", __LINE__);
    return operand.inList(items);
}

char SelectStmnt::escapeExpr(const QORBinaryIterator& it) {
    if (it.curID() != tag::escape) refuseRequest("escape character is expected", __LINE__);
    std::string text;
    if (it.getValue(text) != 0 || text.size() != 1 || static_cast<unsigned char>(text[0]) > 127) {
        refuseRequest("cannot read escape character", __LINE__);
    }
    return text[0];
}

ColumnCell SelectStmnt::primaryExpr(const QORBinaryIterator& it) {
    switch (it.curID()) {
        case tag::field:
            return fieldExpr(it);
        case tag::function:
            return funcExpr(it);
        case tag::value:
            return valueExpr(it);
        default:
            refuseRequest("incorrect value type", __LINE__);
    }
}

ColumnCell SelectStmnt::primaryExprIn(const QORBinaryIterator& it) {
    return it.curID() == tag::select ? selectExpr(it) : primaryExpr(it);
}

ColumnCell SelectStmnt::fieldExpr(const QORBinaryIterator& it) {
    std::string text;
    if (it.getValue(text) != 0) refuseRequest("cannot get field name", __LINE__);
    const std::size_t dot = text.find('.');
    const SelectStmnt& statement = dot == std::string::npos ? *this : getSelectStmntByName(text.substr(0, dot));
    const auto& [name, column] = statement.getColumnMeta(dot == std::string::npos ? text : text.substr(dot + 1));
    if (column.type == ColumnType::Blob) refuseRequest("BLOB field can not be in <where> clause", __LINE__);
    return {statement.m_domain, name, {}, column.type, column.length, {}};
}

ColumnCell SelectStmnt::valueExpr(const QORBinaryIterator& it) const {
    std::string text;
    if (it.getValue(text) != 0) refuseRequest("cannot get value", __LINE__);
    return {std::move(text), false};
}

ColumnCell SelectStmnt::funcExpr(QORBinaryIterator it) {
    std::string name;
    if (it.firstChild() != 0 || it.curID() != tag::name || it.getValue(name) != 0) {
        refuseRequest("function name is not specified", __LINE__);
    }
    nextSibling(it);
    const ColumnCell operand = primaryExpr(it);
    expectNoFurther(it, "more than one arguments are not allowed", __LINE__);
    const std::string function = toLowerText(name);
    if (function == "upper") return ColumnCell(ASAttribute::Upper(operand.getAttrValue()));
    if (function == "lower") return ColumnCell(ASAttribute::Lower(operand.getAttrValue()));
    refuseRequest("unsupported function", __LINE__);
}

ColumnCell SelectStmnt::selectExpr(const QORBinaryIterator& it) {
    m_nests = true;
    const SelectStmnt nested(it, this);
    const std::size_t fields = nested.m_outputFields.size();
    // No select can be compared with an operand then, but what else is wrong with the request is said first.
    if (fields != 1) refuseExecution("a nested select must have one field, it has " + std::to_string(fields));
    return ColumnCell(std::make_shared<const ASNestedSelect>(nested.toSelect(), m_dialect));
}

}  // namespace QOR
