/// \file
/// Columns with receivers, what they receive, and what a call fails with.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rdbmspp/pool/QORRdbms.h"
#include "rdbmspp/sql/ASCursor.h"

namespace QOR::test {

/// The text of the AException that the call throws.
template <class Call>
std::string failure(Call call) {
    try {
        call();
    } catch (const AException& error) {
        return error.text();
    }
    return "(no failure)";
}

/// A column with its receiver.
struct Column {
    ASAttribute attribute;
    ASDataPtr data;
};

inline ASDataPtr makeData(ASType type) {
    switch (type) {
        case ASType::Int:
            return std::make_shared<ASInt>();
        case ASType::BigInt:
            return std::make_shared<ASInt64>();
        case ASType::Double:
            return std::make_shared<ASDouble>();
        case ASType::Guid:
            return std::make_shared<ASGuid>();
        case ASType::DateTime:
            return std::make_shared<ASTime>();
        case ASType::Blob:
            return std::make_shared<ASRealBlob>();
        case ASType::Char:
            return std::make_shared<ASStr>(21);
        case ASType::VarChar:
            break;
    }
    return std::make_shared<ASVStr>(21);
}

inline ASDomainPtr domainOf(const std::string& view) {
    return std::make_shared<ASDomain>(view, "");
}

inline Column column(const ASDomainPtr& domain, const std::string& name, ASType type = ASType::VarChar) {
    Column made{ASAttribute(name, type), makeData(type)};
    made.attribute.Register(made.data, domain);
    return made;
}

/// A cell as text; "<null>" for null.
inline std::string cell(const ASData& data) {
    return data.isNull() ? "<null>" : data.Str();
}

/// All rows of one column, or of an aggregate.
template <class Selected>
std::vector<std::string> select(const Selected& what, const ASComparison& condition = {},
                                const std::vector<ASOrder>& order = {}, std::int32_t limit = 0,
                                std::int32_t offset = 0) {
    QORRdbmsTran transaction(ASAccess::ReadOne);
    ASCursor cursor(*transaction);
    cursor.Filter().Project() << what;
    if (!condition.empty()) cursor.Filter().Set(condition);
    if (!order.empty()) cursor.Order(order.front());
    if (limit > 0) cursor.Limit(limit, offset);
    std::vector<std::string> rows;
    while (cursor.Fetch())
        rows.push_back(cell(*what.data()));
    return rows;
}

}  // namespace QOR::test
