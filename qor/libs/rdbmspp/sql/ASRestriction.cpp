#include "rdbmspp/sql/ASRestriction.h"

#include <algorithm>
#include <vector>

#include "QORCommon/QORNumbers.h"
#include "rdbmspp/engine/ASDialect.h"
#include "rdbmspp/sql/ASNodes.h"
#include "rdbmspp/sql/ASSqlText.h"

namespace QOR {

namespace {

using Node = ASComparison::Node;

bool isStored(const ASAttribute& attribute) {
    return attribute.isColumn() && attribute.domain() && attribute.domain()->isStored(attribute.name());
}

bool isStoredOrLiteral(const ASAttribute& attribute) {
    return attribute.isColumn() ? isStored(attribute) : isLiteralList(attribute.name());
}

bool isGuid(const ASAttribute& attribute) {
    return attribute.type() == ASType::Guid;
}

/// A comparison from which the engine could conclude what a GUID is, if it stood in a conjunction.
bool tellsAGuid(const Node& node) {
    if (node.kind == Node::Kind::Attributes) return isGuid(*node.first) || isGuid(*node.second);
    return (node.kind == Node::Kind::Value || node.kind == Node::Kind::In) && isGuid(*node.first);
}

/// Of a typed engine: whether the literals are compared with the column as values of its kind. A whole number beside a
/// fraction is made a decimal number first.
bool areOfKind(const ASAttribute& column, const std::vector<std::string_view>& literals) {
    if (!isWhole(column.type())) return true;
    return std::all_of(literals.begin(), literals.end(), [](std::string_view sql) {
        const auto text = literalText(sql);
        return text && parseInt64(*text);
    });
}

bool isOfKind(const ASAttribute& column, const ASValue& value) {
    if (value.kind == ASValue::Kind::Binary) return false;
    if (!isWhole(column.type())) return true;
    return value.kind == ASValue::Kind::Integer || (value.kind == ASValue::Kind::Text && parseInt64(value.text));
}

bool isPlainTerm(const Node& node, bool typed) {
    switch (node.kind) {
        case Node::Kind::Value:
            return isStored(*node.first) && (!typed || isOfKind(*node.first, node.value));
        case Node::Kind::IsNull:
            return isStored(*node.first);
        case Node::Kind::Values:
            return true;
        case Node::Kind::Attributes:
            return !typed && !tellsAGuid(node) && isStored(*node.first) && isStored(*node.second);
        case Node::Kind::Between:
            if (!isStored(*node.first) || !isStoredOrLiteral(*node.second) || !isStoredOrLiteral(*node.third))
                return false;
            return !typed || (!node.second->isColumn() && !node.third->isColumn() &&
                              areOfKind(*node.first, {node.second->name(), node.third->name()}));
        case Node::Kind::In:
            return !node.second && isStored(*node.first) && isLiteralList(node.value.text) &&
                   (!typed || areOfKind(*node.first, listItems(node.value.text)));
        default:
            return false;
    }
}

// A chain of many terms is a deep tree, so nothing here goes down it by recursion. Below a not, a comparison may turn
// into the opposite one of a conjunction.
bool isPlain(const Node& root, bool typed) {
    struct Pending {
        const Node* node;
        bool belowNot;
    };
    std::vector<Pending> pending{{&root, false}};
    while (!pending.empty()) {
        const auto [node, belowNot] = pending.back();
        pending.pop_back();
        if (node->isChain() || node->kind == Node::Kind::Not) {
            const bool below = belowNot || node->kind == Node::Kind::Not;
            if (node->right) pending.push_back({node->right.get(), below});
            pending.push_back({node->left.get(), below});
        } else if (!isPlainTerm(*node, typed) || (belowNot && tellsAGuid(*node))) {
            return false;
        }
    }
    return true;
}

/// The same term, but an equality with a GUID as one that the engine draws no conclusions from.
ASComparison opaque(const std::shared_ptr<Node>& term) {
    const bool equality = (term->kind == Node::Kind::Value && term->op == Node::Op::Eq && isGuid(*term->first)) ||
                          (term->kind == Node::Kind::In && literalLength(term->value.text) && isGuid(*term->first));
    if (!equality) return ASComparison(term);
    auto copy = std::make_shared<Node>(term->kind);
    copy->opaque = true;
    copy->first = term->first;
    copy->value = term->value;
    return ASComparison(std::move(copy));
}

bool isGuidList(const Node& node) {
    return node.kind == Node::Kind::In && isGuid(*node.first) && isLiteralList(node.value.text);
}

/// The same access, to be asked of each row by itself: GUIDs are texts in the columns and in the list, but for the type
/// that is declared for such a column SQLite tries to read each of them as a number first. An access is the host's own
/// and as long as a view has columns of objects.
std::shared_ptr<Node> asTexts(const std::shared_ptr<Node>& access) {
    if (!access->isChain() && !isGuidList(*access)) return access;
    auto copy = std::make_shared<Node>(access->kind);
    if (access->isChain()) {
        copy->left = asTexts(access->left);
        copy->right = asTexts(access->right);
        return copy;
    }
    copy->untyped = true;
    copy->first = access->first;
    copy->value = access->value;
    return copy;
}

/// The terms of a conjunction, in order.
std::vector<std::shared_ptr<Node>> termsOf(const ASComparison& condition) {
    std::vector<std::shared_ptr<Node>> terms;
    std::vector<std::shared_ptr<Node>> pending;
    if (!condition.empty()) pending.push_back(condition.node());
    while (!pending.empty()) {
        std::shared_ptr<Node> node = std::move(pending.back());
        pending.pop_back();
        if (node->kind == Node::Kind::And) {
            pending.push_back(node->right);
            pending.push_back(node->left);
        } else {
            terms.push_back(std::move(node));
        }
    }
    return terms;
}

}  // namespace

ASComparison restricted(const ASDialect& dialect, const ASComparison& access, const ASComparison& condition) {
    if (access.empty()) return condition;
    ASComparison outside = opaque(access.node());
    ASComparison rest;
    for (const auto& term : termsOf(condition)) {
        if (isPlain(*term, dialect.typed)) {
            outside = std::move(outside) && opaque(term);
        } else {
            rest = std::move(rest) && ASComparison(term);
        }
    }
    if (rest.empty()) return outside;
    auto guard = std::make_shared<Node>(Node::Kind::Guard);
    guard->left = asTexts(access.node());
    guard->right = rest.node();
    return std::move(outside) && ASComparison(std::move(guard));
}

}  // namespace QOR
