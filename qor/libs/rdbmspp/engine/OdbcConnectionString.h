/// \file
/// An ODBC connection string taken apart.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "QORCommon/QORExport.h"

namespace QOR {

/// Names and values in their order; names compare without regard to case, the first of a name counts.
class QOR_API OdbcConnectionString {
public:
    /// Reads `name=value;...`; a value in braces may hold semicolons.
    explicit OdbcConnectionString(std::string_view text);

    bool has(std::string_view name) const;
    /// The value without braces, "" when there is none.
    std::string get(std::string_view name) const;
    /// Adds what the string does not say.
    void setDefault(std::string_view name, std::string_view value);
    void set(std::string_view name, std::string_view value);
    /// Takes a value out. \returns it, or `otherwise` when there is none
    std::string take(std::string_view name, std::string_view otherwise);
    std::string text() const;
    /// In their order.
    std::vector<std::string> names() const;

private:
    std::vector<std::pair<std::string, std::string>> m_parts;
};

}  // namespace QOR
