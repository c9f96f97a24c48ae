/// \file
/// A mistake in a text that asks for rows.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "QORCommon/QORExport.h"

namespace QOR {

/// What is wrong and where. The message says what was expected; it does not repeat the text.
class QOR_API QORQueryError : public std::runtime_error {
public:
    /// \param offset byte offset of the place in the text; the text's length stands for its end
    QORQueryError(std::size_t offset, const std::string& message) : std::runtime_error(message), m_offset(offset) {}
    std::size_t offset() const noexcept { return m_offset; }

private:
    std::size_t m_offset;
};

}  // namespace QOR
