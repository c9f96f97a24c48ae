/// \file
/// The parser of the filter language: text to a postfix sequence of tokens, and the tree made from it.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "QORCommon/QORMemory.h"
#include "QORPager/QORExpressionTables.h"
#include "QORPager/QORExpressionText.h"
#include "QORPager/QORExpressionToken.h"
#include "QORPager/QORExpressionTree.h"

namespace QOR {

/// A bound name, looked up once, for callers that bind the same field for every row. Valid until
/// clearIdentifiersMap() or the end of the parser; binding the name again keeps it valid.
class TIdentifierHandle {
public:
    TIdentifierHandle() = default;
    explicit operator bool() const noexcept { return m_value != nullptr; }

private:
    friend class TExpressionEvaluationParser;
    explicit TIdentifierHandle(TIdentifierValue* value) noexcept : m_value(value) {}
    TIdentifierValue* m_value = nullptr;
};

/// Parses one expression at a time. Texts are byte strings of any content and length; nothing here recurses, and time
/// and memory grow linearly with the text.
///
/// Order of use: bind every name that the text may hold, set the text, parse, then per row bind values and evaluate.
/// Errors do not throw: they are a code and a detail text that stay set until the next text is parsed. Used by one
/// thread at a time.
class TExpressionEvaluationParser {
public:
    /// The operator and function tables: constants of the program, there before the first parser (findOperator,
    /// findFunction).
    static const std::array<TOperatorRow, 22> m_mapOperators;
    static const std::array<TFunctionRow, 2> m_mapFunctions;

    /// The error state is the evaluator's and must outlive the parser.
    TExpressionEvaluationParser(TErrorType& errorCode, std::string& errorDetail);
    TExpressionEvaluationParser(const TExpressionEvaluationParser&) = delete;
    TExpressionEvaluationParser& operator=(const TExpressionEvaluationParser&) = delete;
    ~TExpressionEvaluationParser();

    void setExpression(std::string_view text);
    const std::string& getExpression() const noexcept { return m_text; }
    std::string::const_iterator getBegin() const noexcept { return m_text.begin(); }
    std::string::const_iterator getEnd() const noexcept { return m_text.end(); }

    /// Binds a value to a name, whose case does not count. \param value allocated with new, owned by the parser from
    /// now on unless the name is refused \param special whether the name belongs to the special part of expressions;
    /// a name once special stays so \returns false when the name is empty or holds a character that no name has
    bool setIdentifier(std::string_view name, TBaseValue* value, bool special);
    /// Changes the value of a bound name, which is looked up as given, without lowering its case.
    /// \returns true when the name is not bound or its value did not take the text
    bool setIdentifierFromString(std::string_view name, std::string_view text);
    /// The same in two steps. A name that is not bound gives a handle that is false, and setting that returns true.
    TIdentifierHandle bindingHandle(std::string_view name) noexcept;
    static bool setFromText(TIdentifierHandle handle, std::string_view text) {
        TBaseValue* const value = handle ? handle.m_value->get() : nullptr;
        if (value == nullptr || value->type() != TValueType::String) return setNumber(handle, text);
        static_cast<TStringValue*>(value)->assign(text);
        return false;
    }
    /// As setFromText, but a name that is bound to a text or a number refers to the caller's bytes: they must stay as
    /// they are until the name is set or bound again, or the evaluator is not evaluated any more.
    static bool setView(TIdentifierHandle handle, std::string_view text) {
        TBaseValue* const value = handle ? handle.m_value->get() : nullptr;
        if (value != nullptr && value->type() == TValueType::String) {
            static_cast<TStringValue*>(value)->refer(text);
        } else if (value != nullptr && value->type() == TValueType::Integer) {
            static_cast<TIntegerValue*>(value)->refer(text);
        } else {
            return setNumber(handle, text);
        }
        return false;
    }
    /// Forgets all names, "true" and "false" too; which names are special is kept. The text must be parsed again.
    void clearIdentifiersMap();

    /// Whether the text that was parsed last holds the name, spelled like this.
    bool wasIdentifierUsed(std::string_view name) const;
    const std::set<std::string, std::less<>>& usedIdentifiers() const noexcept { return m_usedIdentifiers; }

    /// Parses unless the text is parsed already. \returns false on an error
    bool parse();
    /// Parses, whatever was parsed before. Trees are dropped with the postfix sequence that they refer to.
    /// \throws QORMemoryExceeded when the request may not hold what the expression takes; there is none then
    bool doParse();
    /// Parses; the texts of the postfix sequence, each followed by a space. After an error, what there was of it.
    std::string getPostfix();
    const std::deque<TToken>& postfix() const noexcept { return m_postfix; }

    /// The tree of the expression, its special and its not special part; null after an error, and for a part that the
    /// expression does not have. Owned by the parser, valid until another text is set or parsed.
    const TNode* buildTree();
    const TNode* buildTreeSpecial();
    const TNode* buildTreeNotSpecial();

    /// Text forms of the trees; "Error" for a tree that there is not.
    std::string getInfix();
    std::string getInfixSpecial();
    std::string getInfixNotSpecial();
    static std::string removeUnnecessaryParenthesis(std::string text);

    /// Whether the expression has no identifier of the other kind; false after an error.
    bool onlySpecial();
    bool onlyNotSpecial();

    /// Has `change` see every comparison of a name with a constant, in either order, of the text that was parsed; it
    /// may give the constant another text or class. What is evaluated from then on compares with that.
    void changeComparedConstants(const std::function<void(const TToken& name, TToken& constant)>& change);

    /// The constant that the name is compared with under the operator. \param found whether there is one
    std::string extractConstByIdentifierAndOperation(std::string_view name, TTokenType type, bool& found);

    /// Back to the empty text, giving back what the former one and all that was made of it took.
    void forgetExpression();
    /// About how many bytes the expression that was parsed takes, its trees and programs included.
    std::size_t expressionMemory() const noexcept { return m_text.capacity() + m_tokenCount * memoryOfToken; }

    void setError(TErrorType code);
    void setError(TErrorType code, std::string_view detail);
    void clearError();
    bool isError() const noexcept { return m_errorCode != etNoErrors; }
    /// Where in the text the error of the last parse or tree was met, as a byte offset; the text's length is its end.
    std::size_t getErrorPosition() const noexcept { return m_errorPosition; }

protected:
    /// Changes whenever what was made of the expression is out of date: another text or parse, names forgotten, a name
    /// bound to a value of another type.
    std::size_t version() const noexcept { return m_version; }

private:
    /// One open function call.
    struct TFunctionArgumentsCheck {
        const TFunctionInfo* function;
        int argumentCount = 1;
    };
    struct NameHash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    /// A tree, and whether it was built since the last parse.
    struct TreeSlot {
        std::unique_ptr<TNode> root;
        bool built = false;
    };

    /// What setValueFromString of the class does, without making a string of the text.
    static bool setNumber(TIdentifierHandle handle, std::string_view text) {
        TBaseValue* const value = handle ? handle.m_value->get() : nullptr;
        if (value == nullptr || value->type() != TValueType::Integer) return setOther(handle, text);
        static_cast<TIntegerValue*>(value)->assign(readInteger(text));
        return false;
    }
    static bool setOther(TIdentifierHandle handle, std::string_view text);

    // The lexer. Each get... reads one token, the position being at its first character.
    static bool isString(char ch) noexcept { return ch == '"' || ch == '\''; }
    static bool isValidNameChar(char ch) noexcept;
    static bool isOperatorSpecChar(char ch) noexcept;
    bool skipSpace();
    bool getNextToken();
    void getNumber();
    void getString();
    void getName();
    void getFunction();
    bool getEmptyArguments();
    void getOperatorSpecChar();
    bool fillOperatorTokenFromName(std::string_view name, TToken& token);
    bool atEnd() const noexcept { return m_position == m_text.size(); }
    char current() const noexcept { return m_text[m_position]; }

    /// A token itself, a node in two of the trees, an instruction of a program.
    static constexpr std::size_t memoryOfToken = sizeof(TToken) + 2 * (sizeof(TNode) + 2 * sizeof(void*)) + 96;
    void countToken();

    // The shunting yard.
    void startParse();
    bool takeToken();
    void takeOperand();
    bool takeBracket();
    bool takeComma();
    bool takeRightBracket();
    bool takeOperator();
    bool finishParse();
    bool popToLeftBracket();
    void popToPostfix();
    bool checkFunctionArguments();
    bool takeInConstruct();
    bool readInConstruct(TToken& unit);
    bool readBracket(TTokenType type);
    bool readWord(TTokenType type, std::string_view word);

    void dropTrees();
    const TNode* buildPart(TreeSlot& slot, bool special);
    static std::string textOf(const TNode* tree);

    std::unordered_map<std::string, TIdentifierValue, NameHash, std::equal_to<>> m_identifiers;
    std::set<std::string, std::less<>> m_specialIdentifiers;
    bool m_parsed = false;
    std::string m_text;
    std::deque<TToken> m_postfix;
    std::size_t m_tokenCount = 0;
    QORMemoryCharge m_memory;
    TErrorType& m_errorCode;
    std::string& m_errorDetail;
    std::size_t m_errorPosition = 0;
    TToken m_token;
    std::size_t m_position = 0;
    std::string m_lowerName;  ///< of the name that is being read
    std::vector<TToken> m_operators;
    std::vector<TFunctionArgumentsCheck> m_openCalls;
    bool m_pendingFunction = false;
    bool m_unaryMinus = true;
    TTokenType m_previousType = ttNone;
    std::size_t m_eidCount = 0;  ///< tokens that are exactly the environment's identifier
    std::size_t m_version = 0;
    std::set<std::string, std::less<>> m_usedIdentifiers;
    TreeSlot m_tree;
    TreeSlot m_specialTree;
    TreeSlot m_notSpecialTree;
};

}  // namespace QOR
