/// \file
/// What a select can name: columns, raw SQL expressions, and aggregates over them; the domain they belong to.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORExport.h"
#include "rdbmspp/sql/ASComparison.h"
#include "rdbmspp/sql/ASData.h"

namespace QOR {

struct ASDialect;
class ASNestedSelect;
class ASSpread;

/// What a column's type is in its engine, where that is not what its ASType says.
enum class ASStorage : unsigned char {
    Usual,
    Boolean,    ///< of an Int
    Decimal,    ///< of a Double
    ZonedTime,  ///< of a DateTime
    Other,      ///< of a VarChar: a type that is no text, but has a text form
};

/// By the names of columns; those that are not there are usual.
using ASStorages = std::map<std::string, ASStorage, std::less<>>;

/// A view or table that is selected from. Immutable and shared.
class QOR_API ASDomain {
public:
    /// \param name the exact name in the database; quoted wherever it is rendered
    /// \param secondName an alias under which the columns are qualified, "" for the name itself
    ASDomain(std::string name, std::string secondName);
    const std::string& name() const noexcept { return m_name; }
    const std::string& secondName() const noexcept { return m_secondName; }
    /// The name by which columns are qualified.
    const std::string& reference() const noexcept { return m_secondName.empty() ? m_name : m_secondName; }

    /// A derived table: selected from as `(sql) AS "alias"`. \param sql a select that this program wrote, never text of
    /// a client
    static std::shared_ptr<const ASDomain> derived(std::string sql, std::string alias) {
        auto domain = std::make_shared<ASDomain>(std::move(alias), std::string());
        domain->m_derivedSql = std::move(sql);
        return domain;
    }
    /// The select of a derived table; "" for a view or table of the database.
    const std::string& derivedSql() const noexcept { return m_derivedSql; }

    /// A view of which it is known which columns are stored: reading one computes nothing, so that it cannot fail.
    /// \param handsOutOnly see handsOutOnly() \param spread see spread(); outlives the domain
    static std::shared_ptr<const ASDomain> view(std::string name, std::set<std::string, std::less<>> storedColumns,
                                                ASStorages storages = {}, bool handsOutOnly = false,
                                                ASSpread* spread = nullptr) {
        auto domain = std::make_shared<ASDomain>(std::move(name), std::string());
        domain->m_storedColumns = std::move(storedColumns);
        domain->m_storages = std::move(storages);
        domain->m_handsOutOnly = handsOutOnly;
        domain->m_spread = spread;
        return domain;
    }
    /// Whether it is known that the database computes nothing at all for who selects from the view.
    bool handsOutOnly() const noexcept { return m_handsOutOnly; }
    /// Who knows where its rows lie; null where they never lie elsewhere.
    ASSpread* spread() const noexcept { return m_spread; }
    /// False also where nothing is known of the column.
    bool isStored(std::string_view column) const { return m_storedColumns.contains(column); }
    ASStorage storageOf(std::string_view column) const {
        const auto found = m_storages.find(column);
        return found == m_storages.end() ? ASStorage::Usual : found->second;
    }

private:
    std::string m_name;
    std::string m_secondName;
    std::string m_derivedSql;
    std::set<std::string, std::less<>> m_storedColumns;
    ASStorages m_storages;
    bool m_handsOutOnly = false;
    ASSpread* m_spread = nullptr;
};

using ASDomainPtr = std::shared_ptr<const ASDomain>;

/// A column of a domain, or a raw SQL expression. Cheap to copy (shares its parts).
class QOR_API ASAttribute {
public:
    /// What a raw expression is, which decides how it is bracketed beside others.
    enum class Raw { Expression, Select };

    /// A column. Rendered quoted, and qualified once it is registered over a domain.
    ASAttribute(std::string column, ASType type);
    /// SQL that this program wrote. \param sql never text of a client
    ASAttribute(Raw kind, std::string sql);
    /// A select in the place of an operand. \param select never null
    explicit ASAttribute(std::shared_ptr<const ASNestedSelect> select);

    const std::string& name() const noexcept;
    ASType type() const noexcept;
    bool isColumn() const noexcept;
    bool isSelect() const noexcept;
    /// Null for what is no select, and for one that is text.
    const std::shared_ptr<const ASNestedSelect>& nestedSelect() const noexcept;

    /// Binds a receiver to the column and ties the column to its domain. Copies made before share the effect.
    void Register(ASDataPtr data, ASDomainPtr domain);
    /// Ties the column to its domain only.
    void Register(ASDomainPtr domain);
    const ASDataPtr& data() const noexcept;
    const ASDomainPtr& domain() const noexcept;
    /// What a column is in its engine.
    ASStorage storage() const;
    /// What Lower() or Upper() was asked of; null for what is neither.
    const ASAttribute* operand() const noexcept;

    /// The expression as SQL text, which is the same in every dialect.
    std::string Query() const;

    /// `pattern`: '%' any run of characters, '_' any one; ASCII letters match in either case. `escape` 0: none.
    static ASComparison Like(const ASAttribute& attribute, std::string_view pattern, char escape);
    static ASComparison Like(const ASAttribute& attribute, const ASAttribute& pattern, char escape);
    static ASComparison Between(const ASAttribute& attribute, const ASAttribute& low, const ASAttribute& high);
    /// `list`: SQL of the items, joined with ", "; or of one select. Written by this program from quoted literals.
    static ASComparison In(const ASAttribute& attribute, std::string_view list);
    /// Literals, columns and calls; one at least.
    static ASComparison In(const ASAttribute& attribute, const std::vector<ASAttribute>& items);
    /// \param select an attribute that is one
    static ASComparison In(const ASAttribute& attribute, const ASAttribute& select);
    static ASComparison IsNull(const ASAttribute& attribute);
    static ASAttribute Lower(const ASAttribute& attribute);
    static ASAttribute Upper(const ASAttribute& attribute);

private:
    friend class ASData;
    friend class ASGroupAttribute;
    friend class ASSqlBuilder;
    static ASAttribute call(const char* function, const ASAttribute& attribute);
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

QOR_API ASComparison operator==(const ASAttribute& left, const ASAttribute& right);
QOR_API ASComparison operator!=(const ASAttribute& left, const ASAttribute& right);
QOR_API ASComparison operator>(const ASAttribute& left, const ASAttribute& right);
QOR_API ASComparison operator>=(const ASAttribute& left, const ASAttribute& right);
QOR_API ASComparison operator<(const ASAttribute& left, const ASAttribute& right);
QOR_API ASComparison operator<=(const ASAttribute& left, const ASAttribute& right);
/// The value travels as a bound parameter.
QOR_API ASComparison operator==(const ASAttribute& left, const ASData& right);
QOR_API ASComparison operator!=(const ASAttribute& left, const ASData& right);
QOR_API ASComparison operator>(const ASAttribute& left, const ASData& right);
QOR_API ASComparison operator>=(const ASAttribute& left, const ASData& right);
QOR_API ASComparison operator<(const ASAttribute& left, const ASData& right);
QOR_API ASComparison operator<=(const ASAttribute& left, const ASData& right);

/// An aggregate over an attribute; default-constructed, the count of all rows.
/// Sums, averages, minima and maxima of a DateTime attribute are over its seconds since the epoch; minima and maxima
/// of texts and GUIDs are null (still one row), never a wrong number. In a nested select, whose result is compared and
/// not read, minima and maxima are values of the column itself, whatever its type, and a sum beyond 64 bits is a
/// floating-point number instead of a failure.
class QOR_API ASGroupAttribute {
public:
    enum class Function { Sum, Average, Min, Max, Count };

    ASGroupAttribute();
    ASGroupAttribute(Function function, const ASAttribute& attribute);

    /// Binds the receiver of the result; the domain is what is selected from.
    void Register(ASDataPtr data, ASDomainPtr domain);
    const ASDataPtr& data() const noexcept;
    const ASDomainPtr& domain() const noexcept;
    Function function() const noexcept;
    /// What is aggregated; null for the count of all rows.
    const ASAttribute* aggregated() const noexcept;
    /// The aggregate as SQL text; without a dialect, as SQLite has it.
    std::string Query() const;
    std::string Query(const ASDialect& dialect) const;

private:
    friend class ASSqlBuilder;
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

/// A sequence of sort keys; the first is the primary one. Nulls count as smaller than every value, texts order by
/// bytes, on every engine.
class QOR_API ASOrder {
public:
    explicit ASOrder(const ASAttribute& attribute);
    explicit ASOrder(const ASGroupAttribute& attribute);
    /// The same keys in descending order.
    ASOrder operator-() const;
    /// Appends less important keys.
    ASOrder& operator<<(const ASOrder& next);

private:
    friend class ASSqlBuilder;
    struct Key;
    std::vector<std::shared_ptr<const Key>> m_keys;
};

}  // namespace QOR
