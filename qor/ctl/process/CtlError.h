/// \file
/// How qorctl ends, and the one exception that carries it to main.
#pragma once

#include <stdexcept>
#include <string>

namespace QOR {

/// Contract: scripts look at these.
enum class QORCtlExit : int {
    Done = 0,
    AnsweredError = 1,  ///< the agent answered with an error, or refused a part of what it was given
    BadUsage = 2,
    NoConnection = 3,
};

/// Ends the command. The text goes to stderr as it stands, behind "qorctl: ".
class QORCtlError : public std::runtime_error {
public:
    QORCtlError(QORCtlExit exit, const std::string& text) : std::runtime_error(text), m_exit(exit) {}
    QORCtlExit exit() const noexcept { return m_exit; }

    static QORCtlError usage(const std::string& text) { return {QORCtlExit::BadUsage, text}; }
    static QORCtlError noConnection(const std::string& text) { return {QORCtlExit::NoConnection, text}; }
    /// An error that was answered: "error 400: ...".
    static QORCtlError answered(int code, const std::string& message) {
        return {QORCtlExit::AnsweredError, "error " + std::to_string(code) + ": " + message};
    }

private:
    QORCtlExit m_exit;
};

/// Nobody reads the output any more. Not an error: the command ends quietly.
class QORBrokenPipe : public std::exception {};

}  // namespace QOR
