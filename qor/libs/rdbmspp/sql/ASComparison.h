/// \file
/// Conditions. A value type that shares its parts; combining with and/or over many terms costs time linear in them.
#pragma once

#include <memory>
#include <string>

#include "QORCommon/QORExport.h"

namespace QOR {

struct ASDialect;

/// A condition over rows, or none (default-constructed). "a && none" is a; "!none" is none.
/// Rendered so that every engine takes it: chains of one operator stand flat, a not of a not is the condition itself.
class QOR_API ASComparison {
public:
    ASComparison();
    /// A condition that this program wrote, such as "1 = 0"; never text of a client.
    explicit ASComparison(std::string sql);

    bool empty() const noexcept { return m_node == nullptr; }
    /// The condition as SQL text, values as literals; "" for none. Without a dialect, as SQLite has it.
    std::string Query() const;
    std::string Query(const ASDialect& dialect) const;

    /// Take their left side by value: move it in, and a chain grows in place.
    friend QOR_API ASComparison operator&&(ASComparison left, const ASComparison& right);
    friend QOR_API ASComparison operator||(ASComparison left, const ASComparison& right);
    friend QOR_API ASComparison operator!(ASComparison operand);

    /// Its node; only rdbmspp looks inside.
    struct Node;
    explicit ASComparison(std::shared_ptr<Node> node) noexcept : m_node(std::move(node)) {}
    const std::shared_ptr<Node>& node() const noexcept { return m_node; }

private:
    std::shared_ptr<Node> m_node;
};

}  // namespace QOR
