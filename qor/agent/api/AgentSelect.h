/// \file
/// From the parameters of a request over HTTP to a request of operator "pager2".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QORMessage/QORBinaryIterator.h"
#include "QORMessage/QORNotation.h"
#include "QORQuery/QORCondition.h"
#include "agent/api/AgentParameters.h"
#include "agent/api/AgentRowsWriter.h"
#include "agent/api/AgentViews.h"

namespace QOR {

/// Rows of a page.
inline constexpr std::uint64_t usualPage = 50;
inline constexpr std::uint64_t largestPage = 10'000;

inline constexpr AgentParameter fieldsParameter{
    .name = "fields",
    .kind = AgentParameter::Kind::List,
    .meaning =
        "columns in the order of the answer, `*` for all, or aggregates: count(id), sum, average, min, max. "
        "Without it all columns but bytes and those of row security"};
inline constexpr AgentParameter sortParameter{
    .name = "sort",
    .kind = AgentParameter::Kind::List,
    .meaning = "what rows are sorted by, the first key first, behind `-` from the greatest on"};
inline constexpr AgentParameter limitParameter{
    .name = "limit",
    .kind = AgentParameter::Kind::Number,
    .meaning = "rows of a page",
    .range = {1, largestPage},
    .fallback = "50",
    .advice =
        "ask for the rest with the page's token (after), or for all rows as a stream (Accept: "
        "application/x-ndjson, without limit)"};
inline constexpr AgentParameter offsetParameter{.name = "offset",
                                                .kind = AgentParameter::Kind::Number,
                                                .meaning = "rows that are left out before the page",
                                                .range = {0, 2'147'483'647},
                                                .fallback = "0"};
inline constexpr AgentParameter afterParameter{
    .name = "after", .meaning = "the token `next` of the page before; all else as for that page but limit and format"};
inline constexpr AgentParameter countParameter{
    .name = "count",
    .meaning = "how far all rows that match are counted: none, capped (to 10,000), exact, or for a time, \"200ms\"",
    .fallback = "none"};
inline constexpr AgentParameter distinctParameter{
    .name = "distinct", .kind = AgentParameter::Kind::Flag, .meaning = "equal rows once", .fallback = "false"};
inline constexpr AgentParameter formatParameter{.name = "format",
                                                .kind = AgentParameter::Kind::Choice,
                                                .meaning = "of the answer, in place of what Accept says",
                                                .choices = agentFormatWords};

inline constexpr std::array viewRowsParameters{
    fieldsParameter,
    AgentParameter{.name = "where", .meaning = "the condition on rows: status <> 0 and time > now() - 7d"},
    sortParameter,
    limitParameter,
    offsetParameter,
    afterParameter,
    countParameter,
    distinctParameter,
    formatParameter,
};

/// What the request is made for.
struct AgentSelectContext {
    std::string currentEid{};           ///< the environment that the asker stands for; empty: none
    bool all = false;                   ///< without a limit all rows are wanted, not a page
    std::optional<std::int64_t> now{};  ///< seconds that relative times are told from; empty: nowOf() the parameters
};

/// A request and how its answer is read.
struct AgentSelect {
    QORRequestEnvelope envelope;
    std::vector<AgentColumn> columns;  ///< of the answer
    std::vector<std::string> names;    ///< what the operator calls them
};

/// One that was read once, for who asks the same again in the same second.
struct AgentKeptSelect {
    AgentSelect select;
    std::shared_ptr<const AgentViews::List> views;  ///< by which it was read
    std::int64_t now = 0;                           ///< that relative times were told from
};
inline constexpr std::size_t mostKeptSelects = 64;
/// Bytes of a question that is worth keeping.
inline constexpr std::size_t longestKeptSelect = 4096;

/// How the condition of a question is read. \param views must outlive what is returned
/// \throws AgentProblemException for a token that is none
QORConditionOptions conditionOptions(const AgentViews::List& views, const AgentView& view,
                                     const AgentParameters& parameters, const AgentSelectContext& context);

/// \throws AgentProblemException naming the parameter that cannot be meant, for the condition the place in it
AgentSelect makeViewSelect(const AgentViews::List& views, const AgentView& view, const AgentParameters& parameters,
                           const AgentSelectContext& context);

/// How many of the rows that are wanted: the parameter's, or the usual page. \returns 0 for all
std::uint64_t rowsWanted(const AgentParameters& parameters, bool all);

/// One item of a list as it stands in a parameter.
struct AgentListItem {
    std::string_view text;   ///< blanks around it taken off
    std::size_t offset = 0;  ///< bytes before it
};
/// \throws AgentProblemException for an empty item
std::vector<AgentListItem> splitList(const AgentParameters& parameters, std::string_view name);

/// Elements of the page, the same for all operators: limit with size and offset, after, count, ordered.
/// \throws AgentProblemException for what cannot be meant together
void addPage(QORBinaryIterator& at, const AgentParameters& parameters, bool all);

/// Adds an element without text or children.
void addFlag(QORBinaryIterator& at, QORTag flag);

/// \param status what a cursor answered \throws AgentProblemException when there was no room
void requireRoom(int status);

/// The seconds since the epoch that relative times are told from: those of the page's token, or now.
/// \throws AgentProblemException for a token that is none
std::int64_t nowOf(const AgentParameters& parameters);

}  // namespace QOR
