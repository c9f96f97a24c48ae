#include "agent/api/AgentOperatorProblem.h"

#include <algorithm>
#include <array>
#include <optional>

#include "QORCommon/QORException.h"
#include "QORCommon/QORText.h"

namespace QOR {
namespace {

/// Codes of errors that operators have beside the host's own.
constexpr int unknownField = 3111;
constexpr int unreadableFilter = 3151;
constexpr int failingFilter = 3152;

/// What an operator says, and what that is about. A name or a text that is meant stands behind the words, or before
/// them in quotes.
struct Complaint {
    std::string_view words;
    std::string_view parameter;
    bool named = false;  ///< what is meant stands behind the words
    std::string_view code{};
    std::string_view expected{};  ///< at the place, where the operator tells it
};
constexpr std::array complaints{
    Complaint{"Undeclared identifier: ", "where", true, "unknown_field", "a field"},
    Complaint{"Unknown function: ", "where", true, {}, "upper or lower"},
    Complaint{"Unknown symbol: ", "where", true, {}, "an operand or an operator"},
    Complaint{"Unterminated string constant", "where", true, {}, "a text with a quote at its end"},
    Complaint{"Operator or function expected", "where", false, {}, "an operator with its operands"},
    Complaint{"Unexpected left bracket", "where", false, {}, "a bracket that is closed"},
    Complaint{"Unexpected right bracket", "where", false, {}, "an opening bracket before it"},
    Complaint{"Unexpected comma", "where", false, {}, "a comma between arguments only"},
    Complaint{"Function arguments mismatch", "where", false, {}, "as many arguments as the function takes"},
    Complaint{"incorrect <in> expression", "where", false, {}, "pager.env.eid in (unit 'GUID', recursive)"},
    Complaint{"Empty expression", "where", false, {}, "a condition"},
    Complaint{"Can't sort by a field of another table: ", "sort", true},
    Complaint{"Can't select from multiply tables", "fields"},
    Complaint{"sort: ", "sort"},
    Complaint{"count: ", "count"},
    Complaint{"limit", "limit"},
    Complaint{"page token", "after"},
};

const Complaint* complaintIn(std::string_view message) {
    const auto* const found = std::find_if(complaints.begin(), complaints.end(), [&](const Complaint& one) {
        return message.find(one.words) != std::string_view::npos;
    });
    return found == complaints.end() ? nullptr : found;
}

std::string_view firstQuoted(std::string_view message) {
    const std::size_t begin = message.find('"');
    if (begin == std::string_view::npos) return {};
    const std::string_view rest = message.substr(begin + 1);
    return rest.substr(0, std::min(rest.find('"'), rest.size()));
}

bool isOfName(char c) {
    return c == '_' || c == '.' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Where a text stands as a word of its own; nothing where it does not, or more than once, so that nobody could tell
/// which is meant.
std::optional<std::size_t> onlyPlaceOf(std::string_view word, std::string_view text) {
    std::optional<std::size_t> place;
    for (std::size_t at = text.find(word); !word.empty() && at != std::string_view::npos;
         at = text.find(word, at + 1)) {
        const bool begins = at == 0 || !isOfName(text[at - 1]) || !isOfName(word.front());
        const bool ends =
            at + word.size() == text.size() || !isOfName(text[at + word.size()]) || !isOfName(word.back());
        if (!begins || !ends) continue;
        if (place) return std::nullopt;
        place = at;
    }
    return place;
}

/// What is left for the operator to judge is mostly the condition, and of a page that goes on its token.
std::string_view usualParameter(const AgentParameters& parameters) {
    if (parameters.has("after")) return "after";
    return parameters.has("where") ? "where" : "";
}

std::string_view codeFor(std::string_view parameter) {
    if (parameter == "after") return "bad_token";
    if (parameter == "where") return "bad_condition";
    return parameter.empty() ? "" : "bad_parameter";
}

/// What stands at a place of a filter: a name or a number, a text in quotes, or a sign; of long texts the beginning.
std::string_view wordAt(std::string_view text, std::size_t place) {
    constexpr std::size_t longest = 80;
    constexpr std::string_view comparing = "<>=!";
    const std::string_view rest = text.substr(std::min(place, text.size()));
    if (rest.empty()) return rest;
    std::size_t end = 1;
    if (isOfName(rest.front())) {
        while (end < rest.size() && isOfName(rest[end]))
            ++end;
    } else if (rest.front() == '\'' || rest.front() == '"') {
        end = std::min(rest.find(rest.front(), 1), rest.size() - 1) + 1;
    } else if (comparing.find(rest.front()) != std::string_view::npos) {
        while (end < rest.size() && comparing.find(rest[end]) != std::string_view::npos)
            ++end;
    }
    end = std::min(end, longest);
    // A character is told whole.
    while (end < rest.size() && (static_cast<unsigned char>(rest[end]) & 0xC0U) == 0x80U)
        ++end;
    return rest.substr(0, end);
}

void locate(AgentProblem& problem, std::string_view word, const AgentParameters& parameters) {
    if (const auto place = onlyPlaceOf(word, parameters.text(problem.parameter))) {
        problem.position = charactersBefore(parameters.text(problem.parameter), *place);
        problem.found = word;
    }
}

}  // namespace

AgentProblem problemOfOperator(const QORException& error, const AgentParameters& parameters,
                               std::optional<std::int64_t> place,
                               const std::function<std::string(std::string_view name)>& nearest) {
    AgentProblem problem = problemOf(error);
    const std::string& message = error.message();
    const Complaint* const complaint = complaintIn(message);
    std::string_view word = firstQuoted(message);
    if (complaint != nullptr && complaint->named)
        word = std::string_view(message).substr(message.find(complaint->words) + complaint->words.size());
    switch (error.code()) {
        case failingFilter:
            problem = {.status = 422, .detail = message, .code = "failing_condition", .parameter = "where"};
            break;
        case unknownField:
            problem = {.status = 400, .detail = message, .code = "unknown_field", .parameter = "fields"};
            break;
        case unreadableFilter:
            problem = {.status = 400, .detail = message, .parameter = parameters.has("where") ? "where" : "sort"};
            break;
        default:
            if (problem.status != 400) return problem;
            problem.parameter = usualParameter(parameters);
            break;
    }
    if (complaint != nullptr && (complaint->parameter == "fields" || parameters.has(complaint->parameter)))
        problem.parameter = complaint->parameter;
    if (problem.code.empty()) problem.code = complaint != nullptr ? complaint->code : "";
    if (problem.code.empty()) problem.code = codeFor(problem.parameter);
    if (place && problem.parameter == "where") {
        const std::string_view where = parameters.text("where");
        const auto bytes = static_cast<std::size_t>(*place);
        problem.position = charactersBefore(where, bytes);
        problem.found = wordAt(where, bytes);
        if (complaint != nullptr) problem.expected = complaint->expected;
    } else if (!problem.parameter.empty() && parameters.has(problem.parameter)) {
        locate(problem, word, parameters);
    }
    // A literal that the column does not take stands in the condition, also on a page that goes on.
    if (problem.parameter == "after" && !problem.position && onlyPlaceOf(word, parameters.text("where"))) {
        problem.parameter = "where";
        problem.code = "bad_condition";
        locate(problem, word, parameters);
    }
    if (problem.code == "unknown_field") problem.suggestion = nearest(word);
    return problem;
}

}  // namespace QOR
