#include "QORMessage/QORMessageNames.h"

namespace QOR {

QORTag QORMessageNames::find(std::string_view name) const noexcept {
    const auto found = m_numbers.find(name);
    return found == m_numbers.end() ? 0 : found->second;
}

QORTag QORMessageNames::add(std::string_view name) {
    const QORTag id = tag::firstOfMessage + static_cast<QORTag>(m_names.size());
    m_numbers.emplace(m_names.emplace_back(name), id);
    return id;
}

std::string_view QORMessageNames::name(QORTag id) const noexcept {
    const std::size_t index = id - tag::firstOfMessage;
    return id >= tag::firstOfMessage && index < m_names.size() ? m_names[index] : std::string_view();
}

void QORMessageNames::clear() noexcept {
    m_numbers.clear();
    m_names.clear();
}

}  // namespace QOR
