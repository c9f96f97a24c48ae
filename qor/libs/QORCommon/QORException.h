/// \file
/// QORException: the host's error object, thrown where a request cannot be answered and turned into an error entry
/// of the response at one place, the operator's handler.
#pragma once

#include <exception>
#include <string>

#include "QORCommon/QORExport.h"

namespace QOR {

/// General error codes of the host; the texts are in QORErrors (QORFunctionality/QORErrors.h).
enum QORErrorCode : int {
    errFailure = 1,       ///< a look-up or an internal step failed; the message is the whole text
    errBadRequest = 400,  ///< the request is malformed; the message says where
    errNoEnvCache = 420,  ///< the environment cache is not available
};

/// An error with a code for programs and a message for people. Immutable; copyable and safe to rethrow anywhere.
class QOR_API QORException : public std::exception {
public:
    /// \param code one of the host's or an operator's error codes
    /// \param message what went wrong, naming the offending name or value as the caller spelled it
    /// \param sourcePath the source unit that complains, without extension; a string literal, not copied
    /// \param line the line in that unit
    QORException(int code, std::string message, const char* sourcePath = "", int line = 0);
    QORException(const QORException&);
    QORException& operator=(const QORException&) = default;
    ~QORException() override;

    int code() const noexcept { return m_code; }
    const std::string& message() const noexcept { return m_message; }
    const char* sourcePath() const noexcept { return m_sourcePath; }
    int line() const noexcept { return m_line; }
    /// The message alone.
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    int m_code;
    std::string m_message;
    const char* m_sourcePath;
    int m_line;
};

/// The error-raising helper of the host: logs nothing, throws a QORException.
[[noreturn]] QOR_API void throwException(int code, std::string message, const char* sourcePath, int line);

}  // namespace QOR
