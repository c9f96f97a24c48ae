/// \file
/// Filters compiled for evaluation row by row.
#pragma once

#include <cstdint>
#include <vector>

#include "QORPager/QORExpressionOperand.h"
#include "QORPager/QORExpressionToken.h"

namespace QOR {

/// A sequence of tokens in the order of evaluation, resolved once: constants are read, names are places of bound
/// values, operators that cannot get their operands are found. Running it gives what calling the operator table's
/// methods token by token gives, without an object or an allocation per operand: operand types on which an operator
/// works are handled here, and all others are left to its method, which knows the errors.
///
/// Refers to the tokens and to the identifier table; valid only while neither is changed. Bound values may change
/// between runs. Reuses its memory from run to run, so it is used by one thread at a time.
class TExpressionProgram {
public:
    explicit TExpressionProgram(const std::vector<const TToken*>& tokens);

    /// Evaluates with what is bound now. \param evaluator without an error; its methods and error state are used
    /// \returns false when an error was set; otherwise `result` is the value, whose text lives until the next run or
    /// until its name is bound again
    /// \throws std::out_of_range as matchLike; the program can be run again
    bool run(TExpressionEvaluation& evaluator, TOperand& result);

private:
    enum class Step : std::uint8_t { Push, Unary, Binary, Fail };
    enum class From : std::uint8_t { Stack, Identifier, Constant };
    /// Where an operand comes from.
    struct Source {
        From from = From::Stack;
        std::uint32_t constant = 0;
        const TIdentifierValue* identifier = nullptr;
    };
    struct Instruction {
        Step step;
        const TToken* token;
        TTokenType type;
        TTextCase textCase;  ///< of functions
        Source left;         ///< the only operand of unary operators
        Source right;
    };

    Source sourceOf(const TToken& token);
    Source takeLeaf();
    bool addOperator(const TToken& token, std::size_t& depth);
    void addFailure() { m_code.push_back({Step::Fail, nullptr, ttNone, TTextCase::AsIs, {}, {}}); }

    TOperand fetch(const Source& source, TOperand*& top) const noexcept;
    bool applyUnary(const Instruction& instruction, TOperand& operand, TExpressionEvaluation& evaluator);
    bool applyBinary(const Instruction& instruction, TOperand& left, TOperand& right, TExpressionEvaluation& evaluator);
    bool compute(TTokenType type, TOperand& left, TOperand& right);
    bool compare(TTokenType type, TOperand& left, TOperand& right);
    void fixOperandTypes(TTokenType type, TOperand& left, TOperand& right);
    void fixToBoolean(TOperand& operand);
    bool applyMethod(const Instruction& instruction, TOperand& left, TOperand* right, TExpressionEvaluation& evaluator);
    TBaseValue* makeValue(TOperand& operand);

    std::vector<Instruction> m_code;
    std::vector<TOperand> m_constants;
    std::vector<TOperand> m_stack;  ///< as long as the deepest run needs
    TTextPool m_pool;
};

}  // namespace QOR
