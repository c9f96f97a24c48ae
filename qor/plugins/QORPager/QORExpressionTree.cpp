#include "QORPager/QORExpressionTree.h"

#include <algorithm>
#include <utility>

#include "QORPager/QORExpressionTables.h"
#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

bool isConstant(const TToken& token) noexcept {
    return token.tokenClass == tcNumber || token.tokenClass == tcString;
}

}  // namespace

TNode::~TNode() {
    // Descendants are moved into one list before they go, so that a deep tree does not destroy itself recursively.
    std::list<TNode> condemned;
    condemned.swap(m_children);
    while (!condemned.empty()) {
        condemned.splice(condemned.end(), condemned.front().m_children);
        condemned.pop_front();
    }
}

std::unique_ptr<TNode> TNode::build(const std::deque<TToken>& postfix, const Names& special, const TToken*& offending) {
    struct Open {
        TNode* node;
        int missing;  ///< operands that it still needs
    };
    std::unique_ptr<TNode> root;
    std::vector<Open> open;
    auto at = postfix.rbegin();
    while (at != postfix.rend() && (root == nullptr || !open.empty())) {
        const TToken& token = *at++;
        TNode* node = nullptr;
        if (root == nullptr) {
            root = std::make_unique<TNode>(nullptr, token);
            node = root.get();
        } else {
            TNode* const parent = open.back().node;
            node = &parent->m_children.emplace_back(parent, token);
            if (--open.back().missing == 0) open.pop_back();
        }
        const int arity = arityOf(token);
        offending = &token;
        if (arity < 0) return nullptr;
        if (arity > 0) open.push_back({node, arity});
        if (token.tokenClass == tcIdentifier) node->includeIdentifier(special.contains(toLowerText(token.text)));
    }
    if (open.empty() && at == postfix.rend()) return root;
    offending = open.empty() ? &*at : &open.back().node->m_token;
    return nullptr;
}

void TNode::includeIdentifier(bool special) noexcept {
    setFlag(special ? &TNode::m_special : &TNode::m_notSpecial, true);
    setFlag(&TNode::m_onlyConstants, false);
}

void TNode::setFlag(bool TNode::*flag, bool value) noexcept {
    for (TNode* node = this; node != nullptr && node->*flag != value; node = node->m_parent)
        node->*flag = value;
}

TNode::Descent TNode::checkStopSpecial(const TNode& node, bool special) noexcept {
    if (node.m_children.empty()) return Descent::Stop;
    const auto wanted = [special](const TNode& child) { return child.m_special == special; };
    const auto clean = [special](const TNode& child) { return child.m_notSpecial != special; };
    const TNode& first = node.m_children.front();
    const TNode& last = node.m_children.back();
    if ((wanted(last) || clean(last)) && (wanted(first) || clean(first))) return Descent::Stop;
    return wanted(last) ? Descent::Last : Descent::First;
}

const TNode& TNode::grubSpecial(const TNode& node, bool special) noexcept {
    const TNode* current = &node;
    for (;;) {
        const Descent descent = checkStopSpecial(*current, special);
        if (descent == Descent::Stop) return *current;
        current = descent == Descent::Last ? &current->m_children.back() : &current->m_children.front();
    }
}

TNode& TNode::addSpecialChild(const TNode& node) {
    TNode& copy = m_children.emplace_back(this, node.m_token);
    copy.copyFlags(node);
    return copy;
}

void TNode::copyFlags(const TNode& node) noexcept {
    m_onlyConstants = node.m_onlyConstants;
    m_special = node.m_special;
    m_notSpecial = node.m_notSpecial;
}

std::unique_ptr<TNode> TNode::getSpecialTree(bool special) const {
    std::vector<std::pair<const TNode*, TNode*>> pending;
    const auto add = [&](TNode& parent, const TNode& child) {
        pending.emplace_back(&child, &parent.addSpecialChild(child));
    };
    const TNode& stop = grubSpecial(*this, special);
    auto root = std::make_unique<TNode>(nullptr, stop.m_token);
    root->copyFlags(stop);
    pending.emplace_back(&stop, root.get());
    while (!pending.empty()) {
        const auto [from, to] = pending.back();
        pending.pop_back();
        if (from->onlySpecial(special)) {
            for (const TNode& child : from->m_children)
                add(*to, child);
        } else if (!from->m_children.empty()) {
            add(*to, grubSpecial(from->m_children.front(), special));
            if (from->m_children.size() > 1) add(*to, grubSpecial(from->m_children.back(), special));
        }
    }
    return root;
}

const TToken* TNode::ownConstant(std::string_view name) const noexcept {
    const TToken& right = m_children.front().m_token;
    const TToken& left = m_children.back().m_token;
    const auto isName = [name](const TToken& token) { return token.tokenClass == tcIdentifier && token.text == name; };
    if (isName(right) && isConstant(left)) return &left;
    if (isName(left) && isConstant(right)) return &right;
    return nullptr;
}

const TToken* TNode::extractConstByIdentifierAndOperation(std::string_view name, TTokenType type) const {
    std::vector<const TNode*> pending{this};
    while (!pending.empty()) {
        const TNode* const node = pending.back();
        pending.pop_back();
        if (node->m_children.size() != 2) continue;
        if (node->m_token.type == type) {
            if (const TToken* constant = node->ownConstant(name)) return constant;
        }
        pending.push_back(&node->m_children.back());
        pending.push_back(&node->m_children.front());
    }
    return nullptr;
}

std::vector<const TToken*> TNode::postOrder() const {
    // Operator, right operand, left operand: the reverse of the order of evaluation.
    std::vector<const TToken*> tokens;
    std::vector<const TNode*> pending{this};
    while (!pending.empty()) {
        const TNode* const node = pending.back();
        pending.pop_back();
        tokens.push_back(&node->m_token);
        for (auto child = node->m_children.rbegin(); child != node->m_children.rend(); ++child) {
            pending.push_back(&*child);
        }
    }
    std::reverse(tokens.begin(), tokens.end());
    return tokens;
}

std::string TNode::getInfix() const {
    // What is still to be written, the next piece last: nodes, and the texts between them.
    struct Piece {
        const TNode* node;
        std::string_view text;
    };
    std::string out;
    std::vector<Piece> pieces{{this, {}}};
    const auto text = [&pieces](std::string_view piece) { pieces.push_back({nullptr, piece}); };
    while (!pieces.empty()) {
        const Piece piece = pieces.back();
        pieces.pop_back();
        if (piece.node == nullptr) {
            out += piece.text;
            continue;
        }
        const TToken& token = piece.node->m_token;
        const std::list<TNode>& children = piece.node->m_children;
        if (token.tokenClass != tcOperator || children.empty()) {
            out += token.text;
        } else if (token.type == ttUnaryMinus) {
            out += '-';
            pieces.push_back({&children.front(), {}});
        } else if (token.type == ttFunction) {
            out.append(token.text).append(1, '(');
            text(")");
            for (const TNode& argument : children) {
                pieces.push_back({&argument, {}});
                if (&argument != &children.back()) text(",");
            }
        } else if (children.size() == 1) {
            out.append(1, '(').append(token.text).append(1, ' ');
            text(")");
            pieces.push_back({&children.front(), {}});
        } else {
            out += '(';
            text(")");
            pieces.push_back({&children.front(), {}});
            text(" ");
            text(token.text);
            text(" ");
            pieces.push_back({&children.back(), {}});
        }
    }
    return out;
}

}  // namespace QOR
