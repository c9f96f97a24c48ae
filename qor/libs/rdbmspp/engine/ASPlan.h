/// \file
/// What an engine says that it would do for a select, without doing it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "rdbmspp/engine/ASEngine.h"

namespace QOR {

/// A value.
struct QOR_API ASPlan {
    std::string sql;                      ///< as it would be run: `?` in the places of values
    std::vector<std::string> parameters;  ///< these in their order, as literals
    std::vector<std::string> steps;       ///< the engine's own words, a line each, blanks in front of what is within
    std::optional<std::int64_t> rows{};   ///< that the engine expects; nothing where it does not say
    bool seeks = false;                   ///< an index finds the rows of the select itself: none reads all of a table
    bool sorts = false;  ///< rows are sorted once they are read, all of them and not only those that are equal so far
    bool isElsewhere = false;  ///< rows are asked for at other servers, of whose work nothing is told

    /// What the engine's own words stand behind.
    static std::string_view command(ASEngine engine) noexcept;
    /// Takes one line of what the command answers. \param depth of the step below others, of an engine that tells it
    /// beside the line
    void add(ASEngine engine, std::string_view line, std::size_t depth);

private:
    void addSqlite(std::string_view line, std::size_t depth);
    void addPostgres(std::string_view line);

    bool m_scans = false;
    bool m_sortedBefore = false;  ///< whether it sorts beside the step that was told last
    bool m_within = false;        ///< the lines are those of a select within
};

}  // namespace QOR
