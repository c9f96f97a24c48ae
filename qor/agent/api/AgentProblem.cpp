#include "agent/api/AgentProblem.h"

#include <algorithm>
#include <array>

#include "QORCommon/QORException.h"
#include "QORCommon/QORRequestControl.h"
#include "QORCommon/QORText.h"
#include "agent/api/AgentJson.h"
#include "gzip/HttpGunzip.h"
#include "ingest/QORIngest.h"

namespace QOR {
namespace {

struct Status {
    unsigned status;
    std::string_view title;
    std::string_view code;  ///< where nothing more is known
};

constexpr std::array statuses{
    Status{400, "Bad Request", "bad_request"},
    Status{401, "Unauthorized", "unauthorized"},
    Status{403, "Forbidden", "forbidden"},
    Status{404, "Not Found", "not_found"},
    Status{405, "Method Not Allowed", "method_not_allowed"},
    Status{406, "Not Acceptable", "not_acceptable"},
    Status{408, "Request Timeout", "timeout"},
    Status{409, "Conflict", "conflict"},
    Status{413, "Content Too Large", "too_large"},
    Status{414, "URI Too Long", "too_long"},
    Status{415, "Unsupported Media Type", "unsupported_media_type"},
    Status{417, "Expectation Failed", "expectation_failed"},
    Status{422, "Unprocessable Content", "unprocessable"},
    Status{429, "Too Many Requests", "too_many_requests"},
    Status{431, "Request Header Fields Too Large", "headers_too_large"},
    Status{500, "Internal Server Error", "failure"},
    Status{501, "Not Implemented", "not_implemented"},
    Status{503, "Service Unavailable", "unavailable"},
    Status{505, "HTTP Version Not Supported", "version_not_supported"},
};

const Status& lookUp(unsigned status) {
    static constexpr Status unknown{0, "Error", "error"};
    const auto* const found =
        std::find_if(statuses.begin(), statuses.end(), [status](const Status& one) { return one.status == status; });
    return found == statuses.end() ? unknown : *found;
}

/// Seconds that a server takes to come back; who waited for a lock has waited about as long already.
constexpr unsigned afterOutage = 2;

/// Messages hold what others say, a driver for instance, in whatever bytes.
void writeAny(JsonWriter& json, std::string_view key, const std::string& text) {
    if (text.empty()) return;
    writeMember(json, key, isUtf8(text) ? text : quoteText(text, text.size()));
}

}  // namespace

void throwProblem(AgentProblem problem) {
    throw AgentProblemException(std::move(problem));
}

AgentProblem failureProblem(std::string detail) {
    const QORRequestControl* const control = QORRequestControl::current();
    if (control == nullptr || !control->metOutage()) return {.status = 500, .detail = std::move(detail)};
    return {.status = 503, .detail = std::move(detail), .code = "database_away", .retryAfter = afterOutage};
}

AgentProblem problemOf(const QORException& exception) {
    AgentProblem problem = failureProblem(exception.message());
    switch (exception.code()) {
        case errDeadline:
            problem = {.status = 503, .detail = exception.message(), .code = "deadline"};
            break;
        case errBadRequest:
        case errForbidden:
        case 404:
        case errOtherContent:
        case errSameRequest:
        case errTooLarge:
            problem = {.status = static_cast<unsigned>(exception.code()), .detail = exception.message()};
            break;
        default:
            break;
    }
    return problem;
}

std::string_view codeOf(const AgentProblem& problem) noexcept {
    return problem.code.empty() ? lookUp(problem.status).code : problem.code;
}

HttpReply problemReply(const AgentProblem& problem) {
    HttpReply reply;
    reply.status = problem.status;
    reply.contentType = "application/problem+json";
    if (problem.status == 429 || problem.status == 503) reply.retryAfter = problem.retryAfter;
    reply.body = writtenObject([&](JsonWriter& json) {
        writeMember(json, "title", lookUp(problem.status).title);
        writeKey(json, "status");
        json.Uint(problem.status);
        writeAny(json, "detail", problem.detail);
        writeMember(json, "code", codeOf(problem));
        writeAny(json, "parameter", problem.parameter);
        if (problem.position) {
            writeKey(json, "position");
            json.Uint64(*problem.position);
        }
        writeAny(json, "found", problem.found);
        writeAny(json, "expected", problem.expected);
        writeAny(json, "suggestion", problem.suggestion);
    });
    return reply;
}

}  // namespace QOR
