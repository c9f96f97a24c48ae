#include "QORCommon/QORException.h"

#include <utility>

#include "QORCommon/QORNulBytes.h"

namespace QOR {

QORException::QORException(int code, std::string message, const char* sourcePath, int line)
    : m_code(code),
      m_message(withoutNuls(std::move(message))),
      m_sourcePath(sourcePath == nullptr ? "" : sourcePath),
      m_line(line) {}

QORException::QORException(const QORException&) = default;

QORException::~QORException() = default;

void throwException(int code, std::string message, const char* sourcePath, int line) {
    throw QORException(code, std::move(message), sourcePath, line);
}

}  // namespace QOR
