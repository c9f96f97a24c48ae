/// \file
/// The sources of operator "pager", as data: what each is called, which names are its own, and what it takes from a
/// filter. The operator reads this table, and so does whoever explains its requests, checks them or lists their fields;
/// a name that a source looks for stands here and nowhere else.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include "QORPager/QORExpressionToken.h"
#include "QORPager/QORFieldTypes.h"

namespace QOR {

/// What a constant of a filter is to the source that takes it.
enum class QORConstantUse {
    Unit,         ///< the unit that environments belong to
    Environment,  ///< whose records, by the environment's identifier
    Storage,      ///< where backups are, by the storage's identifier
    Latest,       ///< bounds of the time
    Earliest,
    Name,  ///< patterns
    HostName,
    Container,  ///< a parameter of the info document, whole
    Address,    ///< a part of one
};

/// How the constants of one source go together.
enum class QORConstantTurn {
    Always,       ///< counts whatever else is there
    Alternative,  ///< the first of these that a filter holds counts, and none of the others
    Last,         ///< count together when a filter holds no alternative
};

/// A constant that a source takes from a filter: what a name is compared with under an operator.
struct QORSourceConstant {
    std::string_view name;
    TTokenType operation;
    QORConstantUse use;
    std::string_view meaning;  ///< for people
    QORConstantTurn turn = QORConstantTurn::Always;
};

/// A category of records, and how a filter asks for it: by the text as it stands, blanks included.
struct QORSourceCategory {
    std::string_view name;
    std::string_view filterText;
};

/// A field, and what it is called in the view over the same records.
struct QORSourceColumn {
    std::string_view field;
    std::string_view column;
};

/// Where rows come from. Constants of the program.
struct QORSource {
    TCursorType cursorType;
    std::string_view title;    ///< "operation log"
    std::string_view noun;     ///< the same in a sentence: "the operation log"
    std::string_view records;  ///< what its rows are: "operations"
    std::string_view view;     ///< over the same records; it sorts and filters by every column
    /// How the names of its fields begin.
    std::string_view namePrefix;
    /// Every name that begins so is a field, a parameter of the record's info document; empty for none.
    std::string_view parameterPrefix;
    /// The prefix is there because the configuration that is shipped says so, in the category of caches.
    bool prefixIsConfigured;
    /// Whether it has rows of its own; otherwise its fields stand beside those of others.
    bool hasRows;
    /// Whether size and offset of a page apply.
    bool hasPages;
    /// Its database compares texts without regard to case, so that it reads filters by withoutLower().
    bool ignoresCase;
    std::span<const QORSourceConstant> constants;   ///< in the order in which they are looked for
    std::span<const QORSourceCategory> categories;  ///< in the order of the rows; without any, rows have none
    std::span<const QORSourceColumn> columns;
    /// Names without the prefix of what is shown where nobody says what, with commas between them.
    std::string_view shown;

    /// The constant of that use. \pre there is one
    const QORSourceConstant& constant(QORConstantUse use) const noexcept;
    /// Whether the name is one of its parameters' names.
    bool isParameter(std::string_view name) const noexcept {
        return !parameterPrefix.empty() && name.starts_with(parameterPrefix);
    }
};

/// All of them, in the order in which they are shown.
std::span<const QORSource> pagerSources() noexcept;
/// The source of fields of a type.
const QORSource& sourceOf(TCursorType type) noexcept;

/// The length of the longest title, for those who set them in a column.
std::size_t longestSourceTitle() noexcept;

/// The filter as a source reads it that ignores case: without the word "lower", so that lowering an operand is a
/// bracket around it. One pass from left to right: what becomes the word by it stays.
std::string withoutLower(std::string_view filter);

}  // namespace QOR
