/// \file
/// Reads the answer to a view request while it arrives, so that an answer of a million rows takes the memory of one.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "output/RowPrinter.h"

namespace QOR {

/// The bytes of one answer, in pieces.
class AnswerSource {
public:
    virtual ~AnswerSource() = default;
    /// The next piece, empty at the end; valid until the next call.
    virtual std::string_view read() = 0;
};

/// An answer that is there already.
class TextSource final : public AnswerSource {
public:
    explicit TextSource(std::string text) : m_text(std::move(text)) {}
    std::string_view read() override { return std::exchange(m_given, true) ? std::string_view() : m_text; }

private:
    std::string m_text;
    bool m_given = false;
};

/// An error that an answer holds.
struct AnsweredError {
    int code = 0;
    std::string message;
};

/// Several values of one cell come as one text, ", " between them.
/// Hands the rows of the answer to `rows` as they come (nothing, not even begin, when the answer has no row set).
/// \param hasNext set to whether the answer names a page behind it; null: of no interest
/// \returns the answer's error, if it has one
/// \throws CtlError AnsweredError when the bytes are no answer
std::optional<AnsweredError> readAnswer(AnswerSource& source, RowSink& rows, bool* hasNext = nullptr);

/// Passes columns on in the order in which they were asked for, whatever the answer's is: an answer has them in the
/// order of their names.
class ColumnOrder final : public RowSink {
public:
    /// \param wanted names; those that the answer lacks are left out
    ColumnOrder(std::vector<std::string> wanted, RowSink& next) : m_wanted(std::move(wanted)), m_next(next) {}
    void begin(std::span<const std::string> names) override;
    void row(std::span<const Cell> cells) override;
    void end(const std::optional<RowCounts>& counts) override { m_next.end(counts); }

private:
    std::vector<std::string> m_wanted;
    RowSink& m_next;
    std::vector<std::size_t> m_places;  ///< where each wanted column stands in the answer
    std::vector<Cell> m_cells;
};

}  // namespace QOR
