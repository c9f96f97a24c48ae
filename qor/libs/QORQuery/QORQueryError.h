/// \file
/// A mistake in a text that asks for rows.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

#include "QORCommon/QORExport.h"

namespace QOR {

/// What stands at the place of a mistake, for programs; empty where nobody can tell.
struct QORQueryDetail {
    std::string found{};       ///< as it is spelled; empty at the text's end too
    std::string expected{};    ///< in words
    std::string suggestion{};  ///< the nearest name that there is
};

/// What is wrong and where. The message says what was expected; it does not repeat the text.
class QOR_API QORQueryError : public std::runtime_error {
public:
    /// \param offset byte offset of the place in the text; the text's length stands for its end
    QORQueryError(std::size_t offset, const std::string& message, QORQueryDetail detail = {})
        : std::runtime_error(message), m_offset(offset), m_detail(std::move(detail)) {}
    std::size_t offset() const noexcept { return m_offset; }
    const QORQueryDetail& detail() const noexcept { return m_detail; }

private:
    std::size_t m_offset;
    QORQueryDetail m_detail;
};

}  // namespace QOR
