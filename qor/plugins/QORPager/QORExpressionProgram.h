/// \file
/// Filters compiled for evaluation row by row.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "QORPager/QORExpressionOperand.h"
#include "QORPager/QORExpressionTables.h"
#include "QORPager/QORExpressionToken.h"

namespace QOR {

/// What running programs needs besides them: operands and texts on their way. Keeps its memory from run to run,
/// whichever program is run, so that rows do not allocate.
struct TProgramBuffers {
    std::vector<TOperand> stack;  ///< as long as the deepest run has needed
    TTextPool pool;
};

/// What becomes of a like whose pattern has a leading wildcard only, and is longer than the subject behind it.
enum class TShortSubject {
    Throws,        ///< std::out_of_range
    DoesNotMatch,  ///< it is false, like any other that does not match
};

/// A sequence of tokens in the order of evaluation, resolved once for the types that its names are bound to: constants
/// are read, names are places of bound values, operators are chosen by the types of their operands, and what is certain
/// to fail is known. Running it gives what calling the operator table's methods token by token gives, errors and
/// exceptions included, without an object or an allocation per operand.
///
/// Both sides of "and" and "or" count, as far as anyone can tell: the right side is left out when the left one decides
/// and nothing in the right one can fail.
///
/// Unchanging once it is made. Refers to the tokens and to the identifier table; valid only while neither is changed
/// and no name that it reads is bound to a value of another type. Values may change between runs.
class TExpressionProgram {
public:
    explicit TExpressionProgram(const std::vector<const TToken*>& tokens,
                                TShortSubject shortSubjects = TShortSubject::Throws);

    /// Evaluates with what is bound now, by one thread at a time: the bound values are not guarded, nor are the
    /// buffers. \param result the value; its text lives until the buffers are used again or until its name is bound
    /// again \returns etNoErrors, or the error that evaluating meets first; `result` is unchanged then \throws
    /// std::out_of_range as matchLike; program and buffers can be used again
    TErrorType run(TProgramBuffers& buffers, TOperand& result) const;

private:
    enum class Op : std::uint8_t {
        Push,
        Fail,
        MakeInvalid,
        Not,
        Negate,
        ChangeCase,
        Or,
        And,
        JumpIfFalse,
        JumpIfTrue,
        CompareNumbers,
        CompareTexts,
        Like,
        Add,
        Concatenate,
        Subtract,
        Multiply,
        Divide,
        In,
        // A name beside a constant, which is what most of a filter is.
        TestInteger,
        TestNumberText,
        TestText,
        TestPrefix,
    };
    /// Where an operand is read from.
    enum class From : std::uint8_t { Stack, Constant, Name };
    /// What a number is made of before a comparison.
    enum class Convert : std::uint8_t { Nothing, ToInteger, ToBoolean };
    struct Source {
        From from = From::Stack;
        TValueType type = TValueType::Invalid;
        Convert convert = Convert::Nothing;
        std::int32_t number = 0;  ///< of a constant: its value; of a constant text: its index
        const TIdentifierValue* name = nullptr;
    };
    struct Instruction {
        Op op = Op::Push;
        std::uint8_t orders = 0;  ///< of comparisons: bits for smaller, equal and greater
        TTextCase textCase = TTextCase::AsIs;
        TErrorType code = etNoErrors;  ///< of Fail
        std::uint32_t target = 0;      ///< of jumps
        Source left;                   ///< the only operand of unary operators
        Source right;
        std::string_view text;  ///< of tests: the constant, of a prefix without its wildcard
    };
    /// What is known about an operand before anything runs.
    struct Known {
        TValueType type = TValueType::Invalid;
        const TToken* constant = nullptr;  ///< the token, for an operand that is one constant
        std::size_t begin = 0;             ///< the token that its evaluation starts with
        bool safe = true;                  ///< evaluating it cannot fail
    };
    /// How an operator works on operands of certain types.
    struct Plan {
        Instruction instruction;
        TValueType result = TValueType::Boolean;
        bool safe = true;
        int arity = 2;
    };
    class Compiler;

    static Plan planUnary(const TToken& token, const Known& operand);
    static Plan planFunction(TFunctionKind kind, const Known& operand, Plan plan);
    static Plan planBinary(const TToken& token, const Known& left, const Known& right);
    static Plan planComparison(std::uint8_t orders, const Known& left, const Known& right);
    static Plan planArithmetic(Op operation, const Known& left, const Known& right);
    static Plan planDivision(const Known& left, const Known& right);
    static Plan planFailure(TErrorType code);

    static void specialize(Instruction& instruction, const std::vector<std::string_view>& texts) noexcept;

    static std::int32_t number(const Source& source, TOperand*& top) noexcept;
    bool convertedNumber(const Source& source, TTextPool& pool, TOperand*& top, std::int32_t& out) const;
    std::string_view leafText(const Source& source) const noexcept;
    TOperand text(const Source& source, TOperand*& top) const noexcept;
    TOperand operand(const Source& source, TOperand*& top) const noexcept;
    static void drop(const Source& source, TOperand*& top) noexcept;
    int compareTexts(const Instruction& instruction, TTextPool& pool, TOperand*& top) const;
    bool matches(std::string_view subject, std::string_view pattern) const;
    bool like(const Instruction& instruction, TTextPool& pool, TOperand*& top) const;
    void changeCase(const Instruction& instruction, TOperand*& top) const;
    void concatenate(const Instruction& instruction, TTextPool& pool, TOperand*& top) const;

    std::vector<Instruction> m_code;
    std::vector<std::string_view> m_texts;
    std::size_t m_deepest = 1;  ///< operands on the stack at once
    TShortSubject m_shortSubjects;
};

}  // namespace QOR
