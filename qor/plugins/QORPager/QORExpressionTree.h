/// \file
/// The tree of a parsed filter.
#pragma once

#include <deque>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "QORPager/QORExpressionToken.h"

namespace QOR {

/// One node. Owns its children; refers to tokens of the parser's postfix sequence, so a tree is valid only while that
/// sequence is unchanged. Trees may be as deep as the text is long: no operation recurses.
///
/// Children stand in the order in which the postfix sequence yields them from its end: of a binary operator the first
/// child is the right operand and the last one the left; of a function they are the arguments from last to first.
class TNode {
public:
    using Names = std::set<std::string, std::less<>>;

    TNode(TNode* parent, const TToken& token) noexcept : m_parent(parent), m_token(token) {}
    TNode(const TNode&) = delete;
    TNode& operator=(const TNode&) = delete;
    ~TNode();

    /// The tree of the whole sequence. \param special the names, in lower case, that are special
    /// \returns null when the sequence is not exactly one expression; `offending` is then a token where that shows
    static std::unique_ptr<TNode> build(const std::deque<TToken>& postfix, const Names& special,
                                        const TToken*& offending);

    const TNode* parent() const noexcept { return m_parent; }
    const std::list<TNode>& children() const noexcept { return m_children; }
    const TToken& token() const noexcept { return m_token; }
    bool includesOnlyConstants() const noexcept { return m_onlyConstants; }
    bool includesSpecialIdentifier() const noexcept { return m_special; }
    bool includesNotSpecialIdentifier() const noexcept { return m_notSpecial; }

    /// Whether the subtree has no not special identifier, or with false no special one.
    bool onlySpecial(bool special) const noexcept { return special ? !m_notSpecial : !m_special; }

    /// A new tree of what concerns the identifiers of one kind. It refers to the same tokens.
    std::unique_ptr<TNode> getSpecialTree(bool special) const;

    /// The constant that an identifier, spelled exactly like this, is compared with by an operator of this type: the
    /// first one found from the root down, right operands first, in either order of operands. Whether the comparison
    /// stands under "or" does not count; unary operators and function calls are not entered. Null when there is none.
    const TToken* extractConstByIdentifierAndOperation(std::string_view name, TTokenType type) const;

    /// The text form, with brackets around every operator but the unary minus.
    std::string getInfix() const;

    /// The tokens in the order of evaluation: left operand, right operand, operator.
    std::vector<const TToken*> postOrder() const;

private:
    enum class Descent { Stop, First, Last };

    void includeIdentifier(bool special) noexcept;
    void setFlag(bool TNode::*flag, bool value) noexcept;
    /// A copy of the node without its children.
    TNode& addSpecialChild(const TNode& node);
    void copyFlags(const TNode& node) noexcept;
    static Descent checkStopSpecial(const TNode& node, bool special) noexcept;
    static const TNode& grubSpecial(const TNode& node, bool special) noexcept;
    const TToken* ownConstant(std::string_view name) const noexcept;

    TNode* m_parent;
    std::list<TNode> m_children;
    const TToken& m_token;
    bool m_onlyConstants = true;
    bool m_special = false;
    bool m_notSpecial = false;
};

}  // namespace QOR
