#include "QORPager/QORExpressionOperand.h"

#include <algorithm>
#include <cstring>

#include "QORPager/QORExpressionText.h"

namespace QOR {
namespace {

char inCase(char ch, TTextCase textCase) noexcept {
    switch (textCase) {
        case TTextCase::Upper:
            return toUpperChar(ch);
        case TTextCase::Lower:
            return toLowerChar(ch);
        default:
            return ch;
    }
}

bool asIs(const TOperand& left, const TOperand& right) noexcept {
    return left.textCase == TTextCase::AsIs && right.textCase == TTextCase::AsIs;
}

}  // namespace

int compareTexts(const TOperand& left, const TOperand& right) noexcept {
    if (asIs(left, right)) return left.text.compare(right.text);
    const std::size_t common = std::min(left.text.size(), right.text.size());
    for (std::size_t i = 0; i < common; ++i) {
        const auto a = static_cast<unsigned char>(inCase(left.text[i], left.textCase));
        const auto b = static_cast<unsigned char>(inCase(right.text[i], right.textCase));
        if (a != b) return a < b ? -1 : 1;
    }
    if (left.text.size() == right.text.size()) return 0;
    return left.text.size() < right.text.size() ? -1 : 1;
}

bool equalTexts(const TOperand& left, const TOperand& right) noexcept {
    if (left.text.size() != right.text.size()) return false;
    if (asIs(left, right)) return left.text == right.text;
    return compareTexts(left, right) == 0;
}

void TTextBuffer::grow(std::size_t before, std::size_t after) {
    const std::size_t length = m_end - m_begin;
    // Half as much again as there is, on the side that was short: the other side keeps its room.
    const std::size_t roomBefore = before > m_begin ? before + length : m_begin;
    const std::size_t roomAfter = after > m_capacity - m_end ? after + length : m_capacity - m_end;
    const std::size_t capacity = roomBefore + length + roomAfter;
    auto bytes = std::make_unique<char[]>(capacity);
    if (length != 0) std::memcpy(bytes.get() + roomBefore, m_bytes.get() + m_begin, length);
    m_bytes = std::move(bytes);
    m_capacity = capacity;
    m_begin = roomBefore;
    m_end = roomBefore + length;
}

void TTextBuffer::assign(std::string_view text) {
    m_begin = m_end = 0;
    append(text);
}

void TTextBuffer::append(std::string_view text) {
    if (text.empty()) return;
    if (text.size() > m_capacity - m_end) grow(0, text.size());
    std::memcpy(m_bytes.get() + m_end, text.data(), text.size());
    m_end += text.size();
}

void TTextBuffer::prepend(std::string_view text) {
    if (text.empty()) return;
    if (text.size() > m_begin) grow(text.size(), 0);
    m_begin -= text.size();
    std::memcpy(m_bytes.get() + m_begin, text.data(), text.size());
}

void TTextPool::reset() noexcept {
    m_free.clear();
    m_used = 0;
}

std::int32_t TTextPool::take(std::string_view text) {
    std::int32_t buffer = 0;
    if (!m_free.empty()) {
        buffer = m_free.back();
        m_free.pop_back();
    } else {
        buffer = static_cast<std::int32_t>(m_used);
        if (m_used == m_buffers.size()) m_buffers.emplace_back();
        ++m_used;
    }
    at(buffer).assign(text);
    return buffer;
}

void TTextPool::release(const TOperand& operand) {
    if (operand.buffer != TOperand::noBuffer) m_free.push_back(operand.buffer);
}

TOperand TTextPool::keep(std::string_view text) {
    TOperand operand = TOperand::ofText(text);
    operand.buffer = take(text);
    operand.text = at(operand.buffer).view();
    return operand;
}

void TTextPool::settle(TOperand& operand) {
    if (operand.textCase == TTextCase::AsIs) return;
    if (operand.buffer == TOperand::noBuffer) {
        const TTextCase textCase = operand.textCase;
        operand = keep(operand.text);
        operand.textCase = textCase;
    }
    TTextBuffer& buffer = at(operand.buffer);
    (operand.textCase == TTextCase::Upper ? upperText : lowerText)(buffer.begin(), buffer.end());
    operand.textCase = TTextCase::AsIs;
}

void TTextPool::concatenate(TOperand& left, TOperand& right) {
    settle(left);
    settle(right);
    // The shorter text moves, when the longer one is ours to change.
    const bool leftGrows = left.buffer != TOperand::noBuffer &&
                           (right.buffer == TOperand::noBuffer || left.text.size() >= right.text.size());
    if (leftGrows) {
        at(left.buffer).append(right.text);
        release(right);
    } else if (right.buffer != TOperand::noBuffer) {
        at(right.buffer).prepend(left.text);
        release(left);
        left.buffer = right.buffer;
    } else {
        left.buffer = take(left.text);
        at(left.buffer).append(right.text);
    }
    left.text = at(left.buffer).view();
}

}  // namespace QOR
