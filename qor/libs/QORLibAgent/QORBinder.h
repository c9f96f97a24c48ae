/// \file
/// Parameters in the host's own statements, in the forms in which its tables hold them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "QORCommon/QORGuid.h"
#include "QORCommon/QORTime.h"
#include "rdbmspp/pool/QORRdbms.h"

namespace QOR {

/// Gives a statement its parameters in order, from the first one on. Each binds one; what is absent is null. Refers to
/// the statement, which must outlive it; one thread. \throws AException as the statement does
class QORBinder {
public:
    explicit QORBinder(ASStatement& statement) : m_statement(statement) {}

    QORBinder& text(std::string_view value) {
        m_statement.bind(++m_index, value);
        return *this;
    }
    QORBinder& text(const std::optional<std::string>& value) { return value ? text(std::string_view(*value)) : null(); }
    QORBinder& text(const std::string& value) { return text(std::string_view(value)); }
    QORBinder& integer(std::int64_t value) {
        m_statement.bind(++m_index, value);
        return *this;
    }
    QORBinder& integer(const std::optional<std::int64_t>& value) { return value ? integer(*value) : null(); }
    QORBinder& eid(const QORGUIDBase& value) { return value.isValid() ? text(value.toString()) : null(); }
    QORBinder& time(std::int64_t seconds) { return text(time2dbstr(seconds)); }
    QORBinder& time(const std::optional<std::int64_t>& seconds) { return seconds ? time(*seconds) : null(); }
    QORBinder& bytes(const std::optional<std::string>& value) {
        if (!value) return null();
        m_statement.bindBinary(++m_index, *value);
        return *this;
    }
    QORBinder& null() {
        m_statement.bindNull(++m_index);
        return *this;
    }

private:
    ASStatement& m_statement;
    unsigned m_index = 0;
};

}  // namespace QOR
