/// \file
/// Internal: what selects of whole numbers gave while the database was in one state.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace QOR {

/// Of one connection. A few short selects, those that came last; what was known of a former state is forgotten.
class ASKnownNumbers {
public:
    using Numbers = std::vector<std::int64_t>;

    /// Null where they are not known. Valid until the next keep().
    const Numbers* find(std::uint32_t state, std::string_view sql) const noexcept {
        if (state != m_state) return nullptr;
        const auto known =
            std::find_if(m_selects.begin(), m_selects.end(), [&](const auto& one) { return one.first == sql; });
        return known == m_selects.end() ? nullptr : &known->second;
    }
    /// \pre they are not known
    void keep(std::uint32_t state, std::string_view sql, const Numbers& numbers) {
        if (state != m_state) m_selects.clear();
        m_state = state;
        if (sql.size() > longest) return;
        if (m_selects.size() == most) m_selects.erase(m_selects.begin());
        m_selects.emplace_back(sql, numbers);
    }

private:
    static constexpr std::size_t most = 8;
    static constexpr std::size_t longest = std::size_t{4} << 10;

    std::uint32_t m_state = 0;
    std::vector<std::pair<std::string, Numbers>> m_selects;
};

}  // namespace QOR
