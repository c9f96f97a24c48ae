#include "rdbmspp/sql/ASAttribute.h"

#include <utility>

#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSqlBuilder.h"
#include "rdbmspp/sql/ASSqlText.h"

namespace QOR {

namespace {

using Node = ASComparison::Node;

ASComparison compare(const ASAttribute& left, Node::Op op, const ASAttribute& right) {
    auto node = std::make_shared<Node>(Node::Kind::Attributes);
    node->op = op;
    node->first = left;
    node->second = right;
    return ASComparison(std::move(node));
}

ASComparison compare(const ASAttribute& left, Node::Op op, const ASData& right) {
    auto node = std::make_shared<Node>(Node::Kind::Value);
    node->op = op;
    node->first = left;
    node->value = valueOf(right);
    return ASComparison(std::move(node));
}

ASComparison compare(const ASData& left, Node::Op op, const ASData& right) {
    auto node = std::make_shared<Node>(Node::Kind::Values);
    node->op = op;
    node->value = valueOf(left);
    node->other = valueOf(right);
    return ASComparison(std::move(node));
}

std::string callOf(const char* function, const ASAttribute& attribute) {
    std::string sql = function;
    sql += '(';
    appendOperand(sql, attribute);
    sql += ')';
    return sql;
}

}  // namespace

ASDomain::ASDomain(std::string name, std::string secondName)
    : m_name(std::move(name)), m_secondName(std::move(secondName)) {}

ASAttribute::ASAttribute(std::string column, ASType type) : m_impl(std::make_shared<Impl>()) {
    m_impl->text = std::move(column);
    m_impl->type = type;
}

ASAttribute::ASAttribute(Raw kind, std::string sql) : m_impl(std::make_shared<Impl>()) {
    m_impl->kind = kind == Raw::Select ? Impl::Kind::Select : Impl::Kind::Expression;
    m_impl->text = std::move(sql);
}

ASAttribute::ASAttribute(std::shared_ptr<const ASNestedSelect> select) : m_impl(std::make_shared<Impl>()) {
    m_impl->kind = Impl::Kind::Select;
    m_impl->nested = std::move(select);
}

const std::string& ASAttribute::name() const noexcept {
    return m_impl->text;
}
ASType ASAttribute::type() const noexcept {
    return m_impl->type;
}
bool ASAttribute::isColumn() const noexcept {
    return m_impl->kind == Impl::Kind::Column;
}
bool ASAttribute::isSelect() const noexcept {
    return m_impl->kind == Impl::Kind::Select;
}
const std::shared_ptr<const ASNestedSelect>& ASAttribute::nestedSelect() const noexcept {
    return m_impl->nested;
}
const ASDataPtr& ASAttribute::data() const noexcept {
    return m_impl->data;
}
const ASDomainPtr& ASAttribute::domain() const noexcept {
    return m_impl->domain;
}

void ASAttribute::Register(ASDataPtr data, ASDomainPtr domain) {
    m_impl->data = std::move(data);
    m_impl->domain = std::move(domain);
}

void ASAttribute::Register(ASDomainPtr domain) {
    m_impl->domain = std::move(domain);
}

std::string ASAttribute::Query() const {
    if (m_impl->nested) return m_impl->nested->Query();
    if (!isColumn()) return m_impl->text;
    std::string sql;
    appendColumn(sql, *this);
    return sql;
}

ASComparison ASAttribute::Like(const ASAttribute& attribute, std::string_view pattern, char escape) {
    auto node = std::make_shared<Node>(Node::Kind::LikeText);
    node->first = attribute;
    node->value = ASValue::ofText(pattern);
    node->escape = escape;
    return ASComparison(std::move(node));
}

ASComparison ASAttribute::Like(const ASAttribute& attribute, const ASAttribute& pattern, char escape) {
    auto node = std::make_shared<Node>(Node::Kind::LikeAttribute);
    node->first = attribute;
    node->second = pattern;
    node->escape = escape;
    return ASComparison(std::move(node));
}

ASComparison ASAttribute::Between(const ASAttribute& attribute, const ASAttribute& low, const ASAttribute& high) {
    auto node = std::make_shared<Node>(Node::Kind::Between);
    node->first = attribute;
    node->second = low;
    node->third = high;
    return ASComparison(std::move(node));
}

ASComparison ASAttribute::In(const ASAttribute& attribute, std::string_view list) {
    auto node = std::make_shared<Node>(Node::Kind::In);
    node->first = attribute;
    node->value = ASValue::ofText(list);
    return ASComparison(std::move(node));
}

ASComparison ASAttribute::In(const ASAttribute& attribute, const std::vector<ASAttribute>& items) {
    auto node = std::make_shared<Node>(Node::Kind::In);
    node->first = attribute;
    for (const ASAttribute& item : items) {
        if (!node->value.text.empty()) node->value.text += ", ";
        node->value.text += item.Query();
    }
    node->value.kind = ASValue::Kind::Text;
    if (!isLiteralList(node->value.text)) node->items = items;
    return ASComparison(std::move(node));
}

ASComparison ASAttribute::In(const ASAttribute& attribute, const ASAttribute& select) {
    if (!select.nestedSelect()) return In(attribute, select.name());
    auto node = std::make_shared<Node>(Node::Kind::In);
    node->first = attribute;
    node->second = select;
    return ASComparison(std::move(node));
}

ASComparison ASAttribute::IsNull(const ASAttribute& attribute) {
    auto node = std::make_shared<Node>(Node::Kind::IsNull);
    node->first = attribute;
    return ASComparison(std::move(node));
}

// Rendered at once, so that a column inside is qualified by what it is tied to now.
ASAttribute ASAttribute::call(const char* function, const ASAttribute& attribute) {
    ASAttribute made(Raw::Expression, callOf(function, attribute));
    ASAttribute operand(attribute);
    operand.m_impl = std::make_shared<Impl>(*attribute.m_impl);
    made.m_impl->operand = std::make_shared<const ASAttribute>(std::move(operand));
    return made;
}
ASAttribute ASAttribute::Lower(const ASAttribute& attribute) {
    return call("lower", attribute);
}
ASAttribute ASAttribute::Upper(const ASAttribute& attribute) {
    return call("upper", attribute);
}
ASStorage ASAttribute::storage() const {
    return isColumn() && m_impl->domain ? m_impl->domain->storageOf(m_impl->text) : ASStorage::Usual;
}
const ASAttribute* ASAttribute::operand() const noexcept {
    return m_impl->operand.get();
}

// A function an operator for each pair of operands: the language has no table of operators.
ASComparison operator==(const ASAttribute& l, const ASAttribute& r) {
    return compare(l, Node::Op::Eq, r);
}
ASComparison operator!=(const ASAttribute& l, const ASAttribute& r) {
    return compare(l, Node::Op::Ne, r);
}
ASComparison operator>(const ASAttribute& l, const ASAttribute& r) {
    return compare(l, Node::Op::Gt, r);
}
ASComparison operator>=(const ASAttribute& l, const ASAttribute& r) {
    return compare(l, Node::Op::Ge, r);
}
ASComparison operator<(const ASAttribute& l, const ASAttribute& r) {
    return compare(l, Node::Op::Lt, r);
}
ASComparison operator<=(const ASAttribute& l, const ASAttribute& r) {
    return compare(l, Node::Op::Le, r);
}
ASComparison operator==(const ASAttribute& l, const ASData& r) {
    return compare(l, Node::Op::Eq, r);
}
ASComparison operator!=(const ASAttribute& l, const ASData& r) {
    return compare(l, Node::Op::Ne, r);
}
ASComparison operator>(const ASAttribute& l, const ASData& r) {
    return compare(l, Node::Op::Gt, r);
}
ASComparison operator>=(const ASAttribute& l, const ASData& r) {
    return compare(l, Node::Op::Ge, r);
}
ASComparison operator<(const ASAttribute& l, const ASData& r) {
    return compare(l, Node::Op::Lt, r);
}
ASComparison operator<=(const ASAttribute& l, const ASData& r) {
    return compare(l, Node::Op::Le, r);
}

ASComparison ASData::EQ(const ASData& l, const ASData& r) {
    return compare(l, Node::Op::Eq, r);
}
ASComparison ASData::NE(const ASData& l, const ASData& r) {
    return compare(l, Node::Op::Ne, r);
}
ASComparison ASData::GT(const ASData& l, const ASData& r) {
    return compare(l, Node::Op::Gt, r);
}
ASComparison ASData::GE(const ASData& l, const ASData& r) {
    return compare(l, Node::Op::Ge, r);
}
ASComparison ASData::LT(const ASData& l, const ASData& r) {
    return compare(l, Node::Op::Lt, r);
}
ASComparison ASData::LE(const ASData& l, const ASData& r) {
    return compare(l, Node::Op::Le, r);
}

ASGroupAttribute::ASGroupAttribute() : m_impl(std::make_shared<Impl>()) {}

ASGroupAttribute::ASGroupAttribute(Function function, const ASAttribute& attribute) : m_impl(std::make_shared<Impl>()) {
    m_impl->function = function;
    m_impl->attribute = attribute;
}

void ASGroupAttribute::Register(ASDataPtr data, ASDomainPtr domain) {
    m_impl->data = std::move(data);
    m_impl->domain = std::move(domain);
    if (m_impl->attribute && m_impl->domain) m_impl->attribute->Register(m_impl->domain);
}

const ASDataPtr& ASGroupAttribute::data() const noexcept {
    return m_impl->data;
}
const ASDomainPtr& ASGroupAttribute::domain() const noexcept {
    return m_impl->domain;
}

ASGroupAttribute::Function ASGroupAttribute::function() const noexcept {
    return m_impl->function;
}

const ASAttribute* ASGroupAttribute::aggregated() const noexcept {
    return m_impl->attribute ? &*m_impl->attribute : nullptr;
}

std::string ASGroupAttribute::Query() const {
    return Query(ASDialect::of(ASEngine::SQLite));
}

std::string ASGroupAttribute::Query(const ASDialect& dialect) const {
    ASSqlBuilder builder(dialect, ASPurpose::Reading);
    builder.aggregate(*this);
    return std::move(builder).takeText();
}

ASOrder::ASOrder(const ASAttribute& attribute) {
    m_keys.push_back(std::make_shared<const Key>(Key{attribute, std::nullopt, false}));
}

ASOrder::ASOrder(const ASGroupAttribute& attribute) {
    m_keys.push_back(std::make_shared<const Key>(Key{std::nullopt, attribute, false}));
}

ASOrder ASOrder::operator-() const {
    ASOrder reversed(*this);
    for (auto& key : reversed.m_keys) {
        key = std::make_shared<const Key>(Key{key->attribute, key->group, !key->descending});
    }
    return reversed;
}

ASOrder& ASOrder::operator<<(const ASOrder& next) {
    const auto keys = next.m_keys;  // a copy, because an order may be appended to itself
    m_keys.insert(m_keys.end(), keys.begin(), keys.end());
    return *this;
}

}  // namespace QOR
