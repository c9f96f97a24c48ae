/// \file
/// The differences between database engines, in one table. Everything else in this layer is the same for all. Whoever
/// writes SQL is given the dialect to write it in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "rdbmspp/engine/AException.h"
#include "rdbmspp/engine/ASEngine.h"
#include "rdbmspp/engine/ASFailure.h"

namespace QOR {

/// One engine. Immutable, of static storage.
struct QOR_API ASDialect {
    ASEngine engine;
    const char* name;        ///< as people write it
    const char* odbcName;    ///< begins the driver's SQL_DBMS_NAME, and stands in the names of its drivers
    const char* beginRead;   ///< several selects that see one state
    const char* planOnce;    ///< behind beginRead: statements are planned once, whatever values they get, and not anew
                             ///< for each execution where values promise a better plan; empty where they are anyway
    const char* beginWrite;  ///< takes the write lock at once, where the engine has one; never for a session that is
                             ///< opened for reading where `alwaysInTransaction`
    const char* commit;
    const char* rollback;
    const char* like;            ///< the operator that ignores the case of ASCII letters
    const char* likeParameter;   ///< stands before a pattern that is a parameter
    const char* noEscape;        ///< what has to follow a pattern without escape character
    const char* nullsAscending;  ///< makes null the smallest value; empty where it is already
    const char* nullsDescending;
    const char* byteOrder;  ///< makes a text sort by its bytes; empty where it does already
    /// Whether only values of one type compare with each other, and a parameter is taken for whatever stands beside it.
    bool typed;
    /// Whether a text can be of nothing but UTF-8.
    bool takesUtf8Alone;
    const char* queryOnly;    ///< makes a connection refuse to write
    const char* opaqueBegin;  ///< around a text literal, so that `column = literal` does not make the engine put the
    const char* opaqueEnd;    ///< literal in the column's place elsewhere; empty where it does not anyway
    const char* untyped;  ///< in front of a column, so that it is compared with texts as a text; empty where a literal
                          ///< is read as the column's type once, and not for each row
    /// A function of a column and many GUIDs in one text, which asks for them as `untyped` does, but faster; empty
    /// of a typed engine.
    const char* among;
    /// Whether what is looked up for each row (lookUp()) can end at the first rows.
    bool limitsLookUps;
    /// Whether a single select stands in a transaction too, because only that keeps whatever the database computes for
    /// it from writing. One that computes nothing needs none.
    bool alwaysInTransaction;
    /// Whether a statement that fails ends its transaction, of which the engine then commits nothing without a word.
    bool failureAborts;
    /// Bounds of what follows, behind setLocal in the transaction and behind setSession until something else is said:
    /// milliseconds follow, 0 for none; empty where the layer itself ends statements and waits for locks.
    const char* statementTimeout;
    const char* lockTimeout;
    const char* setLocal;
    const char* setSession;
    /// Behind setLocal or setSession: has whatever hands out rows of another server ask it for them in order, rather
    /// than sort them all itself where it takes them for few; and has it decide again. Of an engine that is typed.
    const char* orderedElsewhere;
    const char* orderedAnywhere;
    /// Marks a transaction, the mark follows; and a select of the mark. Empty where rows that are handed out as they
    /// come cannot end too early.
    const char* mark;
    const char* selectMark;
    /// A select of the identifier under which the engine keeps what becomes of the transaction, null where it has
    /// written nothing; and one of what became of a transaction. Empty where a commit cannot be lost on its way.
    const char* transactionId;
    const char* transactionOutcome;
    /// The engine may give an identifier out again after a crash, so transactions leave tokens where the database has
    /// a place for them: whether it has, as "true"; leaves the token `?` where something was written, and selects the
    /// identifier; selects something where the transaction that left the token `?` was committed; forgets old ones.
    const char* keepsTokens;
    const char* leaveToken;
    const char* findToken;
    const char* forgetTokens;
    std::size_t maxParameters;    ///< of one statement; further values stand in its text
    std::size_t maxDescribed;     ///< the same of one whose rows do not come as they are read
    std::size_t maxLikePattern;   ///< bytes
    std::size_t parserDepth;      ///< entries of the parser's stack; 0: unlimited
    std::size_t expressionDepth;  ///< levels of an expression; 0: unlimited
    /// For statements over tables whose columns have the engine's own types, as the functions below from guid() on.
    /// Rows `j` of the texts of a JSON array, which is a parameter: columns key, the place from 0, and value.
    const char* eachText;
    std::int64_t firstSecond;    ///< since the epoch, of the first year that a time can have
    std::size_t longestIndexed;  ///< bytes of a text that an index is sure to hold

    static const ASDialect& of(ASEngine engine) noexcept;
    /// That of the engine behind a driver. \param name as the driver tells it (SQL_DBMS_NAME)
    static const ASDialect& named(std::string_view name) noexcept;
    /// What the engine's codes mean. \param state SQLSTATE \param native the driver's native code
    ASFailure failureOf(std::string_view state, int native) const noexcept;
    /// Whether a connection is not to be used any more after such a failure.
    bool leavesDoubt(ASFailure failure) const noexcept;
    /// A message without what the driver puts around it, and without values of rows.
    std::string plainText(std::string_view message, std::string_view state, int native) const;

    /// `expression` (a column) as its seconds since the epoch, null where it holds no time.
    std::string epochSeconds(std::string_view expression) const;
    /// A selected column of floating point so that the driver hands out every digit; whole numbers among them as
    /// exactDecimal() does.
    std::string exactDouble(std::string_view expression) const;
    /// A selected column of bytes so that the driver does not take a text for them.
    std::string exactBytes(std::string_view expression) const;
    /// A selected decimal number: its digits, and "=" behind them where they are more than a double holds.
    std::string exactDecimal(std::string_view expression) const;
    /// The sum of a column of whole numbers: exact within 64 bits, of floating point beyond, null for no values. Never
    /// fails.
    std::string wholeSum(std::string_view expression) const;
    /// The sum of any other column, null for no values.
    std::string realSum(std::string_view expression) const;
    /// The sum of a column of decimal numbers, exact, in the form of exactDecimal(); or as a number to compare with.
    /// And the average, a number of floating point, of whole numbers too. Null for no values. Of an engine that is not
    /// typed.
    std::string decimalSum(std::string_view expression) const;
    std::string comparedDecimalSum(std::string_view expression) const;
    std::string decimalAverage(std::string_view expression) const;
    /// A number of floating point as the decimal number that it is compared with others as: whole numbers to their last
    /// digit, others as they are written. Of a typed engine.
    std::string exactNumeric(std::string_view expression) const;
    /// A number of floating point as the text that other engines compare with patterns and fold: fifteen digits, and a
    /// point in any. Of a typed engine.
    std::string realText(std::string_view expression) const;
    /// A pattern of LIKE that is no literal: null where it is longer than the engine takes. Of an engine that is not
    /// typed.
    std::string boundedPattern(std::string_view expression) const;
    /// A failure in words about the request where the engine speaks of its own workings.
    AException explained(const AException& error) const;
    /// A text that is a GUID as a value of a column of GUIDs.
    std::string guid(std::string_view expression) const;
    /// The seconds since the epoch of a time that has its column's own form.
    std::string storedSeconds(std::string_view expression) const;
    /// The texts of a group's GUIDs, blanks between them.
    std::string joinedGuids(std::string_view expression) const;
    /// Joins a table, so that its rows are looked up for each row of what stands in front of it, and in no other order:
    /// how many those are, the engine cannot know. \param per a column in front that is never null, the last one where
    /// there are several \param limit " ORDER BY ... LIMIT ...", of the rows that are found for each, where the engine
    /// can (`limitsLookUps`)
    std::string lookUp(std::string_view table, std::string_view alias, std::string_view condition, std::string_view per,
                       std::string_view limit = {}) const;
    /// That a select has no rows, which is asked once and not for each row.
    std::string none(std::string_view fromAndWhere) const;
    /// A literal of bytes.
    std::string binaryLiteral(std::string_view bytes) const;
};

}  // namespace QOR
