#include "rdbmspp/sql/ASComparison.h"

#include <utility>
#include <vector>

#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSqlBuilder.h"

namespace QOR {

namespace {

using Node = ASComparison::Node;

ASComparison chain(Node::Kind kind, ASComparison left, const ASComparison& right) {
    if (right.empty()) return left;
    if (left.empty()) return right;
    auto node = std::make_shared<Node>(kind);
    node->left = left.node();
    node->right = right.node();
    return ASComparison(std::move(node));
}

}  // namespace

// A chain of many terms is a deep tree; the pointers' own destructors would go down it by recursion. What has parts has
// a left one.
ASComparison::Node::~Node() {
    if (!left) return;
    std::vector<std::shared_ptr<Node>> doomed;
    const auto collect = [&doomed](std::shared_ptr<Node>& child) {
        if (child && child.use_count() == 1 && child->left) doomed.push_back(std::move(child));
    };
    collect(left);
    collect(right);
    while (!doomed.empty()) {
        const std::shared_ptr<Node> node = std::move(doomed.back());
        doomed.pop_back();
        collect(node->left);
        collect(node->right);
    }
}

ASComparison::ASComparison() = default;

ASComparison::ASComparison(std::string sql) {
    if (sql.empty()) return;
    m_node = std::make_shared<Node>(Node::Kind::Raw);
    m_node->value.kind = ASValue::Kind::Text;
    m_node->value.text = std::move(sql);
}

std::string ASComparison::Query() const {
    return Query(ASDialect::of(ASEngine::SQLite));
}

std::string ASComparison::Query(const ASDialect& dialect) const {
    ASSqlBuilder builder(dialect, ASPurpose::Reading);
    builder.condition(*this);
    return std::move(builder).takeText();
}

ASComparison operator&&(ASComparison left, const ASComparison& right) {
    return chain(Node::Kind::And, std::move(left), right);
}

ASComparison operator||(ASComparison left, const ASComparison& right) {
    return chain(Node::Kind::Or, std::move(left), right);
}

ASComparison operator!(ASComparison operand) {
    if (operand.empty()) return operand;
    if (operand.node()->kind == Node::Kind::Not) return ASComparison(operand.node()->left);
    auto node = std::make_shared<Node>(Node::Kind::Not);
    node->left = operand.node();
    return ASComparison(std::move(node));
}

}  // namespace QOR
