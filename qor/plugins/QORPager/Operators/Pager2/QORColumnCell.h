/// \file
/// ColumnCell: the typed operand that every leaf of a where tree becomes, and every output and sort column.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "QORPager/Operators/Pager2/QORViewMetadata.h"
#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASComparison.h"
#include "rdbmspp/sql/ASData.h"
#include "rdbmspp/sql/ASSelect.h"

namespace QOR {

/// A view column (possibly aggregated), a literal, or an SQL expression. A value type: copies share what they refer
/// to, the receiver of fetched values included.
class ColumnCell {
public:
    /// A column. \param displayName output name, "" for the column's own \param length declared, in characters
    /// \param function aggregating function in any case, "" for none
    /// \throws QORException 1 for an unknown function
    ColumnCell(ASDomainPtr domain, const std::string& column, const std::string& displayName, ColumnType type,
               std::uint32_t length, const std::string& function);
    /// A literal of the request, which has no type of its own: it takes that of what it is compared with. Or, when
    /// `isSql`, an expression that this program wrote.
    ColumnCell(std::string text, bool isSql);
    /// A call of a function.
    explicit ColumnCell(ASAttribute call) : m_attribute(std::move(call)) {}
    /// A nested select, never null.
    explicit ColumnCell(std::shared_ptr<const ASNestedSelect> select) : m_attribute(std::in_place, std::move(select)) {}

    ASComparison eq(const ColumnCell& other) const;
    ASComparison ne(const ColumnCell& other) const;
    ASComparison gt(const ColumnCell& other) const;
    ASComparison ge(const ColumnCell& other) const;
    ASComparison lt(const ColumnCell& other) const;
    ASComparison le(const ColumnCell& other) const;
    /// \param escape 0: none
    ASComparison like(const ColumnCell& pattern, char escape) const;
    ASComparison between(const ColumnCell& low, const ColumnCell& high) const;
    /// `item`: a list of quoted texts, or one select.
    ASComparison inOne(const ColumnCell& item) const;
    ASComparison inList(const std::vector<ColumnCell>& items) const;
    ASComparison isNull() const;
    std::string lower() const;
    std::string upper() const;

    /// The operand as SQL text; a literal between single quotes, quotes inside doubled.
    std::string asSQLString() const;
    /// The attribute; of a literal, one made from its SQL text.
    ASAttribute getAttrValue() const;
    /// The literal as a value of the type, 0 counting as VarChar. \throws QORException 400 when it is none
    ASDataPtr asData(ColumnType type) const;
    ASDataPtr asData() const { return asData(ColumnType::VarChar); }

    const std::optional<ASAttribute>& getAttr() const noexcept { return m_attribute; }
    const std::optional<ASGroupAttribute>& getAggrAttr() const noexcept { return m_aggregate; }
    const ASDataPtr& getData() const noexcept { return m_data; }
    /// The column's type; 0 for a literal or an expression.
    ColumnType colType() const noexcept { return m_data ? m_data->type() : ColumnType{}; }
    const std::string& displayName() const noexcept { return m_displayName; }

private:
    ASDomainPtr m_domain;
    std::optional<ASAttribute> m_attribute;
    ASDataPtr m_data;
    std::optional<ASGroupAttribute> m_aggregate;
    std::string m_displayName;
    std::string m_value;
};

}  // namespace QOR
