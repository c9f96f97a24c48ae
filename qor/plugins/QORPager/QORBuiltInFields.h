/// \file
/// The fields that "pager" always has, as data.
#pragma once

#include <span>
#include <string_view>

#include "QORPager/QORField.h"

namespace QOR {

/// One built-in field. Value name and cache name are empty for all of them.
struct QORBuiltInField {
    std::string_view name;
    TCursorType cursorType;
    QORFieldGetter getter;
    TValueType valueType = TValueType::String;
    FieldStructType structType = FieldStructType::Single;
    bool providerBound = false;  ///< the field holds the field set's access provider
    std::string_view path = {};
};

/// All of them, in the order in which they are registered.
std::span<const QORBuiltInField> builtInFields() noexcept;

}  // namespace QOR
