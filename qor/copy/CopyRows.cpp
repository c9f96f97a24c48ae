#include "copy/CopyRows.h"

namespace QOR {

std::optional<std::string_view> CopyRows::value(std::size_t row, std::size_t column) const {
    const std::size_t index = row * m_columns + column;
    if (m_ends[index].null) return std::nullopt;
    const std::size_t begin = index == 0 ? 0 : m_ends[index - 1].at;
    return std::string_view(m_text).substr(begin, m_ends[index].at - begin);
}

void CopyRows::add(std::optional<std::string_view> value) {
    if (value) m_text += *value;
    m_ends.push_back({m_text.size(), !value});
}

void CopyRows::clear() {
    // One large document should not keep its memory until the end.
    constexpr std::size_t mostKept = std::size_t{16} << 20;
    m_text.clear();
    if (m_text.capacity() > mostKept) m_text.shrink_to_fit();
    m_ends.clear();
}

// Each value behind its length, so that no two rows give the same text.
void CopySumming::add(const CopyRows& rows) {
    m_text.clear();
    for (std::size_t row = 0; row < rows.size(); ++row) {
        for (std::size_t column = 0; column < m_columns; ++column) {
            const auto value = rows.value(row, column);
            m_text += value ? std::to_string(value->size()) : "-";
            m_text += ':';
            if (value) m_text += *value;
        }
    }
    m_digest.add(m_text);
    m_records += rows.size();
}

}  // namespace QOR
