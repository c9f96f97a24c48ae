/// \file
/// ASTable: a view or table whose columns the program knows by name. Each column is one member of a derived class:
///
///     struct Hosts : ASTable {
///         Hosts() : ASTable(std::make_shared<ASDomain>("vHosts", "")) {}
///         ASColumn<ASVStr> name{*this, "name", 65};
///         ASColumn<ASInt> state{*this, "state"};
///     };
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "rdbmspp/sql/ASAttribute.h"
#include "rdbmspp/sql/ASData.h"
#include "rdbmspp/sql/ASSelect.h"

namespace QOR {

/// Holds the data objects that a cursor fetches into; used by one thread at a time.
class ASTable {
public:
    ASTable(const ASTable&) = delete;
    ASTable& operator=(const ASTable&) = delete;

    const ASDomainPtr& domain() const noexcept { return m_domain; }
    /// Projects all columns, in the order in which they are declared.
    void selectAll(ASProject& project) const {
        for (const ASAttribute& column : m_columns)
            project << column;
    }

protected:
    explicit ASTable(ASDomainPtr domain) : m_domain(std::move(domain)) {}
    ~ASTable() = default;

private:
    template <class Data>
    friend class ASColumn;
    ASDomainPtr m_domain;
    std::vector<ASAttribute> m_columns;
};

/// One of its columns: an attribute where conditions and orders want one, `->` the value that was fetched.
template <class Data>
class ASColumn {
public:
    /// \param arguments what the data object is made with
    template <class... Arguments>
    ASColumn(ASTable& table, const char* name, Arguments... arguments)
        : m_data(std::make_shared<Data>(arguments...)), m_attribute(name, m_data->type()) {
        m_attribute.Register(m_data, table.domain());
        table.m_columns.push_back(m_attribute);
    }

    operator const ASAttribute&() const noexcept { return m_attribute; }
    const ASAttribute& attribute() const noexcept { return m_attribute; }
    const Data* operator->() const noexcept { return m_data.get(); }

private:
    std::shared_ptr<Data> m_data;
    ASAttribute m_attribute;
};

}  // namespace QOR
