/// \file
/// How qorctl ends, and the one exception that carries it to main.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace QOR {

/// Contract: scripts look at these.
enum class CtlExit : int {
    Done = 0,
    AnsweredError = 1,  ///< the agent answered with an error, or refused a part of what it was given
    BadUsage = 2,
    NoConnection = 3,
    Interrupted = 130,  ///< by Ctrl-C; as shells tell it
};

/// Ends the command. The text goes to stderr as it stands, behind "qorctl: ".
class CtlError : public std::runtime_error {
public:
    CtlError(CtlExit exit, const std::string& text) : CtlError(exit, 0, text) {}
    CtlExit exit() const noexcept { return m_exit; }
    /// Of an error that was answered; 0 for any other.
    int code() const noexcept { return m_code; }

    static CtlError usage(const std::string& text) { return {CtlExit::BadUsage, text}; }
    static CtlError noConnection(const std::string& text) { return {CtlExit::NoConnection, text}; }
    /// An error that was answered: "error 400: ...".
    static CtlError answered(int code, const std::string& message) {
        return {CtlExit::AnsweredError, code, "error " + std::to_string(code) + ": " + message};
    }

    /// The same with lines behind it that help; itself where there are none.
    CtlError advised(const std::string& lines) const {
        return lines.empty()
                   ? *this
                   : CtlError(m_exit, m_code,
                              what() + std::string(std::string_view(what()).ends_with('\n') ? "" : "\n") + lines);
    }

private:
    CtlError(CtlExit exit, int code, const std::string& text) : std::runtime_error(text), m_exit(exit), m_code(code) {}

    CtlExit m_exit;
    int m_code;
};

/// Nobody reads the output any more. Not an error: the command ends quietly.
class BrokenPipe : public std::exception {};

}  // namespace QOR
