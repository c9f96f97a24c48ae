/// \file
/// Operands of compiled filters: values in place of objects, and the texts that operations make.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string_view>
#include <vector>

#include "QORPager/QORExpressionEvaluationValue.h"

namespace QOR {

/// A case that a text is to be read in. Applied only where the bytes are needed, so that upper(x) = 'Y' copies nothing.
enum class TTextCase : std::uint8_t { AsIs, Upper, Lower };

/// A value: an integer or a boolean in place, or a view of a text. The text belongs to a token, to a bound value, or to
/// a buffer of the pool that made it.
struct TOperand {
    static constexpr std::int32_t noBuffer = -1;

    TValueType type = TValueType::Invalid;
    TTextCase textCase = TTextCase::AsIs;
    std::int32_t number = 0;  ///< of an integer its value, of a boolean 0 or 1
    std::int32_t buffer = noBuffer;
    std::string_view text;

    static TOperand ofInteger(std::int32_t value) noexcept {
        return {TValueType::Integer, TTextCase::AsIs, value, noBuffer, {}};
    }
    static TOperand ofBoolean(bool value) noexcept {
        return {TValueType::Boolean, TTextCase::AsIs, value ? 1 : 0, noBuffer, {}};
    }
    static TOperand ofText(std::string_view value) noexcept {
        return {TValueType::String, TTextCase::AsIs, 0, noBuffer, value};
    }

    /// The value of an object, which must outlive the operand.
    static TOperand of(const TBaseValue& value) noexcept {
        switch (value.type()) {
            case TValueType::Boolean:
                return ofBoolean(TBooleanValue::getValue(&value));
            case TValueType::Integer:
                return ofInteger(TIntegerValue::getValue(&value));
            case TValueType::String:
                return ofText(TStringValue::getValue(&value));
            default:
                return {};
        }
    }
};

/// Byte-wise order of two texts as their cases say: negative, 0 or positive. \pre texts of buffers are settled
int compareTexts(const TOperand& left, const TOperand& right) noexcept;
/// Whether they are equal; does not look at bytes when the lengths differ.
bool equalTexts(const TOperand& left, const TOperand& right) noexcept;

/// A text that grows at both ends at a cost of what is added, and whose parts may still have to be brought to a case:
/// long chains of concatenations and of upper and lower cost the same whichever way their brackets lean.
class TTextBuffer {
public:
    /// The bytes, without the cases that settle() would apply.
    std::string_view view() const noexcept { return {m_bytes.get() + m_begin, m_end - m_begin}; }
    void assign(std::string_view text, TTextCase textCase);
    void append(std::string_view text, TTextCase textCase);
    void prepend(std::string_view text, TTextCase textCase);
    /// Adds another buffer's text and cases.
    void append(const TTextBuffer& other);
    void prepend(const TTextBuffer& other);
    /// The whole text is to be in this case; AsIs leaves it as it is to be.
    void setCase(TTextCase textCase);
    /// Brings the bytes to their cases.
    void settle() noexcept;

private:
    /// A stretch of the text and its case.
    struct Run {
        std::size_t length;
        TTextCase textCase;
    };

    void grow(std::size_t before, std::size_t after);

    std::unique_ptr<char[]> m_bytes;
    std::size_t m_capacity = 0;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    std::deque<Run> m_runs;  ///< all of the text, none of them empty
};

/// The buffers of one evaluation. They keep their memory from one row to the next, so rows allocate only while their
/// texts still grow.
class TTextPool {
public:
    /// Takes back every buffer; operands with texts of the pool are gone.
    void reset() noexcept;
    /// Brings the bytes of the operand to their case, in a buffer; until then they stand as they were written.
    void settle(TOperand& operand);
    /// Takes back the buffer of an operand that is not needed any more.
    void release(const TOperand& operand);
    /// left becomes left followed by right; both are texts, and right is consumed.
    void concatenate(TOperand& left, TOperand& right);

private:
    /// Makes the operand's text one of the pool, with its case still to be applied.
    void own(TOperand& operand);
    void append(TOperand& left, const TOperand& right);
    void prepend(const TOperand& left, TOperand& right);
    TTextBuffer& at(std::int32_t buffer) noexcept { return m_buffers[static_cast<std::size_t>(buffer)]; }

    std::vector<TTextBuffer> m_buffers;
    std::vector<std::int32_t> m_free;
    std::size_t m_used = 0;  ///< buffers handed out at least once since the last reset
};

}  // namespace QOR
