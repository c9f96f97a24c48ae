/// \file
/// Internal: comparisons for an engine that compares like with like only.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rdbmspp/sql/ASNodes.h"

namespace QOR {

class ASSqlBuilder;

/// Where SQLite compares whatever it finds, such an engine fails, or fails on the first value that does not look like
/// the type of the other side. Here each value is looked at before it is sent: it travels as a parameter of the kind
/// that the column has, or the comparison is written as what SQLite would have answered. Texts compare by their bytes
/// and fold ASCII letters only, whatever language the database speaks.
class ASTypedTerms {
public:
    explicit ASTypedTerms(ASSqlBuilder& builder) noexcept : m_builder(builder) {}

    /// A comparison.
    void term(const ASComparison::Node& node);
    /// What is compared, sorted or grouped: a column as what its type is taken for, a call, a select.
    void operand(const ASAttribute& attribute);
    /// A column as the driver has to be given it, so that it hands on what is stored.
    void projected(const ASAttribute& column);

    /// An aggregate over an attribute. \param nested whether its result is compared with others and not read
    /// \param projected whether it is given to the driver, and not sorted by
    void aggregate(const ASGroupAttribute& attribute, bool nested, bool projected);

private:
    struct Side;
    using Node = ASComparison::Node;

    void compare(const Side& left, Node::Op op, const Side& right);
    void compareWithValue(const Side& left, Node::Op op, const ASValue& value);
    void compareNumber(const Side& left, Node::Op op, const ASValue& value);
    void compareWhole(const Side& left, Node::Op op, std::int64_t value);
    void compareGuid(const Side& left, Node::Op op, const ASValue& value);
    void compareTime(const Side& left, Node::Op op, const ASValue& value);
    void compareValues(const ASValue& left, Node::Op op, const ASValue& right);
    void compareMixed(const Side& left, Node::Op op, const Side& right);
    void known(const Side& side, bool answer);
    void side(const Side& side);
    void sideAsText(const Side& side);
    void sideAsNumeric(const Side& side);
    void binary(const Side& left, Node::Op op, const ASValue& value, const char* type);
    void between(const Node& node);
    void in(const Node& node);
    void inItems(const Side& left, const std::vector<ASAttribute>& items);
    bool inArray(const Side& left, const std::vector<std::string_view>& items);
    void inSelect(const Side& left, const ASAttribute& select);
    void inSelectOfOthers(const Side& left, const ASNestedSelect& nested);
    template <class Write>
    void numberIn(const Write& text);
    void like(const Node& node);
    void likeColumn(const Node& node);
    void pattern(const Side& side);
    void call(const ASAttribute& attribute);
    void expression(std::string_view sql);
    std::string written(const ASAttribute& attribute);
    const ASValue* literal(std::string_view sql);
    Side sideOf(const ASAttribute& attribute);

    ASSqlBuilder& m_builder;
};

}  // namespace QOR
