/// \file
/// The evaluator of the filter language: a text filter over named values, from characters to a boolean per row.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORPager/QORExpressionEvaluationParser.h"
#include "QORPager/QORExpressionProgram.h"

namespace QOR {

/// A filter. Order of use: construct; bind every name that the text may hold; set the text; prepare() and look for
/// errors; then per row bind the row's values and call returnBoolean(out).
///
/// Errors never throw: each sets a code, for parse errors often with a detail text, that stays until the next text is
/// parsed; so evaluating rows stops making sense at the first row that fails. The one exception that leaves an
/// evaluation is std::out_of_range, from a like whose pattern has a leading wildcard only and is longer than the
/// subject; the evaluator can be used on after it.
///
/// After the first row, a row costs no allocation and no look-up by name while its texts stay as long as those before
/// it, given that values are bound through handles (bindingHandle, setFromText).
///
/// Returned texts stay valid until the next call that returns one. Used by one thread at a time.
class TExpressionEvaluation : public TExpressionEvaluationParser {
public:
    /// Messages by error code, empty where a code has none (errorMessage). Constants of the program.
    static const std::array<std::string_view, etPowerBaseIsZero + 1> mapErrors;

    TExpressionEvaluation();
    explicit TExpressionEvaluation(std::string_view text);
    ~TExpressionEvaluation();

    /// Binds "true" and "false".
    void initializeIdentifiers();
    /// Bind a name to a new value; false when it is not a name.
    using TExpressionEvaluationParser::setIdentifier;
    bool setIdentifier(std::string_view name, int value, bool special);
    bool setIdentifier(std::string_view name, bool value, bool special);
    bool setIdentifier(std::string_view name, const char* value, bool special);
    bool setIdentifier(std::string_view name, std::string_view value, bool special);
    /// Binds a name to what a field of the type holds before a row is read: true, 0 or the empty text.
    /// \pre the type is one of fields
    bool declareIdentifier(std::string_view name, TValueType type, bool special);

    /// What evaluate() makes of subjects that are shorter than a pattern; by default they throw.
    void setShortSubjects(TShortSubject shortSubjects);

    /// Parse, or build the tree of a part, unless that is done. \returns whether an error is set
    bool prepare();
    bool prepareSpecial();
    bool prepareNotSpecial();

    /// Evaluate the expression, or its special part. An expression without a special part is error 12.
    void evaluate();
    void evaluateSpecial();

    /// The same, object by object through the methods of the operator table. This is what an operator means; the
    /// programs that evaluate() runs must agree with it, and the tests hold them to that.
    void evaluateByMethods();
    void evaluateSpecialByMethods();

    /// The result of an evaluation as a boolean; false on an error. A result that is not one is error 14.
    bool returnBoolean();
    /// \returns whether an error is set; `out` is changed only when none is
    bool returnBoolean(bool& out);
    bool returnBooleanSpecial(bool& out);
    /// The result as an integer or a text; 0 or "" on an error. A result of another type is error 14.
    std::int32_t returnInteger();
    const std::string& returnString();
    /// The result of any type as text; "Error" on an error.
    const std::string& toString();
    const std::string& toStringSpecial();
    /// The text of the last evaluation's result, without evaluating. Names may have been bound again since.
    const std::string& doToString();

    /// As the parser's, the text being kept like other results.
    const std::string& extractConstByIdentifierAndOperation(std::string_view name, TTokenType type, bool& found);

    /// As the parser's, with the programs and the result.
    void forgetExpression();

    bool wasError() const noexcept { return isError(); }
    TErrorType getErrorCode() const noexcept { return m_errorCode; }
    const std::string& getErrorDetail() const noexcept { return m_errorDetail; }
    /// The message of the current code, with the detail behind a colon where there is one.
    const std::string& getErrorMessage();

    /// The value of a tree, by the methods of the operator table; none when an error is set. The caller owns it.
    TBaseValue* getNodeValue(const TNode& node);

    /// The operand stack of the methods below. Values that are pushed belong to it.
    void pushOperand(TBaseValue* value) { m_operands.emplace_back(value); }
    /// Calls a method of the operator or function table. The caller owns the result.
    TBaseValue* call(TEvaluatorMethod method) { return (this->*method)(); }

    // Operators and functions: they take their operands, the right one first, from the stack and return a new value,
    // which is invalid when an error is set.
    TBaseValue* operatorOr();
    TBaseValue* operatorAnd();
    TBaseValue* operatorNot();
    TBaseValue* operatorGreater();
    TBaseValue* operatorGreaterOrEqual();
    TBaseValue* operatorLower();
    TBaseValue* operatorLowerOrEqual();
    TBaseValue* operatorEqual();
    TBaseValue* operatorNotEqual();
    TBaseValue* operatorLike();
    TBaseValue* operatorAdd();
    TBaseValue* operatorSub();
    TBaseValue* operatorMul();
    TBaseValue* operatorDiv();
    /// For callers that push operands and call methods themselves: the language has no spelling of it.
    TBaseValue* operatorPower();
    TBaseValue* operatorUnaryMinus();
    /// True whatever the operands are: "in" only carries the name of a unit to the caller, which restricts the rows.
    TBaseValue* operatorIn();
    TBaseValue* functionUpper();
    TBaseValue* functionLower();

private:
    using Owned = std::unique_ptr<TBaseValue>;
    using BinaryOperation = TBaseValue* (TBaseValue::*)(TBaseValue*);
    struct Pair {
        Owned left;
        Owned right;
    };
    /// A program, and the version of the expression that it was made from.
    struct ProgramSlot {
        std::optional<TExpressionProgram> program;
        std::size_t version = 0;
    };

    Owned getOneOperand();
    Pair getTwoOperands();
    TBaseValue* fail(TErrorType code);
    TBaseValue* combine(BinaryOperation operation);
    TBaseValue* combineBoth(TValueType type, BinaryOperation operation);
    template <class Policy>
    TBaseValue* compareOperands(BinaryOperation operation);
    TBaseValue* changeCase(TBaseValue* (TStringValue::*change)());

    std::vector<const TToken*> postfixOrder() const;
    void initialize();
    void clearResult();
    bool isCurrent(const ProgramSlot& slot) const noexcept { return slot.program && slot.version == version(); }
    template <class Order>
    void compile(ProgramSlot& slot, Order order);
    void run(ProgramSlot& slot);
    void holdResult();
    void walk(const std::vector<const TToken*>& tokens);
    bool walkToken(const TToken& token);
    bool takeBoolean(bool& out);
    bool requireType(TValueType type);

    TErrorType m_errorCode;
    std::string m_errorDetail;
    std::vector<Owned> m_operands;
    std::string m_resultText;
    TOperand m_result;            ///< of the last evaluation that succeeded
    std::string m_resultHolding;  ///< the bytes of a result that is a text
    ProgramSlot m_program;
    ProgramSlot m_specialProgram;
    TShortSubject m_shortSubjects = TShortSubject::Throws;
    TProgramBuffers m_buffers;  ///< of whichever program is run
};

}  // namespace QOR
