#include "QORMessage/QORAnswer.h"

#include <utility>

#include "QORCommon/QORException.h"
#include "QORCommon/QORNumbers.h"

namespace QOR {
namespace {

const QORMessageNode* childWith(const QORMessageNode& node, QORTag id) noexcept {
    const QORMessageNode* child = node.firstChild;
    while (child != nullptr && child->tag != id)
        child = child->next;
    return child;
}

std::string_view valueOf(const QORMessageNode& node, QORTag id) noexcept {
    const QORMessageNode* const child = childWith(node, id);
    return child == nullptr ? std::string_view() : std::string_view(child->data, child->size);
}

/// The element behind `node` in the order of the notation; null at the end.
const QORMessageNode* nextOf(const QORMessageNode* node) noexcept {
    if (node->firstChild != nullptr) return node->firstChild;
    while (node != nullptr && node->next == nullptr)
        node = node->parent;
    return node == nullptr ? nullptr : node->next;
}

}  // namespace

QORAnswerFormat::~QORAnswerFormat() = default;

bool holdsErrorCode(const QORMessageNode& node) noexcept {
    return childWith(node, tag::errorCode) != nullptr;
}

bool findError(const QORMessage& message, QORAnswerError& error) {
    for (const QORMessageNode* node = message.rootNode(); node != nullptr; node = nextOf(node)) {
        if (!isErrorEntry(*node)) continue;
        error.code = parseInt32(valueOf(*node, tag::errorCode)).value_or(errFailure);
        error.message = valueOf(*node, tag::message);
        return true;
    }
    return false;
}

QORAnswerWriter::QORAnswerWriter(QORMessage& message, QORAnswerFormat& format, AfterRow afterRow)
    : m_message(message), m_format(format), m_afterRow(std::move(afterRow)) {
    m_message.setRowTaker(this);
}

QORAnswerWriter::~QORAnswerWriter() {
    // What is still open was not asked for any more.
    m_afterRow = nullptr;
    m_message.setRowTaker(nullptr);
}

bool QORAnswerWriter::takeRow(const QORMessageNode& row) noexcept {
    return take([&] {
        giveUpTo(*row.parent, &row);
        m_format.child(row);
    });
}

bool QORAnswerWriter::takeValues(const QORMessageNode& rowSet, std::span<const QORRowValue> values) noexcept {
    return take([&] {
        giveUpTo(rowSet, nullptr);
        m_format.row(values);
    });
}

template <class Give>
bool QORAnswerWriter::take(Give give) noexcept {
    if (m_afterRow == nullptr || m_failure) return false;
    try {
        give();
        ++m_rows;
        return m_afterRow(m_rows);
    } catch (...) {
        m_failure = std::current_exception();
        return false;
    }
}

void QORAnswerWriter::giveUpTo(const QORMessageNode& rowSet, const QORMessageNode* row) {
    if (!m_open || m_rowSet != &rowSet) open(rowSet);
    giveChildren(row);
}

void QORAnswerWriter::open(const QORMessageNode& rowSet) {
    if (m_open) close();
    giveElements(&rowSet);
    m_beforeRows = std::exchange(m_lastElement, &rowSet);
    m_rowSet = &rowSet;
    m_lastChild = nullptr;
    m_open = true;
    m_format.openRows(rowSet);
}

void QORAnswerWriter::giveChildren(const QORMessageNode* until) {
    const QORMessageNode* child = m_lastChild == nullptr ? m_rowSet->firstChild : m_lastChild->next;
    for (; child != until; child = child->next) {
        if (!isErrorEntry(*child)) m_format.child(*child);
        m_lastChild = child;
    }
}

void QORAnswerWriter::giveElements(const QORMessageNode* until) {
    const QORMessageNode* element = m_lastElement == nullptr ? m_message.rootNode()->firstChild : m_lastElement->next;
    for (; element != until; element = element->next) {
        m_lastElement = element;
        if (!isErrorEntry(*element)) giveElement(*element);
    }
}

void QORAnswerWriter::giveElement(const QORMessageNode& element) {
    if (element.tag != tag::rowSet || element.kind != QORValueKind::None) {
        m_format.element(element);
        return;
    }
    m_rowSet = &element;
    m_lastChild = nullptr;
    m_open = true;
    m_format.openRows(element);
    close();
}

void QORAnswerWriter::close() {
    giveChildren(nullptr);
    m_format.closeRows();
    m_open = false;
}

bool QORAnswerWriter::isTakenBack() const noexcept {
    if (m_rows == 0) return false;
    const QORMessageNode* element = m_message.rootNode()->firstChild;
    while (element != nullptr && element != m_rowSet)
        element = element->next;
    return element == nullptr;
}

void QORAnswerWriter::finish(const QORAnswerError* error) {
    m_message.setRowTaker(nullptr);
    if (m_failure) std::rethrow_exception(m_failure);
    QORAnswerError own;
    if (error == nullptr && findError(m_message, own)) error = &own;
    if (isTakenBack()) {
        if (m_open) m_format.closeRows();
        m_lastElement = m_beforeRows;
    } else if (m_open) {
        close();
    }
    giveElements(nullptr);
    m_format.end(error);
}

}  // namespace QOR
