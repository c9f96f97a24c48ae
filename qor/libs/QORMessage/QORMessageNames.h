/// \file
/// Names of elements that only one message knows.
#pragma once

#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORTags.h"

namespace QOR {

/// Numbers for the names that data brings: parameters of documents, members of configurations. The dictionary of the
/// process does not grow by them, so the numbers, from tag::firstOfMessage up, mean nothing outside their message.
/// Used by one thread at a time.
class QOR_API QORMessageNames {
public:
    /// The number of a name that was added, 0 for any other.
    QORTag find(std::string_view name) const noexcept;
    /// Gives a name, which has none yet, the next number.
    QORTag add(std::string_view name);
    /// The name of a number, empty when it has none. Valid until clear().
    std::string_view name(QORTag id) const noexcept;
    void clear() noexcept;

private:
    std::deque<std::string> m_names;
    std::unordered_map<std::string_view, QORTag> m_numbers;
};

}  // namespace QOR
