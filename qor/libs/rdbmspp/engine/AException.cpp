#include "rdbmspp/engine/AException.h"

#include <utility>

#include "QORCommon/QORNulBytes.h"
#include "QORCommon/QORRequestControl.h"

namespace QOR {

AException::AException(std::string text, std::string sqlState, int nativeCode, std::string statement, ASFailure failure)
    : m_text(withoutNuls(std::move(text))),
      m_sqlState(std::move(sqlState)),
      m_nativeCode(nativeCode),
      m_statement(std::move(statement)),
      m_failure(failure) {
    QORRequestControl* const control = isOutage(failure) ? QORRequestControl::current() : nullptr;
    if (control != nullptr) control->noteOutage();
}

AException::AException(const AException&) = default;

AException::~AException() = default;

}  // namespace QOR
