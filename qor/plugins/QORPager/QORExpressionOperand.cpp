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
    for (std::size_t i = 0; i < left.text.size(); ++i) {
        if (inCase(left.text[i], left.textCase) != inCase(right.text[i], right.textCase)) return false;
    }
    return true;
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

void TTextBuffer::assign(std::string_view text, TTextCase textCase) {
    m_begin = m_end = 0;
    m_runs.clear();
    append(text, textCase);
}

void TTextBuffer::append(std::string_view text, TTextCase textCase) {
    if (text.empty()) return;
    if (text.size() > m_capacity - m_end) grow(0, text.size());
    std::memcpy(m_bytes.get() + m_end, text.data(), text.size());
    m_end += text.size();
    if (!m_runs.empty() && m_runs.back().textCase == textCase) {
        m_runs.back().length += text.size();
    } else {
        m_runs.push_back({text.size(), textCase});
    }
}

void TTextBuffer::prepend(std::string_view text, TTextCase textCase) {
    if (text.empty()) return;
    if (text.size() > m_begin) grow(text.size(), 0);
    m_begin -= text.size();
    std::memcpy(m_bytes.get() + m_begin, text.data(), text.size());
    if (!m_runs.empty() && m_runs.front().textCase == textCase) {
        m_runs.front().length += text.size();
    } else {
        m_runs.push_front({text.size(), textCase});
    }
}

void TTextBuffer::append(const TTextBuffer& other) {
    std::string_view text = other.view();
    for (const Run& run : other.m_runs) {
        append(text.substr(0, run.length), run.textCase);
        text.remove_prefix(run.length);
    }
}

void TTextBuffer::prepend(const TTextBuffer& other) {
    std::string_view text = other.view();
    for (auto run = other.m_runs.rbegin(); run != other.m_runs.rend(); ++run) {
        prepend(text.substr(text.size() - run->length), run->textCase);
        text.remove_suffix(run->length);
    }
}

void TTextBuffer::setCase(TTextCase textCase) {
    if (textCase == TTextCase::AsIs || m_runs.empty()) return;
    m_runs.clear();
    m_runs.push_back({m_end - m_begin, textCase});
}

void TTextBuffer::settle() noexcept {
    char* at = m_bytes.get() + m_begin;
    for (const Run& run : m_runs) {
        if (run.textCase == TTextCase::Upper) upperText(at, at + run.length);
        if (run.textCase == TTextCase::Lower) lowerText(at, at + run.length);
        at += run.length;
    }
    if (m_runs.size() > 1) m_runs.resize(1);
    if (!m_runs.empty()) m_runs.front() = {m_end - m_begin, TTextCase::AsIs};
}

void TTextPool::reset() noexcept {
    m_free.clear();
    m_used = 0;
}

void TTextPool::own(TOperand& operand) {
    if (operand.buffer != TOperand::noBuffer) {
        at(operand.buffer).setCase(operand.textCase);
    } else {
        if (!m_free.empty()) {
            operand.buffer = m_free.back();
            m_free.pop_back();
        } else {
            operand.buffer = static_cast<std::int32_t>(m_used);
            if (m_used == m_buffers.size()) m_buffers.emplace_back();
            ++m_used;
        }
        at(operand.buffer).assign(operand.text, operand.textCase);
        operand.text = at(operand.buffer).view();
    }
    operand.textCase = TTextCase::AsIs;
}

void TTextPool::release(const TOperand& operand) {
    if (operand.buffer != TOperand::noBuffer) m_free.push_back(operand.buffer);
}

void TTextPool::settle(TOperand& operand) {
    if (operand.buffer == TOperand::noBuffer && operand.textCase == TTextCase::AsIs) return;
    own(operand);
    at(operand.buffer).settle();
}

void TTextPool::append(TOperand& left, const TOperand& right) {
    own(left);
    if (right.buffer == TOperand::noBuffer) {
        at(left.buffer).append(right.text, right.textCase);
    } else {
        at(right.buffer).setCase(right.textCase);
        at(left.buffer).append(at(right.buffer));
    }
    left.text = at(left.buffer).view();
}

void TTextPool::prepend(const TOperand& left, TOperand& right) {
    own(right);
    if (left.buffer == TOperand::noBuffer) {
        at(right.buffer).prepend(left.text, left.textCase);
    } else {
        at(left.buffer).setCase(left.textCase);
        at(right.buffer).prepend(at(left.buffer));
    }
    right.text = at(right.buffer).view();
}

void TTextPool::concatenate(TOperand& left, TOperand& right) {
    // The shorter text moves, when the longer one is ours to change.
    const bool rightGrows = right.buffer != TOperand::noBuffer &&
                            (left.buffer == TOperand::noBuffer || left.text.size() < right.text.size());
    if (rightGrows) {
        prepend(left, right);
        release(left);
        left = right;
    } else {
        append(left, right);
        release(right);
    }
}

}  // namespace QOR
