/// \file
/// What would become of a question, without its being answered: what an operator tells of a select that holds the
/// element 2407, and how that travels. The operator fills it and writes it as rows; whoever asked reads it back, adds
/// the warnings about the condition's text, and shows it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "QORCommon/QORExport.h"
#include "QORMessage/QORAnswer.h"
#include "QORMessage/QORMessageIterator.h"
#include "QORQuery/QORConditionLint.h"

namespace QOR {

/// A warning that may have travelled.
struct QORExplainedWarning {
    std::string code{};
    std::string parameter{};
    std::string message{};
    std::optional<std::size_t> offset{};  ///< bytes before the place in the parameter's text
    std::string found{};
    std::string suggestion{};
};

/// A value. What is empty does not apply, or is not for the asker.
struct QOR_API QORExplanation {
    /// One of the selects that a page comes from.
    struct Statement {
        std::string sql{};                      ///< as it would be run: `?` in the places of values
        std::vector<std::string> parameters{};  ///< these in their order, as literals
        std::vector<std::string> plan{};        ///< the engine's own words, a line each
        bool servesCondition = false;           ///< an index finds the rows
        bool servesOrder = false;               ///< no row is sorted once it is read
        bool isElsewhere = false;               ///< rows are asked for at other servers, of whose work nothing is told
    };
    struct Index {
        std::string name{};
        std::vector<std::string> columns{};
    };

    std::string view{};    ///< that is asked
    std::string source{};  ///< or the source, as /v1/rows calls it
    /// Whether the asker sees some rows only: then nothing is told that rests on rows that he does not see, and neither
    /// statements nor estimates are.
    bool isRestricted = false;
    std::string access{};  ///< the condition of rows that the asker may see, as SQL; empty for all rows

    // Of views.
    std::string engine{};
    std::vector<Statement> statements{};  ///< run in this order until the page is full
    std::vector<Index> indexes{};         ///< below the view

    // Of sources.
    std::vector<std::string> narrowing{};  ///< what the source takes from the filter, so that less is read
    std::vector<std::string> ignored{};    ///< parts of the filter that it does not look at
    std::string tested{};                  ///< what is asked of each row that is read; empty: nothing
    std::string order{};  ///< "read": as rows are read; "second": sorted within each second; "sorted": all that match

    std::optional<std::int64_t> estimate{};  ///< rows that match, as the engine expects
    std::optional<std::int64_t> most{};      ///< no more rows than these are there to be read
    std::vector<QORExplainedWarning> warnings{};

    void warn(const QORConditionWarning& warning);
    /// Adds the warnings about the condition's text, with what the explanation knows of the view.
    /// \param sort columns that rows are sorted by \param values see QORConditionFacts \throws as parseCondition()
    void lint(std::string_view where, const QORConditionOptions& options, const std::vector<std::string>& sort,
              const QORColumnValues& values);
    /// As a row set: each row has what it is about, a text, and of warnings the rest.
    /// \returns 0, or another number when the message takes no more
    int write(const QORMessageIterator& out) const;
    /// Takes a row of it; of a kind that is not known, none.
    void take(const std::vector<std::string>& row);
    /// An object, in one line. \param where the condition's text, in whose characters places are told
    std::string json(std::string_view where) const;
};

/// Takes an answer that is an explanation.
class QOR_API QORExplanationReader final : public QORAnswerFormat {
public:
    explicit QORExplanationReader(QORExplanation& explanation) : m_explanation(explanation) {}

    void element(const QORMessageNode& element) override;
    void openRows(const QORMessageNode&) override {}
    void child(const QORMessageNode& child) override;
    void row(std::span<const QORRowValue> values) override;
    void closeRows() override {}
    /// \throws QORException for an error of the operator
    void end(const QORAnswerError* error) override;
    void flush() override {}
    /// How many bytes of the filter stand before what end() has thrown about it; nothing where that is not known.
    const std::optional<std::int64_t>& errorPlace() const noexcept { return m_errorPlace; }

private:
    QORExplanation& m_explanation;
    std::optional<std::int64_t> m_errorPlace{};
};

}  // namespace QOR
