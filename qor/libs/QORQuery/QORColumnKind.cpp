#include "QORQuery/QORColumnKind.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "QORCommon/QORAscii.h"
#include "QORQuery/QORStoredForm.h"

namespace QOR {
namespace {

// What questions may do with a column, by the types that views tell. How a table's column is stored (QORSchemaTables)
// is told by the names that each engine has for types.
struct TypeKind {
    std::string_view type;
    QORColumnKind kind;
};

constexpr TypeKind kinds[] = {
    {"datetime", QORColumnKind::Time},    {"uniqueidentifier", QORColumnKind::Identifier},
    {"int", QORColumnKind::Integer},      {"bigint", QORColumnKind::Integer},
    {"smallint", QORColumnKind::Integer}, {"tinyint", QORColumnKind::Integer},
    {"bit", QORColumnKind::Integer},      {"float", QORColumnKind::Number},
    {"double", QORColumnKind::Number},    {"decimal", QORColumnKind::Number},
    {"text", QORColumnKind::Bytes},       {"image", QORColumnKind::Bytes},
    {"longblob", QORColumnKind::Bytes},   {"binary", QORColumnKind::Bytes},
};

}  // namespace

std::string_view wordOf(QORColumnKind kind) noexcept {
    constexpr std::array<std::string_view, 6> words{"text", "integer", "number", "time", "guid", "bytes"};
    return words[static_cast<std::size_t>(kind)];
}

QORColumnKind columnKindOf(std::string_view type) {
    const std::string name = typeName(type);
    const auto* const found =
        std::find_if(std::begin(kinds), std::end(kinds), [&](const TypeKind& each) { return each.type == name; });
    return found == std::end(kinds) ? QORColumnKind::Text : found->kind;
}

QORColumnKind columnKindOf(const QORQueryField& field, std::string_view type) {
    const QORColumnKind kind = columnKindOf(type);
    if (field.function.empty()) return kind;
    if (isSameWord(field.function, "count")) return QORColumnKind::Integer;
    const bool isAverage = isSameWord(aggregateName(field.function), "average");
    return kind == QORColumnKind::Integer && !isAverage ? kind : QORColumnKind::Number;
}

}  // namespace QOR
