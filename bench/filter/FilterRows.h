/// \file
/// The rows that the filter benchmarks select from, and the filters.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QOR::bench {

/// One row as its fields give it: texts.
struct TextRow {
    std::string_view hostname;
    std::string_view os;
    std::string_view state;
    std::string_view memory;
};

/// One row with its numbers read.
struct TypedRow {
    std::string_view hostname;
    std::string_view os;
    std::int32_t state;
    std::int32_t memory;
};

/// A filter in the language of the benchmarked contenders.
struct Filter {
    const char* name;
    const char* text;                      ///< for the evaluator
    const char* sql;                       ///< a condition on the columns of a table
    const char* parameters;                ///< the same on parameters, named like the columns
    bool (*lambda)(const TypedRow& row);   ///< the same by hand
    std::vector<std::string_view> fields;  ///< what is bound
};

class FilterRows {
public:
    /// The same rows for the same count.
    explicit FilterRows(std::size_t count);
    FilterRows(const FilterRows&) = delete;
    FilterRows& operator=(const FilterRows&) = delete;

    std::size_t size() const noexcept { return m_places.size(); }
    const TypedRow& typed(std::size_t row) const noexcept { return m_typed[row]; }
    TextRow texts(std::size_t row) const noexcept {
        const Place& place = m_places[row];
        std::string_view rest = std::string_view(m_bytes).substr(place.begin);
        const auto next = [&rest](std::size_t length) {
            const std::string_view text = rest.substr(0, length);
            rest.remove_prefix(length);
            return text;
        };
        // In the order in which a list is evaluated, which is from left to right.
        return TextRow{next(place.lengths[0]), next(place.lengths[1]), next(place.lengths[2]), next(place.lengths[3])};
    }

private:
    /// Where the texts of a row are, one behind the other.
    struct Place {
        std::uint32_t begin;
        std::array<std::uint8_t, 4> lengths;
    };

    std::string m_bytes;
    std::vector<Place> m_places;
    std::vector<TypedRow> m_typed;
};

const std::array<Filter, 3>& filters();

/// A number that two selections share only if they hold the same rows in the same order.
class Selection {
public:
    void add(std::size_t row) noexcept { m_digest = (m_digest ^ row) * 0x100000001b3ULL, ++m_count; }
    std::size_t count() const noexcept { return m_count; }
    friend bool operator==(const Selection&, const Selection&) = default;

private:
    std::uint64_t m_digest = 0xcbf29ce484222325ULL;
    std::size_t m_count = 0;
};

}  // namespace QOR::bench
