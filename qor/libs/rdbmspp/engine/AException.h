/// \file
/// AException: a failure of the database or of the layer that talks to it.
#pragma once

#include <exception>
#include <string>
#include <utility>

#include "QORCommon/QORExport.h"
#include "rdbmspp/engine/ASFailure.h"

namespace QOR {

/// What went wrong, as the driver told it. Immutable, copyable. The request of the thread that makes one is told of
/// outages, which who answers it has no other way to know: operators turn failures into texts.
class QOR_API AException : public std::exception {
public:
    /// \param text the driver's text, or ours
    /// \param sqlState five characters, empty when the failure is ours
    /// \param nativeCode the engine's own code
    /// \param statement the text that was being prepared or run, empty when there is none
    /// \param failure what it means
    AException(std::string text, std::string sqlState = {}, int nativeCode = 0, std::string statement = {},
               ASFailure failure = ASFailure::Statement);
    AException(const AException&);
    ~AException() override;

    /// The text; the statement is not part of it, because it may hold a client's literals.
    const char* what() const noexcept override { return m_text.c_str(); }
    const std::string& text() const noexcept { return m_text; }
    const std::string& sqlState() const noexcept { return m_sqlState; }
    int nativeCode() const noexcept { return m_nativeCode; }
    const std::string& statement() const noexcept { return m_statement; }
    ASFailure failure() const noexcept { return m_failure; }
    /// The same failure in other words.
    AException reworded(std::string text) const {
        return {std::move(text), m_sqlState, m_nativeCode, m_statement, m_failure};
    }

private:
    std::string m_text;
    std::string m_sqlState;
    int m_nativeCode;
    std::string m_statement;
    ASFailure m_failure;
};

}  // namespace QOR
