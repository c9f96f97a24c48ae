#include "QORFunctionality/QOROperator.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "QORCommon/QORException.h"
#include "QORFunctionality/QORAccess.h"

namespace QOR {

namespace {

/// The format for a code that a table lacks: its one argument is the whole text.
constexpr const char* bareArgument = "%s";

std::string formatText(const char* format, std::va_list arguments) {
    std::array<char, 512> buffer{};
    std::va_list again;
    va_copy(again, arguments);
// The formats come from error tables, which are constants of the program.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int size = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
    std::string text;
    if (size > 0 && static_cast<std::size_t>(size) < buffer.size()) {
        text.assign(buffer.data(), static_cast<std::size_t>(size));
    } else if (size > 0) {
        text.resize(static_cast<std::size_t>(size) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.resize(static_cast<std::size_t>(size));
    }
#pragma GCC diagnostic pop
    va_end(again);
    return text;
}

}  // namespace

QOROperatorPrototype::~QOROperatorPrototype() = default;

QOROperatorFunctionalPrototype::~QOROperatorFunctionalPrototype() = default;

void QOROperatorFunctionalPrototype::registerMethods(const MethodDescriptor* table) {
    for (; *table->name != '\0'; ++table)
        m_methods.insert_or_assign(table->name, *table);
}

int QOROperatorFunctionalPrototype::call(const std::string& requestName, QORMessageIterator* request,
                                         QORMessageIterator* response) {
    const auto found = m_methods.find(requestName);
    if (found == m_methods.end()) return -1;
    try {
        (this->*found->second.handler)(request, response);
    } catch (const QORException& exception) {
        // Handlers answer their failures themselves; what still gets here must not take the host down.
        addError(response, QORErrors, exception.code(), exception.message().c_str());
    } catch (const std::exception& exception) {
        addError(response, QORErrors, errFailure, exception.what());
    }
    return 0;
}

void QOROperatorFunctionalPrototype::addError(QORMessageIterator* response, const QORErrorTable& table, int code, ...) {
    const auto found = table.find(code);
    std::va_list arguments;
    va_start(arguments, code);
    const std::string text = formatText(found != table.end() ? found->second : bareArgument, arguments);
    va_end(arguments);
    const auto entry = response->clone();
    if (entry->addChild(tag::error) != 0) return;
    entry->putInt(code, tag::errorCode);
    entry->putValue(text, tag::message);
}

QOROperatorAsyncPrototype::QOROperatorAsyncPrototype() = default;
QOROperatorAsyncPrototype::~QOROperatorAsyncPrototype() = default;

QORPtr<QORLocalAccess> QOROperatorAsyncPrototype::getLocalAccess() {
    if (!m_localAccess) m_localAccess = makeQORPtr<QORLocalAccess>(getName());
    return m_localAccess;
}

void QOROperatorAsyncPrototype::disconnect(QORAccesserPrototype* accesser) {
    m_localAccess.reset();
    QOROperatorFunctionalPrototype::disconnect(accesser);
}

}  // namespace QOR
