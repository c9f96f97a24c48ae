#include "QORPager/Operators/Pager2/QORSelectStmnt.h"

#include <algorithm>
#include <cassert>

#include "QORCommon/QORAscii.h"
#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"
#include "QORLibAgent/QORCountLimit.h"
#include "QORLibAgent/QORSecurity.h"
#include "QORPager/Operators/QORAccessCondition.h"
#include "QORPager/Operators/QORPagerOperator2.h"

namespace QOR {

namespace {

/// In the order of their names, of those with the same name the first alone.
template <class Element>
void putInOrder(std::vector<Element>& elements, std::string Element::*name) {
    std::stable_sort(elements.begin(), elements.end(),
                     [name](const Element& a, const Element& b) { return a.*name < b.*name; });
    const auto end = std::unique(elements.begin(), elements.end(),
                                 [name](const Element& a, const Element& b) { return a.*name == b.*name; });
    elements.erase(end, elements.end());
}

}  // namespace

SelectStmnt::SelectStmnt(QORBinaryIterator it, SelectStmnt* parent)
    : m_parent(parent), m_dialect(parent != nullptr ? parent->m_dialect : QORRdbms::instance().dialect()) {
    if (it.curID() != tag::select) refuseRequest("select is absent", __LINE__);
    if (it.seekPresence(tag::statistics) == 0) m_counting = Counting::Legacy;
    m_distinct = it.seekPresence(tag::distinct) == 0;
    readElements(it);
    readLimit(it);
    const int operationId = readView(it);
    readFields(it);
    readSort(it);
    if (m_ordered) completeOrder();
    readAfter(it);
    readWhere(it);
    restrictAccess(operationId);
}

void SelectStmnt::renew(const QORBinaryIterator& it) {
    readAfter(it);
    if (isSecurityNeeded()) restrictAccess(m_columns->securityOperationId);
}

// Whom the client stands for may be long, and counts for nobody while the statement lies there.
void SelectStmnt::forgetClient() {
    if (m_access.empty()) return;
    m_access = ASComparison();
    m_firstPart.reset();
    m_countOfAll.reset();
}

/// A nested select's restriction is part of the condition.
bool SelectStmnt::isRenewable() const noexcept {
    return m_refusal.empty() && !(m_nests && isSecurityNeeded());
}

/// Those that belong to what is answered, and so to the outermost select alone.
void SelectStmnt::readElements(const QORBinaryIterator& it) {
    m_ordered = it.seekPresence(tag::ordered) == 0;
    const bool pages = m_ordered || it.seekPresence(tag::after) == 0 || it.seekPresence(tag::count) == 0;
    if (pages && m_parent != nullptr)
        refuseRequest("ordered, after and count belong to the outermost select", __LINE__);
    readCount(it);
}

void SelectStmnt::readCount(const QORBinaryIterator& it) {
    if (it.seekPresence(tag::count) != 0) return;
    std::string text;
    it.getValue(text, tag::count);
    const std::optional<QORCountLimit> limit = QORCountLimit::read(text);
    if (!limit)
        refuseRequest("count: " + quoteText(text) + " is none of none, capped, exact and a time such as 200ms",
                      __LINE__);
    m_countTime = limit->time;
    switch (limit->kind) {
        case QORCountLimit::Kind::Nothing:
            m_counting = Counting::PageOnly;
            break;
        case QORCountLimit::Kind::Capped:
            m_counting = Counting::Capped;
            break;
        case QORCountLimit::Kind::Exact:
            m_counting = Counting::Exact;
            break;
        case QORCountLimit::Kind::Timed:
            m_counting = Counting::Within;
            break;
    }
}

void SelectStmnt::readLimit(QORBinaryIterator& it) {
    if (it.seek(tag::limit) != 0) return;
    if (it.getValue(m_pageSize, tag::size) != 0) refuseRequest("limit/size is absent", __LINE__);
    it.getValue(m_firstRow, tag::offset);
    it.seekUp();
}

/// \returns the operation by which the view's rows are restricted for this client, 0 for none
int SelectStmnt::readView(QORBinaryIterator& it) {
    if (it.seek(tag::view) != 0) refuseRequest("view name (list) is absent", __LINE__);
    if (it.getValue(m_viewName) != 0) {
        // Deliberately tolerant: the complaint is formed, and reading goes on with the text read so far.
        const QORException complaint(errBadRequest, "cannot read view name (list)", pager2SourcePath, __LINE__);
        static_cast<void>(complaint);
    }
    m_columns = &getTableMeta(m_viewName);
    const int operationId = isSecurityNeeded() ? m_columns->securityOperationId : 0;
    m_domain = getDomain(m_columns->viewName);
    it.seekUp();
    return operationId;
}

void SelectStmnt::readFields(QORBinaryIterator& it) {
    constexpr std::size_t mostly = 16;
    if (it.firstChild(tag::field) != 0) refuseRequest("fields list is absent", __LINE__);
    m_outputFields.reserve(mostly);
    do {
        readField(it);
    } while (it.nextSibling(tag::field) == 0);
    it.seekUp();
    if (!m_ordered) putInOrder(m_outputFields, &OutputField::key);
}

void SelectStmnt::readField(QORBinaryIterator& it) {
    std::string fieldName;
    if (it.seekPresence(tag::name) == 0 && it.getValue(fieldName, tag::name) != 0) {
        refuseRequest("invalid field name", __LINE__);
    }
    std::string function;
    std::string column = fieldName;
    std::string displayName;
    if (it.seek(tag::function) == 0) {
        if (it.seekPresence(tag::name) != 0) refuseRequest("'name' tag is absent in function", __LINE__);
        if (it.getValue(function, tag::name) != 0) refuseRequest("invalid aggregating function name", __LINE__);
        if (it.seekPresence(tag::field) != 0) refuseRequest("'field' tag is absent in function", __LINE__);
        std::string aggregated;
        if (it.getValue(aggregated, tag::field) != 0) refuseRequest("invalid field for the aggregation", __LINE__);
        it.seekUp();
        // The name beside a function takes the place of the function's own field.
        if (column.empty()) column = std::move(aggregated);
        displayName = std::move(fieldName);
        if (m_ordered && displayName.empty()) displayName = toLowerText(function) + '(' + column + ')';
    } else if (column.empty() && it.getValue(column) != 0) {
        refuseRequest("invalid simple field", __LINE__);
    }
    ColumnCell cell = getAggrColumn(column, displayName, function);
    m_outputFields.push_back({std::move(column), std::move(cell)});
}

void SelectStmnt::readSort(QORBinaryIterator& it) {
    if (it.firstChild(tag::sort) != 0) return;
    do {
        std::string name;
        if (it.getValue(name, tag::field) != 0) refuseRequest("sort/field is absent", __LINE__);
        const bool descending = it.seekPresence(tag::descending) == 0;
        const OutputField* const output = findOutput(name);
        ColumnCell cell = output != nullptr ? output->cell : getColumn(name);
        if (m_ordered && output == nullptr && (m_distinct || isGrouped()))
            refuseRequest("sort: " + quoteText(name) +
                              " is not among the fields, and distinct or grouped rows are sorted by "
                              "nothing else",
                          __LINE__);
        m_sortColumns.push_back({std::move(name), std::move(cell), descending, false});
    } while (it.nextSibling(tag::sort) == 0);
    it.seekUp();
    if (!m_ordered) putInOrder(m_sortColumns, &SortColumn::name);
}

const SelectStmnt::OutputField* SelectStmnt::findOutput(const std::string& name) const {
    const auto found = std::find_if(m_outputFields.begin(), m_outputFields.end(), [&](const OutputField& field) {
        return (m_ordered ? field.cell.displayName() : field.key) == name;
    });
    return found == m_outputFields.end() ? nullptr : &*found;
}

void SelectStmnt::readWhere(QORBinaryIterator& it) {
    if (it.seek(tag::where) != 0) return;
    if (it.firstChild() != 0) refuseRequest("incorrect <where> clause", __LINE__);
    m_where = logicalExpr(it);
    it.seekUp();
    it.seekUp();
}

void SelectStmnt::restrictAccess(int operationId) {
    if (operationId == 0) return;
    m_access = accessCheckExpr(operationId);
    registerOperationId(operationId);
}

/// \param behind where the page begins; none: at the beginning
void SelectStmnt::restrict(ASFilter& filter, const ASComparison& behind) const {
    const ASComparison where = m_where && behind;
    if (!where.empty()) filter.Set(where);
    if (!m_access.empty()) filter.Restrict(m_access);
}

void SelectStmnt::refuseExecution(std::string reason) {
    SelectStmnt* outermost = this;
    while (outermost->m_parent != nullptr)
        outermost = outermost->m_parent;
    if (outermost->m_refusal.empty()) outermost->m_refusal = std::move(reason);
}

SelectStmnt& SelectStmnt::getSelectStmntByName(const std::string& name) {
    if (name.empty()) return *this;
    const std::string wanted = toLowerText(name);
    for (SelectStmnt* statement = this; statement != nullptr; statement = statement->m_parent) {
        if (toLowerText(statement->m_viewName) == wanted) return *statement;
    }
    throwException(errFailure, "invalid view \"" + name + "\"", pager2SourcePath, __LINE__);
}

const SelectStmnt::MetaColumnsMap& SelectStmnt::getTableMeta(const std::string& view) {
    m_views = getMetaTablesMap();
    const auto found = m_views->find(toLowerText(view));
    if (found == m_views->end()) {
        throwException(errFailure, "invalid view \"" + view + "\"", pager2SourcePath, __LINE__);
    }
    return found->second;
}

const std::pair<const std::string, SelectStmnt::MetaColumn>* SelectStmnt::getColumnMetaEx(
    const std::string& name) const {
    const auto found = m_columns->columns.find(name);
    return found == m_columns->columns.end() ? nullptr : &*found;
}

const std::pair<const std::string, SelectStmnt::MetaColumn>& SelectStmnt::getColumnMeta(const std::string& name) const {
    if (const auto* column = getColumnMetaEx(name)) return *column;
    throwException(errFailure, "invalid column name \"" + name + "\" of view \"" + m_viewName + "\"", pager2SourcePath,
                   __LINE__);
}

ColumnCell SelectStmnt::getColumn(const std::string& name) const {
    return getAggrColumn(name, {}, {});
}

ColumnCell SelectStmnt::getAggrColumn(const std::string& column, const std::string& displayName,
                                      const std::string& function) const {
    const auto& [name, meta] = getColumnMeta(column);
    return {m_domain, name, displayName, meta.type, meta.length, function};
}

void SelectStmnt::getSecurableObjFields(std::list<std::string>& names) const {
    names.clear();
    if (getColumnMetaEx(securableObjectColumn) != nullptr) {
        names.emplace_back(securableObjectColumn);
        return;
    }
    for (unsigned number = 0;; ++number) {
        std::string name = securableObjectColumn + std::to_string(number);
        if (getColumnMetaEx(name) == nullptr) break;
        names.push_back(std::move(name));
    }
    assert(!names.empty());
}

ASComparison SelectStmnt::accessCheckExpr(int operationId) const {
    // Every operation is bound to the same objects; which one it is matters only to who registers it.
    static_cast<void>(operationId);
    std::list<std::string> names;
    getSecurableObjFields(names);
    std::vector<ASAttribute> owners;
    for (const std::string& name : names)
        owners.push_back(getColumn(name).getAttrValue());
    return accessCondition(QORRowAccess::current(), owners);
}

void SelectStmnt::registerOperationId(int operationId) {
    SelectStmnt* outermost = this;
    while (outermost->m_parent != nullptr)
        outermost = outermost->m_parent;
    outermost->m_operationIds.insert(operationId);
}

}  // namespace QOR
