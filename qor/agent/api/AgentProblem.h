/// \file
/// What went wrong with a request over HTTP, as a document of RFC 9457 (application/problem+json).
///
/// Beside its `title`, `status` and `detail` it has members for programs: `code`, a word that stays what it is when
/// the detail is worded anew, and where they are known `parameter`, `position`, `found`, `expected`, `suggestion`.
#pragma once

#include <cstddef>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "agent/http/HttpTypes.h"

namespace QOR {

class QORException;

/// A value. Empty members are not told.
struct AgentProblem {
    unsigned status = 400;
    std::string detail{};                   ///< for people: what is wrong with this request, and what helps
    std::string_view code{};                ///< of static storage; empty: the status's own
    std::string parameter{};                ///< that is meant
    std::optional<std::size_t> position{};  ///< characters in the parameter's text before the place that is meant
    std::string found{};                    ///< there
    std::string expected{};                 ///< there
    std::string suggestion{};               ///< the nearest thing that would do
    unsigned retryAfter = 1;                ///< seconds, of 429 and 503: when to come again
};

/// A problem that ends the answering of a request.
class AgentProblemException final : public std::exception {
public:
    explicit AgentProblemException(AgentProblem problem) : m_problem(std::move(problem)) {}
    const AgentProblem& problem() const noexcept { return m_problem; }
    const char* what() const noexcept override { return m_problem.detail.c_str(); }

private:
    AgentProblem m_problem;
};

[[noreturn]] void throwProblem(AgentProblem problem);

/// What an exception of the host means over HTTP.
AgentProblem problemOf(const QORException& exception);

/// What failed within: 503 when the database is away or busy for now, else 500. Of the request that the thread serves.
AgentProblem failureProblem(std::string detail);

/// Its code; of one that has none that of its status.
std::string_view codeOf(const AgentProblem& problem) noexcept;

/// The document with its status; 503 and 429 say when to come again.
HttpReply problemReply(const AgentProblem& problem);

}  // namespace QOR
