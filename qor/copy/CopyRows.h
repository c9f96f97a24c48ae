/// \file
/// Rows on their way from one database to another, and their digest: every value as the text that it has in any engine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORDigest.h"

namespace QOR {

/// Some rows of a table. Numbers are in decimal digits, GUIDs and times in their stored form, bytes are themselves.
/// Values lie in one piece of memory, which clear() keeps.
class CopyRows {
public:
    explicit CopyRows(std::size_t columns) : m_columns(columns) {}

    /// Rows that are whole.
    std::size_t size() const noexcept { return m_ends.size() / m_columns; }
    std::size_t bytes() const noexcept { return m_text.size(); }
    /// Nothing for null; valid until the rows change.
    std::optional<std::string_view> value(std::size_t row, std::size_t column) const;
    /// The next value, row by row.
    void add(std::optional<std::string_view> value);
    void clear();

private:
    struct End {
        std::size_t at;
        bool null;
    };
    std::size_t m_columns;
    std::string m_text;
    std::vector<End> m_ends;  // of each value in the text
};

/// What a table holds, in as many bytes whatever it holds. Two tables with the same rows in the same order have the
/// same.
struct CopySum {
    std::uint64_t records = 0;
    std::string digest;

    friend bool operator==(const CopySum&, const CopySum&) = default;
};

/// Adds up rows, in the order of their keys.
class CopySumming {
public:
    explicit CopySumming(std::size_t columns) : m_columns(columns) {}

    void add(const CopyRows& rows);
    CopySum sum() { return {m_records, m_digest.hex()}; }

private:
    std::size_t m_columns;
    std::uint64_t m_records = 0;
    QORDigest m_digest;
    std::string m_text;
};

}  // namespace QOR
