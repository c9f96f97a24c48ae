/// \file
/// What a vocabulary's categories may hold, as those tell it who read them: a plug-in registers its rules with its
/// operators. Constants of the plug-in, of use while it is loaded.
#pragma once

#include <span>
#include <string_view>

namespace QOR {

/// One value that a parameter may have.
struct QORVocValueRule {
    enum class Kind {
        Text,
        Integer,    ///< of 32 bits
        Word,       ///< one of `words`; any other is read as the first of them
        Reference,  ///< the identifier of a parameter of category `refersTo`
        Unique,     ///< a text that no other parameter of the category has
    };
    std::string_view key;
    Kind kind = Kind::Text;
    bool required = false;  ///< a parameter without it is passed over
    std::span<const std::string_view> words = {};
    std::string_view refersTo = {};
};

/// What the parameters of one category may hold.
struct QORVocCategoryRule {
    std::string_view name;
    std::span<const QORVocValueRule> values;  ///< in the order in which people are told of them
    std::span<const std::string_view> marks;  ///< attributes that count by being there
};

}  // namespace QOR
