/// \file
/// Internal: what the shared parts of attributes, conditions, projections and orders hold.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rdbmspp/engine/ASValue.h"
#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASComparison.h"
#include "rdbmspp/sql/ASSelect.h"

namespace QOR {

/// A value as it travels to the database.
ASValue valueOf(const ASData& data);

/// Whether values of the type are whole numbers.
constexpr bool isWhole(ASType type) {
    return type == ASType::Int || type == ASType::BigInt;
}

struct ASAttribute::Impl {
    enum class Kind : unsigned char { Column, Expression, Select };

    Kind kind = Kind::Column;
    ASType type = ASType::VarChar;
    std::string text;  ///< the column's name, or SQL; of a select only where it is text already
    std::shared_ptr<const ASNestedSelect> nested;
    std::shared_ptr<const ASAttribute> operand;  ///< of a call, which the text begins with
    ASDataPtr data;
    ASDomainPtr domain;
};

struct ASGroupAttribute::Impl {
    Function function = Function::Count;
    std::optional<ASAttribute> attribute;  ///< none: all rows
    ASDataPtr data;
    ASDomainPtr domain;
};

/// A node of a condition. Chains are kept as pairs, so that adding to one costs the same however long it is, and are
/// laid flat when they are rendered. Nothing changes after it was built.
struct ASComparison::Node {
    enum class Kind : unsigned char {
        And,
        Or,
        Not,            ///< of left
        Guard,          ///< right where left is true, else unknown; right is evaluated for no other row
        Raw,            ///< value.text
        Attributes,     ///< first op second
        Value,          ///< first op value
        Values,         ///< value op other
        LikeText,       ///< first like value
        LikeAttribute,  ///< first like second
        Between,        ///< first between second and third
        In,      ///< first in (value.text), which items are where one is no literal, or in the select that second is
        IsNull,  ///< first
    };
    enum class Op : unsigned char { Eq, Ne, Gt, Ge, Lt, Le };

    explicit Node(Kind k) noexcept : kind(k) {}
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    /// Takes chains apart without recursion, however deep they are.
    ~Node();

    bool isChain() const noexcept { return kind == Kind::And || kind == Kind::Or; }

    Kind kind;
    Op op = Op::Eq;
    char escape = 0;
    bool opaque = false;   ///< Value of Eq, In of one literal: written so that the engine draws no conclusions from it
    bool untyped = false;  ///< In of texts: they are compared as texts, whatever type is declared for the column
    std::shared_ptr<Node> left;
    std::shared_ptr<Node> right;
    std::optional<ASAttribute> first;
    std::optional<ASAttribute> second;
    std::optional<ASAttribute> third;
    std::vector<ASAttribute> items;
    ASValue value;
    ASValue other;
};

/// As it stands between two operands.
constexpr const char* operatorText(ASComparison::Node::Op op) {
    constexpr const char* texts[] = {" = ", " <> ", " > ", " >= ", " < ", " <= "};  // in the order of Op
    return texts[static_cast<unsigned>(op)];
}

struct ASProject::Item {
    std::optional<ASAttribute> attribute;
    std::optional<ASGroupAttribute> group;

    /// Whether it selects the same column or aggregate.
    bool isSame(const std::optional<ASAttribute>& otherAttribute,
                const std::optional<ASGroupAttribute>& otherGroup) const;

    ASData* data() const { return group ? group->data().get() : attribute->data().get(); }
    const ASDomain* domain() const { return group ? group->domain().get() : attribute->domain().get(); }
};

struct ASOrder::Key {
    std::optional<ASAttribute> attribute;
    std::optional<ASGroupAttribute> group;
    bool descending = false;
};

}  // namespace QOR
