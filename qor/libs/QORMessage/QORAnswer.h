/// \file
/// Answers that leave while they are written: what an operator writes into a message is handed, piece by piece and
/// in order, to a format, which spells it into an output. Rows are gone from the message as soon as they are handed
/// over, so that an answer of any number of rows takes the memory of one.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORMessage.h"

namespace QOR {

/// An error that ends an answer.
struct QORAnswerError {
    int code;
    std::string message;
};

/// Takes the text of an answer, block by block; a view is valid during the call only.
/// \returns false when no more is taken: the answer is of no use to anybody, or larger than it may be
using QORAnswerOutput = std::function<bool(std::string_view block)>;

/// How an answer is spelled. Called in this order: (element | (openRows child* closeRows))* end, each row set with its
/// children in their order: what names the columns, the rows (tag::row), the counts. Nodes are the message's and valid
/// during the call, as are the values of a row; error entries within them (isErrorEntry()) are not to be spelled but in
/// end().
class QOR_API QORAnswerFormat {
public:
    virtual ~QORAnswerFormat();
    /// Something beside row sets, with all that is below it.
    virtual void element(const QORMessageNode& element) = 0;
    /// A row set begins. Its children are given one by one.
    virtual void openRows(const QORMessageNode& rowSet) = 0;
    virtual void child(const QORMessageNode& child) = 0;
    /// A row that has no elements: spelled as a child tag::row with these values, tag::value each.
    virtual void row(std::span<const QORRowValue> values) = 0;
    virtual void closeRows() = 0;
    /// The answer is whole, or ends with an error; then everything is handed over.
    /// \param error null: none
    virtual void end(const QORAnswerError* error) = 0;
    /// Hands over what it holds back of what came so far.
    virtual void flush() = 0;
};

/// Whether an element named as errors are holds what error entries do.
QOR_API bool holdsErrorCode(const QORMessageNode& node) noexcept;
/// Whether the element is an error entry of a response, as addError() of operators writes it. Asked of every element
/// of every row, so that the answer, no, is found without a call.
inline bool isErrorEntry(const QORMessageNode& node) noexcept {
    return node.tag == tag::error && holdsErrorCode(node);
}
/// The first error entry of a message, in its order; false when it has none.
QOR_API bool findError(const QORMessage& message, QORAnswerError& error);

/// Has the answer that is written into a message spelled while it is written. Used by the thread that writes.
class QOR_API QORAnswerWriter final : private QORRowTaker {
public:
    /// Asked after each row whether to go on.
    using AfterRow = std::function<bool(std::int64_t rows)>;

    /// \param message empty; must outlive the writer, which alone may clear it \param format must outlive it too
    QORAnswerWriter(QORMessage& message, QORAnswerFormat& format, AfterRow afterRow);
    /// Rows stay in the message again.
    ~QORAnswerWriter();
    QORAnswerWriter(const QORAnswerWriter&) = delete;
    QORAnswerWriter& operator=(const QORAnswerWriter&) = delete;

    /// Nothing more will be written: gives what has not been given yet, and the end.
    /// \param error in place of the one that the message holds; null: that one, if there is one
    /// \throws what format, output or AfterRow threw at a row; writing has failed since then
    void finish(const QORAnswerError* error = nullptr);

    /// Rows handed over.
    std::int64_t rows() const noexcept { return m_rows; }
    /// Whether the row set whose rows were handed over last was removed from the message after that: its writer took
    /// it back, to answer with an error alone. What has left already cannot be called back.
    bool isTakenBack() const noexcept;

private:
    bool takeRow(const QORMessageNode& row) noexcept override;
    bool takeValues(const QORMessageNode& rowSet, std::span<const QORRowValue> values) noexcept override;
    template <class Give>
    bool take(Give give) noexcept;
    /// Gives what stands before a row.
    void giveUpTo(const QORMessageNode& rowSet, const QORMessageNode* row);
    void open(const QORMessageNode& rowSet);
    /// Gives the children of the open row set that stand before `until` (null: all) and were not given yet.
    void giveChildren(const QORMessageNode* until);
    /// Gives the elements before `until` (null: all) that were not given yet.
    void giveElements(const QORMessageNode* until);
    void giveElement(const QORMessageNode& element);
    void close();

    QORMessage& m_message;
    QORAnswerFormat& m_format;
    AfterRow m_afterRow;
    std::int64_t m_rows = 0;
    const QORMessageNode* m_rowSet = nullptr;       ///< that is open, or was last
    const QORMessageNode* m_lastChild = nullptr;    ///< of it that was given and stays
    const QORMessageNode* m_lastElement = nullptr;  ///< of the root that was given
    const QORMessageNode* m_beforeRows = nullptr;   ///< the one before the row set
    bool m_open = false;
    std::exception_ptr m_failure;
};

}  // namespace QOR
